// The FUSE front of the embedded driver: the driver's host side behind a
// real mount point, so that any program reads the virtual backup files and
// the data files as plain files. It is a thin layer: each kernel request is
// one small function (ZR_FuseRequests.cpp) that makes the host-side call
// SQL Server's file I/O would make, and answers with its result. The front
// decides nothing about the files: which names exist, their sizes, what a
// read returns, all come from the host.
//
// The mount is one flat folder. A name N under it is the host's name
// strNamePrefix + N (such as "C:\tmp\mnt\" + "sales.mdf", the name a
// statement moved the data file to). The folder lists aNames; a lookup of
// any other name still asks the host, which may know it (a view the library
// handed out later).
//
// Every open file is opened direct (no page cache), so a read always
// reaches the host, which holds it until live I/O has supplied its pages.
//
// Threads: Mount and Serve on one thread (the caller's); the requests run
// on the FUSE loop's threads. Only the library's process links this front.
#pragma once

#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "filterdriver/ZR_DriverHost.h"

struct fuse_session;

struct ZR_FuseFrontOptions {
    std::string strMountPoint;        // an absolute path
    std::wstring strNamePrefix;       // what the host's names start with, up to the name under the mount
    std::vector<std::string> aNames;  // the names the folder lists
    std::string strSpaceFolder;       // statfs reports the file system of this folder
    bool bAllowOther = false;         // other users may use the mount
};

class ZR_FuseFront {
public:
    ZR_FuseFront(std::shared_ptr<ZR_DriverHost> pHost, ZR_FuseFrontOptions options);
    // Unmounts if still mounted and closes every handle the front holds.
    ~ZR_FuseFront();
    ZR_FuseFront(const ZR_FuseFront&) = delete;
    ZR_FuseFront& operator=(const ZR_FuseFront&) = delete;

    // Mounts at the mount point; false with the reason in the error chain.
    bool Mount();
    // Serves until the mount is removed from outside (fusermount3 -u,
    // zirlane umount) or SIGINT, SIGTERM or SIGHUP arrives; then unmounts.
    // Requests in flight end first. Call ZR_ServerProcess::HoldSignals
    // before any thread starts, so that only this thread takes the signals.
    void Serve();
    // Removes the mount; nothing when it is not mounted.
    void Unmount();

    // --- for the request functions ---
    ZR_DriverHost& Host() { return *m_pHost; }
    const ZR_FuseFrontOptions& Options() const { return m_Options; }
    time_t MountTime() const { return m_iMountTime; }
    // The host's name of a name under the mount; empty for a name that
    // cannot stand for a host name.
    std::wstring HostName(const char* szName) const;
    // The host's name of an inode's file; empty for an unknown inode.
    std::wstring HostNameOf(uint64_t iInode);
    // The inode of a name, opened on the host at its first lookup; each
    // call counts one lookup. 0 with *piErrno set on failure.
    uint64_t Lookup(const char* szName, int* piErrno);
    // The host handle an inode holds; 0 for an unknown inode.
    ZR_HostHandle HandleOf(uint64_t iInode);
    // The kernel forgot iLookups lookups; the last one closes the handle.
    void Forget(uint64_t iInode, uint64_t iLookups);

private:
    struct Inode {
        std::string strName;
        ZR_HostHandle hFile = 0;
        uint64_t iLookups = 0;
    };

    std::shared_ptr<ZR_DriverHost> m_pHost;
    ZR_FuseFrontOptions m_Options;
    fuse_session* m_pSession = nullptr;
    bool m_bMounted = false;
    time_t m_iMountTime = 0;

    std::mutex m_cs;  // guards the inode table
    std::map<uint64_t, Inode> m_Inodes;
    std::map<std::string, uint64_t> m_ByName;
    uint64_t m_iNextInode = 2;  // 1 is the folder
};
