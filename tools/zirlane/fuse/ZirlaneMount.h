// The life of one mount of zirlane mount, in this order: Prepare (the
// library mounts the chain, and the statements are made), Restore (with
// --restore), Expose (the FUSE mount), Report, Serve (until interrupted or
// unmounted), Hydrate (with --hydrate) before Serve; the destructor
// removes what stands, the FUSE mount first, then the library's mount,
// which ends a hydration, then the driver, which stores the bitmaps so that
// the next mount of the chain finds the pages it holds.
//
// Names: a data file is moved by the statements to "C:<mount point>\<name>",
// which SQL Server on Linux opens as <mount point>/<name>; the views are
// "C:<mount point>\<key>!<id>.bxk" likewise. The log file, which the driver
// does not serve, is moved to a plain file in the sparse folder,
// "<key>!<n>.lcf", beside the data files' sparse files.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Mount.h"
#include "backup/SQL_Records.h"

class ZR_FuseFront;
class ZirlaneHydration;
class ZR_MountInfo;

class ZirlaneMount {
public:
    // The paths of options are absolute.
    ZirlaneMount(const ZirlaneMountOptions& options, std::string stopClause);
    ~ZirlaneMount();
    ZirlaneMount(const ZirlaneMount&) = delete;
    ZirlaneMount& operator=(const ZirlaneMount&) = delete;

    // Each step gives false with the reason in the error chain.
    bool Prepare();
    bool Restore();
    bool Expose();
    // Prints what stands under the mount point and the statements.
    void Report();
    // Starts filling the sparse files (--hydrate), which goes on while
    // Serve runs and ends, complete or not, with the mount.
    void Hydrate();
    void Serve();
    // The mount key, under which the library records the mount's failures;
    // empty before Prepare has made it.
    const std::wstring& Key() const { return m_wsKey; }

private:
    // A data or log file of the database.
    struct File {
        SQL_FileEntry record;  // of the latest backup that lists it
        std::string name;      // a data file's name under the mount point
        std::wstring wsMovedTo;
    };
    // A virtual backup file under the mount point.
    struct View {
        std::string name;
        std::string what;
    };

    bool ReadConfigurations();
    bool TakeKey();
    bool CollectFiles();
    std::wstring HostPrefix() const;
    bool MountChain();
    void TakeStatements();
    bool RestoreFile(const File& file);
    std::string PresentPages(const File& file);
    void Remove();

    ZirlaneMountOptions m_Options;
    std::string m_stopClause;
    std::string m_database;
    std::wstring m_wsKey;
    ZR_MountInfo* m_pInfo = nullptr;
    bool m_bMounted = false;  // the library's mount stands
    int m_iScans = 0;         // full scans and extent map builds of Prepare
    int m_iBuilds = 0;
    std::vector<SQL_ConfigRecords> m_aConfigs;  // the full backup's, then the differential's
    std::vector<File> m_aFiles;
    std::vector<View> m_aViews;
    std::vector<std::string> m_aRestores;  // the statements, as they were printed
    std::string m_attach;
    std::unique_ptr<ZR_FuseFront> m_pFront;
    std::unique_ptr<ZirlaneHydration> m_pHydration;
};
