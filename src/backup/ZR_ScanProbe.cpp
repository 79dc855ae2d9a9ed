#include "backup/ZR_ScanProbe.h"

#include <algorithm>
#include <cstring>

#include "backup/ZR_Backup.h"
#include "backupio/ZR_BackupFile.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/Unaligned.h"

namespace {

constexpr uint32_t STRIPE_BITS = 64 * 8;
constexpr uint32_t KELP_ID = MTF_MakeId("KELP");
// SQL Server's own compressed backups start with these eight bytes.
constexpr char kCompressedSqlMagic[8] = {'M', 'S', 'S', 'Q', 'L', 'B', 'A', 'K'};

bool SameDate(const MTF_DATE_TIME& a, const MTF_DATE_TIME& b) { return memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

bool ZR_ScanProbe::Run(ZR_Backup* pB, int32_t iDataSet) {
    ZR_ScanProbe probe(pB, iDataSet);
    return probe.CheckHeads() && probe.ScanFiles();
}

bool ZR_ScanProbe::CheckHeads() {
    if (!m_pB->Open()) return false;
    bool bOk = true;
    for (int i = 0; bOk && i < m_pB->GetNumFiles(); ++i) bOk = CheckHead(m_pB->GetFile(i));
    m_pB->Close();
    return bOk;
}

// The walk would take a file that is no backup for a short read, or pass
// over it as an unsupported file: neither tells the reader what is wrong.
bool ZR_ScanProbe::CheckHead(ZR_BackupFile* pFile) {
    uint8_t aHead[sizeof kCompressedSqlMagic] = {};
    const uint32_t iLen = static_cast<uint32_t>(std::min<uint64_t>(sizeof aHead, pFile->GetFileSize()));
    m_pAhead->Reset();  // the window may describe another file
    if (iLen > 0 && !pFile->Read(m_pAhead, aHead, 0, iLen, IO_READ, nullptr)) return false;
    const uint32_t iId = ZR_Load<uint32_t>(aHead);
    if (iLen >= sizeof iId && (iId == MTF_ID_TAPE || iId == KELP_ID)) return true;
    const char* szFormat = "%S is not a Microsoft Tape Format backup: it does not start with a TAPE block.\n";
    if (iLen == 0)
        szFormat = "%S is empty, not a Microsoft Tape Format backup.\n";
    else if (iLen == sizeof aHead && memcmp(aHead, kCompressedSqlMagic, sizeof aHead) == 0)
        szFormat = "%S is a compressed SQL Server backup: compressed backups are not served yet.\n";
    SetLastError(NO_ERROR);  // the content is at fault, not a call
    ZR_Error(m_wszKey, __FILE__, "ZR_ScanProbe::CheckHeads", __LINE__, szFormat, pFile->GetFileName());
    return false;
}

void ZR_ScanProbe::Start() {
    int n = m_pB->GetNumFiles();
    m_pB->m_eBackend = static_cast<ZR_Backend_e>(0);
    m_pB->m_pTapes.reset(new MTF_TAPE[n]());
    m_pB->m_pRaids.reset(new MTF_RAID_EXTENSION[n]());
    m_pB->m_pWriteDates.reset(new MTF_DATE_TIME[n]());
    memset(m_pB->m_aStripeSeen, 0, sizeof m_pB->m_aStripeSeen);
    memset(m_pB->m_aKelpGuid, 0, sizeof m_pB->m_aKelpGuid);
    memset(m_pB->m_aKlbsGuid, 0, sizeof m_pB->m_aKlbsGuid);
    m_pB->m_ProbeIdentity = ZR_ScanIdentity();
    m_pB->m_ProbeIdentity.m_iDataSet = m_iDataSet;
}

bool ZR_ScanProbe::IsDumping() { return (GetTraceFlags() & ms_iDumpCategory) != 0; }

uint32_t ZR_ScanProbe::Process_TAPE(const MTF_DB_HDR* pBlock) {
    memcpy(&m_pB->m_pTapes[m_iFile], pBlock, sizeof(MTF_TAPE));
    return ZR_SCAN_CONTINUE;
}

uint32_t ZR_ScanProbe::Process_SSET(const MTF_DB_HDR* pBlock) {
    m_pB->m_pWriteDates[m_iFile] = reinterpret_cast<const MTF_SSET*>(pBlock)->m_media_write_date;
    return ZR_SCAN_CONTINUE;
}

uint32_t ZR_ScanProbe::Process_RAID(const uint8_t* pData, uint32_t iLength) {
    // A short stream leaves the rest of the record zero rather than reading
    // beyond what was given.
    MTF_RAID_EXTENSION& raid = m_pB->m_pRaids[m_iFile];
    memset(&raid, 0, sizeof raid);
    memcpy(&raid, pData, std::min<uint32_t>(iLength, sizeof raid));
    if (raid.m_raid_type != MTF_RAID_TYPE) {
        ZR_Error(m_wszKey, __FILE__, "ZR_ScanProbe::Process", __LINE__, "Internal MTF error(%d).\n",
                 static_cast<int>(raid.m_raid_type));
        return ZR_SCAN_ABORT;
    }
    // The high half of the device count holds 1 in every real backup; only
    // the low half counts the files.
    int32_t iRequired = MTF_RaidFileCount(raid);
    m_pB->m_ProbeIdentity.m_iRequiredFiles = iRequired;
    if (iRequired != m_pB->GetNumFiles()) {
        FailStripeCount(iRequired);
        return ZR_SCAN_ABORT;
    }
    uint32_t iSequence = MTF_RaidSequence(raid);
    if (IsStripeSeen(iSequence)) {
        ZR_Error(m_wszKey, __FILE__, "ZR_ScanProbe::Process", __LINE__, "Mismatched striped backup files.\n");
        return ZR_SCAN_ABORT;
    }
    SetStripeSeen(iSequence);
    return ZR_SCAN_CONTINUE;
}

// Names the file and what to do first: the count alone does not say
// whether a stripe is missing or files of several backups were mixed.
void ZR_ScanProbe::FailStripeCount(int32_t iRequired) {
    const int iGiven = m_pB->GetNumFiles();
    const char* szFiles = iRequired == 1 ? "file" : "files";
    if (iRequired > iGiven)
        ZR_Error(m_wszKey, __FILE__, "ZR_ScanProbe::Process", __LINE__,
                 "%S is one stripe of a backup written to %d %s: name all of them, stripes in any order.\n",
                 FileName(), iRequired, szFiles);
    else
        ZR_Error(m_wszKey, __FILE__, "ZR_ScanProbe::Process", __LINE__,
                 "%S holds a backup written to %d %s, but %d files were given for it: name the stripes of one "
                 "backup only.\n",
                 FileName(), iRequired, szFiles, iGiven);
    ZR_Error(m_wszKey, __FILE__, "ZR_ScanProbe::Process", __LINE__,
             "Not all of the %d required striped backup files are specified.\n", iRequired);
}

// Sequence numbers outside 1..512 have no bit: SQL Server never writes them,
// and they are neither marked nor found.
bool ZR_ScanProbe::IsStripeSeen(uint32_t iSequence) const {
    if (iSequence == 0 || iSequence > STRIPE_BITS) return false;
    uint32_t i = iSequence - 1;
    return (m_pB->m_aStripeSeen[i >> 3] & (1u << (7 - (i & 7)))) != 0;
}

void ZR_ScanProbe::SetStripeSeen(uint32_t iSequence) {
    if (iSequence == 0 || iSequence > STRIPE_BITS) return;
    uint32_t i = iSequence - 1;
    m_pB->m_aStripeSeen[i >> 3] |= static_cast<uint8_t>(1u << (7 - (i & 7)));
}

uint32_t ZR_ScanProbe::Process_MQCI(const uint8_t* pData, uint32_t iLength) {
    // Only the configuration at the start of the data set is wanted; the
    // copy at its end (in the MSLS) says the same. A stream too short for
    // the fields is left to the full scan to refuse.
    ZR_ScanIdentity& id = m_pB->m_ProbeIdentity;
    if (id.m_iServerVersion != 0 || iLength < sizeof(SQL_CONFIG_INFO_V7)) return ZR_SCAN_CONTINUE;
    SQL_CONFIG_INFO_V7 config;
    memcpy(&config, pData, sizeof config);
    id.m_iServerVersion = config.m_server_version;
    id.m_iBackupType = config.m_backup_type;
    m_pB->m_iVersion = SQL_MajorVersion(config.m_server_version);
    return ZR_SCAN_CONTINUE;
}

bool ZR_ScanProbe::Finish() {
    ZR_ScanIdentity& id = m_pB->m_ProbeIdentity;
    switch (m_pB->m_eBackend) {
        case ZR_BACKEND_KELP:
            memcpy(id.m_aKelpGuid, m_pB->m_aKelpGuid, sizeof id.m_aKelpGuid);
            memcpy(id.m_aKlbsGuid, m_pB->m_aKlbsGuid, sizeof id.m_aKlbsGuid);
            return true;
        case ZR_BACKEND_MTF:
            return FinishNative();
        default:
            // No file was recognised: the mount then finds no map to use.
            return true;
    }
}

// The files of one backup must share the media date and the write date of
// the data set; these with the media family are the backup's identity.
bool ZR_ScanProbe::FinishNative() {
    const MTF_TAPE* pTapes = m_pB->m_pTapes.get();
    const MTF_DATE_TIME* pDates = m_pB->m_pWriteDates.get();
    for (int i = 1; i < m_pB->GetNumFiles(); ++i) {
        if (!SameDate(pTapes[i].m_media_date, pTapes[0].m_media_date) || !SameDate(pDates[i], pDates[0])) {
            ZR_Error(m_wszKey, __FILE__, "ZR_ScanProbe::Finish", __LINE__, "Mismatched backup files.\n");
            return false;
        }
    }
    // Each stripe of a media set has a family id of its own; the identity
    // takes that of the first stripe, so that the key of the maps does not
    // depend on the order in which the caller names the files.
    int iFirst = StripeOrder(m_pB).front();
    ZR_ScanIdentity& id = m_pB->m_ProbeIdentity;
    id.m_iMediaFamilyId = pTapes[iFirst].m_media_family_id;
    id.m_MediaDate = pTapes[iFirst].m_media_date;
    id.m_MediaWriteDate = pDates[iFirst];
    return true;
}

std::vector<int> ZR_ScanProbe::StripeOrder(ZR_Backup* pB) {
    std::vector<int> aOrder(static_cast<size_t>(pB->GetNumFiles()));
    for (size_t i = 0; i < aOrder.size(); ++i) aOrder[i] = static_cast<int>(i);
    if (!pB->m_pRaids) return aOrder;
    const MTF_RAID_EXTENSION* pRaids = pB->m_pRaids.get();
    std::stable_sort(aOrder.begin(), aOrder.end(),
                     [pRaids](int a, int b) { return MTF_RaidSequence(pRaids[a]) < MTF_RaidSequence(pRaids[b]); });
    return aOrder;
}
