#include "fusefront/ZR_FuseFront.h"

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

#include <algorithm>
#include <cerrno>

#include "diag/ZR_Error.h"
#include "fusefront/ZR_FuseRequests.h"
#include "fusefront/ZR_ServerProcess.h"
#include "platform/win32.h"

namespace {

// Threads of the FUSE loop: each read of a missing page holds one until
// live I/O has served it.
constexpr int kLoopThreads = 16;

std::wstring Wide(const std::string& s) {
    if (s.empty()) return {};
    int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring ws(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), ws.data(), n);
    return ws;
}

}  // namespace

ZR_FuseFront::ZR_FuseFront(std::shared_ptr<ZR_DriverHost> pHost, ZR_FuseFrontOptions options)
    : m_pHost(std::move(pHost)), m_Options(std::move(options)) {}

ZR_FuseFront::~ZR_FuseFront() {
    Unmount();
    std::map<uint64_t, Inode> inodes;
    {
        std::lock_guard guard(m_cs);
        inodes.swap(m_Inodes);
        m_ByName.clear();
    }
    for (auto& [iInode, inode] : inodes) m_pHost->Close(inode.hFile, false);
}

// ---------------------------------------------------------------------------
// The session
// ---------------------------------------------------------------------------

bool ZR_FuseFront::Mount() {
    std::string strOptions = "fsname=zirlane,subtype=zirlane";
    if (m_Options.bAllowOther) strOptions += ",allow_other";
    const char* aArgs[] = {"zirlane", "-o", strOptions.c_str()};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(aArgs));
    m_pSession = fuse_session_new(&args, &ZR_FuseRequests(), sizeof(fuse_lowlevel_ops), this);
    fuse_opt_free_args(&args);
    SetLastError(NO_ERROR);  // libfuse tells its reasons on stderr itself
    if (!m_pSession) {
        ZR_Error(nullptr, __FILE__, "ZR_FuseFront::Mount", __LINE__,
                 "The FUSE session could not be made (the lines above say why)\n");
        return false;
    }
    if (fuse_session_mount(m_pSession, m_Options.strMountPoint.c_str()) != 0) {
        fuse_session_destroy(m_pSession);
        m_pSession = nullptr;
        ZR_Error(nullptr, __FILE__, "ZR_FuseFront::Mount", __LINE__, "Unable to mount at %s (the lines above say why)\n",
                 m_Options.strMountPoint.c_str());
        return false;
    }
    m_bMounted = true;
    m_iMountTime = time(nullptr);
    return true;
}

void ZR_FuseFront::Serve() {
    if (!m_pSession) return;
    fuse_set_signal_handlers(m_pSession);
    ZR_ServerProcess::ReleaseSignals();
    fuse_loop_config* pConfig = fuse_loop_cfg_create();
    fuse_loop_cfg_set_max_threads(pConfig, kLoopThreads);
    fuse_session_loop_mt(m_pSession, pConfig);
    fuse_loop_cfg_destroy(pConfig);
    // What comes after the loop (the unmount, the library's removal) ends
    // whole: a second Ctrl-C waits.
    ZR_ServerProcess::HoldSignals();
    fuse_remove_signal_handlers(m_pSession);
    Unmount();
}

void ZR_FuseFront::Unmount() {
    if (!m_pSession) return;
    if (m_bMounted) fuse_session_unmount(m_pSession);
    m_bMounted = false;
    fuse_session_destroy(m_pSession);
    m_pSession = nullptr;
}

// ---------------------------------------------------------------------------
// Names and inodes
// ---------------------------------------------------------------------------

std::wstring ZR_FuseFront::HostName(const char* szName) const {
    const std::string name = szName ? szName : "";
    // A backslash would reach into another folder of the host's names.
    if (name.empty() || name == "." || name == ".." || name.find('\\') != std::string::npos) return {};
    return m_Options.strNamePrefix + Wide(name);
}

std::wstring ZR_FuseFront::HostNameOf(uint64_t iInode) {
    std::string name;
    {
        std::lock_guard guard(m_cs);
        auto it = m_Inodes.find(iInode);
        if (it == m_Inodes.end()) return {};
        name = it->second.strName;
    }
    return HostName(name.c_str());
}

uint64_t ZR_FuseFront::Lookup(const char* szName, int* piErrno) {
    {
        std::lock_guard guard(m_cs);
        if (auto it = m_ByName.find(szName); it != m_ByName.end()) {
            ++m_Inodes[it->second].iLookups;
            return it->second;
        }
    }
    const std::wstring strName = HostName(szName);
    ZR_HostHandle hFile = 0;
    *piErrno = strName.empty() ? ENOENT : ZR_HostStatusToErrno(m_pHost->Open(strName.c_str(), &hFile));
    if (*piErrno) return 0;
    uint64_t iInode = 0;
    bool bNew = false;
    {
        std::lock_guard guard(m_cs);
        auto [it, bInserted] = m_ByName.try_emplace(szName, m_iNextInode);
        bNew = bInserted;
        iInode = it->second;
        if (bNew) m_Inodes[m_iNextInode++] = Inode{szName, hFile, 0};
        ++m_Inodes[iInode].iLookups;
    }
    if (!bNew) m_pHost->Close(hFile, false);  // another lookup of the name came first
    return iInode;
}

ZR_HostHandle ZR_FuseFront::HandleOf(uint64_t iInode) {
    std::lock_guard guard(m_cs);
    auto it = m_Inodes.find(iInode);
    return it == m_Inodes.end() ? 0 : it->second.hFile;
}

void ZR_FuseFront::Forget(uint64_t iInode, uint64_t iLookups) {
    ZR_HostHandle hFile = 0;
    {
        std::lock_guard guard(m_cs);
        auto it = m_Inodes.find(iInode);
        if (it == m_Inodes.end()) return;
        Inode& inode = it->second;
        inode.iLookups -= std::min(iLookups, inode.iLookups);
        if (inode.iLookups) return;
        hFile = inode.hFile;
        m_ByName.erase(inode.strName);
        m_Inodes.erase(it);
    }
    m_pHost->Close(hFile, false);
}
