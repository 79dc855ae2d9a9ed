// One function for each kernel request: it makes the host-side call that
// SQL Server's file I/O would make and answers with exactly one reply.
// Results of the host become errno values through ZR_HostStatusToErrno.
#include "fusefront/ZR_FuseRequests.h"

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "fusefront/ZR_FuseFront.h"

namespace {

constexpr double kAttrSeconds = 1.0;
constexpr unsigned kMaxTransfer = 1u << 20;  // RESTORE reads views in pieces of 1 MiB
constexpr blksize_t kPageBytes = 8192;
constexpr ino_t kUnknownInode = 0xFFFFFFFF;  // a listing's inodes are known only once looked up

ZR_FuseFront& Front(fuse_req_t req) { return *static_cast<ZR_FuseFront*>(fuse_req_userdata(req)); }

int Errno(ZR_HostStatus iStatus) { return ZR_HostStatusToErrno(iStatus); }

// The FUSE loop is C: nothing may leave a request but its reply.
template <class Body>
void Guarded(fuse_req_t req, Body body) {
    try {
        body();
    } catch (const std::bad_alloc&) {
        fuse_reply_err(req, ENOMEM);
    } catch (...) {
        fuse_reply_err(req, EIO);
    }
}

// A forget has no answer: a failure can only be dropped.
template <class Body>
void Quietly(fuse_req_t req, Body body) {
    try {
        body();
    } catch (...) {
    }
    fuse_reply_none(req);
}

struct stat Attributes(fuse_req_t req, fuse_ino_t ino, uint64_t iSize) {
    struct stat st {};
    st.st_ino = ino;
    st.st_uid = getuid();
    st.st_gid = getgid();
    st.st_blksize = kPageBytes;
    st.st_atime = st.st_mtime = st.st_ctime = Front(req).MountTime();
    if (ino == FUSE_ROOT_ID) {
        st.st_mode = S_IFDIR | 0755;
        st.st_nlink = 2;
    } else {
        st.st_mode = S_IFREG | 0644;
        st.st_nlink = 1;
        st.st_size = static_cast<off_t>(iSize);
        st.st_blocks = static_cast<blkcnt_t>((iSize + 511) / 512);
    }
    return st;
}

// The size of an inode's file as the host tells it (0 for the folder).
int SizeOf(fuse_req_t req, fuse_ino_t ino, uint64_t* piSize) {
    *piSize = 0;
    return ino == FUSE_ROOT_ID ? 0 : Errno(Front(req).Host().QuerySize(Front(req).HandleOf(ino), piSize));
}

void ReplyAttributes(fuse_req_t req, fuse_ino_t ino) {
    uint64_t iSize = 0;
    if (int iErrno = SizeOf(req, ino, &iSize)) return (void)fuse_reply_err(req, iErrno);
    struct stat st = Attributes(req, ino, iSize);
    fuse_reply_attr(req, &st, kAttrSeconds);
}

void OnInit(void*, fuse_conn_info* conn) {
    conn->max_write = kMaxTransfer;  // also lets reads grow to 1 MiB
    conn->max_readahead = 0;         // reads are direct: the kernel keeps nothing
}

void OnLookup(fuse_req_t req, fuse_ino_t parent, const char* szName) {
    Guarded(req, [&] {
        int iErrno = ENOENT;
        fuse_entry_param entry{};
        entry.ino = parent == FUSE_ROOT_ID ? Front(req).Lookup(szName, &iErrno) : 0;
        if (!entry.ino) return (void)fuse_reply_err(req, iErrno);
        uint64_t iSize = 0;
        if ((iErrno = SizeOf(req, entry.ino, &iSize))) {
            Front(req).Forget(entry.ino, 1);
            return (void)fuse_reply_err(req, iErrno);
        }
        entry.attr = Attributes(req, entry.ino, iSize);
        entry.attr_timeout = entry.entry_timeout = kAttrSeconds;
        fuse_reply_entry(req, &entry);
    });
}

void OnForget(fuse_req_t req, fuse_ino_t ino, uint64_t iLookups) {
    Quietly(req, [&] { Front(req).Forget(ino, iLookups); });
}

void OnForgetMulti(fuse_req_t req, size_t iCount, fuse_forget_data* pForgets) {
    Quietly(req, [&] {
        for (size_t i = 0; i < iCount; ++i) Front(req).Forget(pForgets[i].ino, pForgets[i].nlookup);
    });
}

void OnGetAttr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
    Guarded(req, [&] { ReplyAttributes(req, ino); });
}

// Only the size can be set; other attributes stay what they are.
void OnSetAttr(fuse_req_t req, fuse_ino_t ino, struct stat* pAttr, int iToSet, fuse_file_info* fi) {
    Guarded(req, [&] {
        if (iToSet & FUSE_SET_ATTR_SIZE) {
            ZR_HostHandle hFile = fi ? fi->fh : Front(req).HandleOf(ino);
            int iErrno = Errno(Front(req).Host().SetSize(hFile, static_cast<uint64_t>(pAttr->st_size)));
            if (iErrno) return (void)fuse_reply_err(req, iErrno);
        }
        ReplyAttributes(req, ino);
    });
}

void OnReadDir(fuse_req_t req, fuse_ino_t ino, size_t cbMax, off_t iOffset, fuse_file_info*) {
    Guarded(req, [&] {
        if (ino != FUSE_ROOT_ID) return (void)fuse_reply_err(req, ENOTDIR);
        std::vector<std::string> aNames = {".", ".."};
        for (const std::string& name : Front(req).Options().aNames) aNames.push_back(name);
        std::vector<char> buffer(cbMax);
        size_t cbUsed = 0;
        for (size_t i = static_cast<size_t>(iOffset); i < aNames.size(); ++i) {
            struct stat st {};
            st.st_ino = kUnknownInode;  // readers pass over entries of inode 0
            st.st_mode = i < 2 ? S_IFDIR : S_IFREG;
            size_t cb = fuse_add_direntry(req, buffer.data() + cbUsed, cbMax - cbUsed, aNames[i].c_str(), &st,
                                          static_cast<off_t>(i + 1));
            if (cb > cbMax - cbUsed) break;
            cbUsed += cb;
        }
        fuse_reply_buf(req, buffer.data(), cbUsed);
    });
}

void OnOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
    Guarded(req, [&] {
        ZR_HostHandle hFile = 0;
        if (int iErrno = Errno(Front(req).Host().Open(Front(req).HostNameOf(ino).c_str(), &hFile)))
            return (void)fuse_reply_err(req, iErrno);
        fi->fh = hFile;
        fi->direct_io = 1;
        if (fuse_reply_open(req, fi) != 0) Front(req).Host().Close(hFile, false);  // the opener was interrupted
    });
}

void OnRead(fuse_req_t req, fuse_ino_t, size_t cb, off_t iOffset, fuse_file_info* fi) {
    Guarded(req, [&] {
        std::unique_ptr<char[]> pBuffer(new char[cb]);
        uint32_t cbRead = 0;
        int iErrno = Errno(Front(req).Host().Read(fi->fh, static_cast<uint64_t>(iOffset), pBuffer.get(),
                                                  static_cast<uint32_t>(cb), &cbRead));
        if (iErrno) return (void)fuse_reply_err(req, iErrno);
        fuse_reply_buf(req, pBuffer.get(), cbRead);
    });
}

void OnWrite(fuse_req_t req, fuse_ino_t, const char* p, size_t cb, off_t iOffset, fuse_file_info* fi) {
    Guarded(req, [&] {
        int iErrno = Errno(Front(req).Host().Write(fi->fh, static_cast<uint64_t>(iOffset), p, static_cast<uint32_t>(cb)));
        if (iErrno) return (void)fuse_reply_err(req, iErrno);
        fuse_reply_write(req, cb);
    });
}

void OnRelease(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    Guarded(req, [&] { fuse_reply_err(req, Errno(Front(req).Host().Close(fi->fh, false))); });
}

void OnFsync(fuse_req_t req, fuse_ino_t, int, fuse_file_info* fi) {
    Guarded(req, [&] { fuse_reply_err(req, Errno(Front(req).Host().Flush(fi->fh))); });
}

// As SQL Server deletes a file: opened, then closed with delete on close;
// the driver removes the data file's sparse file and bitmap at its last
// close.
void OnUnlink(fuse_req_t req, fuse_ino_t parent, const char* szName) {
    Guarded(req, [&] {
        ZR_HostHandle hFile = 0;
        std::wstring strName = parent == FUSE_ROOT_ID ? Front(req).HostName(szName) : L"";
        if (strName.empty()) return (void)fuse_reply_err(req, ENOENT);
        if (int iErrno = Errno(Front(req).Host().Open(strName.c_str(), &hFile)))
            return (void)fuse_reply_err(req, iErrno);
        fuse_reply_err(req, Errno(Front(req).Host().Close(hFile, true)));
    });
}

// The space of the folder where the data files' bytes really go.
void OnStatFs(fuse_req_t req, fuse_ino_t) {
    Guarded(req, [&] {
        struct statvfs st {};
        if (statvfs(Front(req).Options().strSpaceFolder.c_str(), &st) != 0) return (void)fuse_reply_err(req, errno);
        fuse_reply_statfs(req, &st);
    });
}

fuse_lowlevel_ops MakeRequests() {
    fuse_lowlevel_ops ops{};
    ops.init = OnInit;
    ops.lookup = OnLookup;
    ops.forget = OnForget;
    ops.forget_multi = OnForgetMulti;
    ops.getattr = OnGetAttr;
    ops.setattr = OnSetAttr;
    ops.readdir = OnReadDir;
    ops.open = OnOpen;
    ops.read = OnRead;
    ops.write = OnWrite;
    ops.release = OnRelease;
    ops.fsync = OnFsync;
    ops.unlink = OnUnlink;
    ops.statfs = OnStatFs;
    return ops;
}

}  // namespace

const fuse_lowlevel_ops& ZR_FuseRequests() {
    static const fuse_lowlevel_ops ops = MakeRequests();
    return ops;
}
