#include "engine/ZR_ChainCheck.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "backup/SQL_Records.h"
#include "backup/ZR_Backup.h"
#include "diag/ZR_Error.h"
#include "engine/ZR_Database.h"
#include "maps/ZR_CMaps.h"

namespace {

// One backup of the chain: its first file, which names it in messages, and
// the configuration record that tells its place in the database's history.
struct Link {
    const wchar_t* wszFile = L"";
    const SQL_CONFIG_INFO_V7* pConfig = nullptr;
};

std::string LsnText(const LSN& l) {
    return std::to_string(l.SeqNo) + ":" + std::to_string(l.blockOffset) + ":" + std::to_string(l.slotId);
}

std::string HexText(const MTF_UUID& id) {
    std::string s;
    char sz[3];
    for (uint8_t b : id.m_bytes) {
        std::snprintf(sz, sizeof sz, "%02x", b);
        s += sz;
    }
    return s;
}

std::wstring DatabaseName(const Link& link) {
    std::wstring ws;
    MTF_ReadString(link.pConfig, link.pConfig->m_hdr.m_size, link.pConfig->m_database_name, MTF_UNICODE_STR, &ws,
                   nullptr);
    return ws;
}

bool SameId(const MTF_UUID& a, const MTF_UUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

class ChainCheck {
public:
    explicit ChainCheck(const wchar_t* wszKey) : m_wszKey(wszKey) {}

    bool Check(ZR_Backup* const* apBackups, int iCount) {
        if (iCount == 0 || !apBackups[0])
            return true;
        Link full;
        if (!Describe(apBackups[0], &full))
            return false;
        Link end = full;  // the last backup that fits
        bool bLogSeen = false;
        for (int i = 1; i < iCount; ++i) {
            if (!apBackups[i])
                continue;
            Link link;
            if (!Describe(apBackups[i], &link) || !SameDatabase(full, link))
                return false;
            bool bFits = i == 1 ? TakenOver(full, link) : bLogSeen ? Continues(end, link) : Covers(end, link);
            if (!bFits)
                return false;
            bLogSeen = i >= 2;
            end = link;
        }
        return true;
    }

private:
    bool Describe(ZR_Backup* pBackup, Link* pLink) {
        ZR_BackupFile* pFile = pBackup->GetFile(0);
        pLink->wszFile = pFile ? pFile->GetFileName() : L"";
        pLink->pConfig = pBackup->m_pCMaps ? pBackup->m_pCMaps->m_ConfigMSCI.m_pConfig : nullptr;
        if (pLink->pConfig)
            return true;
        ZR_Error(m_wszKey, __FILE__, "ZR_CheckChain", __LINE__, "The backup %S has no configuration to check.\n",
                 pLink->wszFile);
        return false;
    }

    bool SameDatabase(const Link& full, const Link& link) {
        const SQL_CONFIG_INFO_V7& a = *full.pConfig;
        const SQL_CONFIG_INFO_V7& b = *link.pConfig;
        if (SameId(a.m_database_family_id, b.m_database_family_id) && SameId(a.m_binding_id, b.m_binding_id))
            return true;
        ZR_Error(m_wszKey, __FILE__, "ZR_CheckChain", __LINE__,
                 "The backup %S is not of the database of %S (database %S, binding id %s, versus %S, binding id "
                 "%s).\n",
                 link.wszFile, full.wszFile, DatabaseName(link).c_str(), HexText(b.m_binding_id).c_str(),
                 DatabaseName(full).c_str(), HexText(a.m_binding_id).c_str());
        return false;
    }

    // A differential serves only the full backup it was taken over.
    bool TakenOver(const Link& full, const Link& diff) {
        const LSN base = diff.pConfig->m_differential_base_lsn;
        const LSN checkpoint = full.pConfig->m_checkpoint_lsn;
        if (base == checkpoint)
            return true;
        ZR_Error(m_wszKey, __FILE__, "ZR_CheckChain", __LINE__,
                 "The differential backup %S (base LSN %s) was not taken over the full backup %S (checkpoint LSN "
                 "%s).\n",
                 diff.wszFile, LsnText(base).c_str(), full.wszFile, LsnText(checkpoint).c_str());
        return false;
    }

    // The first log holds the last LSN of the backup restored in front of it.
    bool Covers(const Link& end, const Link& log) {
        const LSN last = end.pConfig->m_last_lsn;
        const LSN first = log.pConfig->m_first_lsn;
        const LSN logLast = log.pConfig->m_last_lsn;
        if (!(last < first) && !(logLast < last))
            return true;
        ZR_Error(m_wszKey, __FILE__, "ZR_CheckChain", __LINE__,
                 "The log backup %S (LSN %s to %s) does not go on from %S, which ends at LSN %s.\n", log.wszFile,
                 LsnText(first).c_str(), LsnText(logLast).c_str(), end.wszFile, LsnText(last).c_str());
        return false;
    }

    bool Continues(const Link& previous, const Link& log) {
        const LSN first = log.pConfig->m_first_lsn;
        const LSN last = previous.pConfig->m_last_lsn;
        if (first == last)
            return true;
        ZR_Error(m_wszKey, __FILE__, "ZR_CheckChain", __LINE__,
                 "The log backup %S begins at LSN %s, but the log backup %S before it ends at LSN %s.\n", log.wszFile,
                 LsnText(first).c_str(), previous.wszFile, LsnText(last).c_str());
        return false;
    }

    const wchar_t* m_wszKey;
};

}  // namespace

bool ZR_CheckChain(ZR_Backup* const* apBackups, int iCount, const wchar_t* wszKey) {
    return ChainCheck(wszKey).Check(apBackups, iCount);
}

bool ZR_CheckChain(ZR_Database& db) {
    std::vector<ZR_Backup*> aChain;
    for (int i = 0; i < db.GetNumBackups(); ++i)
        aChain.push_back(db.GetBackup(i));
    return ZR_CheckChain(aChain.data(), static_cast<int>(aChain.size()), db.GetMountKey());
}
