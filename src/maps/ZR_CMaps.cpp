#include "maps/ZR_CMaps.h"

#include "diag/Trace.h"
#include "foundation/Alloc.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

constexpr int kVersionWithIdentity = 3;

bool SameBytes(const void* a, const void* b, size_t n) { return std::memcmp(a, b, n) == 0; }

bool IsZeroGuid(const GUID& g) { return g == GUID_NULL; }

// A heap copy of one record of a configuration stream.
template <class T>
T* CopyRecord(const uint8_t* p, uint32_t cb) {
    void* pCopy = Malloc(cb);
    std::memcpy(pCopy, p, cb);
    return static_cast<T*>(pCopy);
}

}  // namespace

// ---------------------------------------------------------------------------
// Streams and blocks in the file
// ---------------------------------------------------------------------------

bool ZR_STREAM_CMap::SerializeWrite(X_MapFile* pFile) {
    return pFile->Write(&m_iType, 4, 1) && pFile->Write(&m_iLength, 8, 1) &&
           pFile->Write(&m_Location, sizeof m_Location, 1) && A<ZR_StripeLocation>::SerializeWrite(pFile);
}

bool ZR_STREAM_CMap::SerializeRead(X_MapFile* pFile) {
    return pFile->Read(&m_iType, 4, 1) && pFile->Read(&m_iLength, 8, 1) &&
           pFile->Read(&m_Location, sizeof m_Location, 1) && A<ZR_StripeLocation>::SerializeRead(pFile);
}

bool ZR_DBLK_CMap::SerializeWrite(X_MapFile* pFile) {
    return pFile->Write(&m_iType, 4, 1) && pFile->Write(&m_Location, sizeof m_Location, 1) &&
           A<ZR_STREAM_CMap>::SerializeWrite(pFile);
}

bool ZR_DBLK_CMap::SerializeRead(X_MapFile* pFile) {
    return pFile->Read(&m_iType, 4, 1) && pFile->Read(&m_Location, sizeof m_Location, 1) &&
           A<ZR_STREAM_CMap>::SerializeRead(pFile);
}

// ---------------------------------------------------------------------------
// Configuration records
// ---------------------------------------------------------------------------

void ZR_ConfigInfo::Clear() {
    if (!m_bMapped)
        Free(reinterpret_cast<void**>(&m_pConfig));
    m_pConfig = nullptr;
    m_bMapped = false;
    m_FileGroups.Clean();
    m_Files.Clean();
}

bool ZR_ConfigInfo::Describe(SQL_ConfigRecords* pOut, const wchar_t* wszKey) {
    if (!m_pConfig)
        return false;
    // The records stand in the map exactly as they stood in the stream, so
    // laying them end to end gives back a stream to walk.
    std::string stream(reinterpret_cast<const char*>(m_pConfig), m_pConfig->m_hdr.m_size);
    for (int i = 0; i < static_cast<int>(m_FileGroups); ++i)
        if (auto* p = m_FileGroups(i))
            stream.append(reinterpret_cast<const char*>(p), p->m_hdr.m_size);
    for (int i = 0; i < static_cast<int>(m_Files); ++i)
        if (auto* p = m_Files(i))
            stream.append(reinterpret_cast<const char*>(p), p->m_hdr.m_size);
    return pOut->Parse(stream.data(), stream.size(), wszKey);
}

bool ZR_CMaps::ParseConfig(ZR_ConfigInfo& config, const void* pBlock, uint32_t iLen) {
    config.Clear();
    const uint8_t* p = static_cast<const uint8_t*>(pBlock);
    SQL_HEADER hdr;
    if (iLen < sizeof(SQL_CONFIG_INFO_V7))
        return false;
    std::memcpy(&hdr, p, sizeof hdr);
    if (std::memcmp(hdr.m_type, "SCIN", 4) != 0 || hdr.m_size < sizeof(SQL_CONFIG_INFO_V7) || hdr.m_size > iLen)
        return false;
    config.m_pConfig = CopyRecord<SQL_CONFIG_INFO_V7>(p, hdr.m_size);
    for (uint32_t iOfs = hdr.m_size; iOfs + sizeof(SQL_HEADER) <= iLen;) {
        std::memcpy(&hdr, p + iOfs, sizeof hdr);
        if (hdr.m_size == 0)
            break;
        if (hdr.m_size < sizeof(SQL_HEADER) || hdr.m_size > iLen - iOfs)
            return false;
        const uint8_t* pRecord = p + iOfs;
        if (std::memcmp(hdr.m_type, "SFGI", 4) == 0 && hdr.m_size >= sizeof(SQL_FILEGROUP_INFO_V7)) {
            config.m_FileGroups.Append(CopyRecord<SQL_FILEGROUP_INFO_V7>(pRecord, hdr.m_size));
        } else if (std::memcmp(hdr.m_type, "SFIN", 4) == 0 && hdr.m_size >= sizeof(SQL_FILE_INFO_V7)) {
            auto* pFile = CopyRecord<SQL_FILE_INFO_V7>(pRecord, hdr.m_size);
            if (pFile->m_flags & SQL_FILE_DROPPED)
                Free(reinterpret_cast<void**>(&pFile));
            else
                config.m_Files.Append(pFile);
        }
        iOfs += hdr.m_size;
    }
    return true;
}

bool ZR_CMaps::WriteConfig(ZR_ConfigInfo& config) {
    uint32_t cb = config.m_pConfig ? config.m_pConfig->m_hdr.m_size : 0;
    if (!Write(&cb, 4, 1) || (cb && !Write(config.m_pConfig, cb, 1)))
        return false;
    return config.m_FileGroups.SerializeWrite(this) && config.m_Files.SerializeWrite(this);
}

bool ZR_CMaps::ReadConfig(ZR_ConfigInfo& config) {
    config.Clear();
    uint32_t cb = 0;
    if (!Read(&cb, 4, 1) || cb < sizeof(SQL_CONFIG_INFO_V7))
        return false;
    void* p = nullptr;
    unsigned cbAlloc = 0;
    config.m_bMapped = MapOrAlloc(&p, cb, 1, &cbAlloc);
    config.m_pConfig = static_cast<SQL_CONFIG_INFO_V7*>(p);
    if (!p || !Read(p, cb, 1) || config.m_pConfig->m_hdr.m_size != cb)
        return false;
    if (!config.m_FileGroups.SerializeRead(this) || !config.m_Files.SerializeRead(this))
        return false;
    // A configuration without filegroups or files describes no database.
    return static_cast<int>(config.m_FileGroups) > 0 && static_cast<int>(config.m_Files) > 0;
}

// ---------------------------------------------------------------------------
// The map file
// ---------------------------------------------------------------------------

ZR_CMaps::~ZR_CMaps() {
    // The configurations and the table may point into the view, which the
    // base destructor unmaps: forget them first.
    ClearContents();
}

void ZR_CMaps::ClearContents() {
    m_ConfigMSCI.Clear();
    m_ConfigMSLS.Clear();
    Clean();
}

bool ZR_CMaps::WriteIdentity() {
    int32_t iBackend = m_eBackend;
    int32_t iRequired = m_iRequiredFiles;
    if (!Write(&iBackend, 4, 1) || !Write(&iRequired, 4, 1) || !WriteFixedName(m_wszPrimaryName))
        return false;
    if (m_eBackend == ZR_BACKEND_KELP)
        return true;
    return Write(&m_iMediaFamilyId, 4, 1) && Write(&m_MediaDate, sizeof m_MediaDate, 1) &&
           Write(&m_MediaWriteDate, sizeof m_MediaWriteDate, 1);
}

bool ZR_CMaps::ReadIdentity() {
    int32_t iBackend = 0;
    if (!Read(&iBackend, 4, 1) || X_MapBackend(iBackend) != X_MapBackend(m_eBackend))
        return false;
    int32_t iRequired = 0;
    if (!Read(&iRequired, 4, 1))
        return false;
    m_iRequiredFiles = iRequired;
    if (m_iFileVersion >= kVersionWithIdentity && m_eMapLocale != X_MAPLOCALE_EMBEDDED &&
        !ReadFixedName(m_wszPrimaryName))
        return false;
    if (m_eBackend == ZR_BACKEND_KELP) {
        GUID guid;
        if (!Read(&guid, sizeof guid, 1))
            return false;
        return IsZeroGuid(m_KlbsGuid) || IsZeroGuid(guid) || guid == m_KlbsGuid;
    }
    if (m_iFileVersion >= kVersionWithIdentity) {
        uint32_t iFamily = 0;
        if (!Read(&iFamily, 4, 1) || iFamily != m_iMediaFamilyId)
            return false;
    }
    MTF_DATE_TIME media, write;
    return Read(&media, sizeof media, 1) && Read(&write, sizeof write, 1) &&
           SameBytes(&media, &m_MediaDate, sizeof media) && SameBytes(&write, &m_MediaWriteDate, sizeof write);
}

bool ZR_CMaps::WriteContent() {
    if (!WriteIdentity())
        return false;
    // A map made for data set 0 stands for the first data set.
    int32_t iDataSet = m_iDataSetNumber ? m_iDataSetNumber : 1;
    return Write(&iDataSet, 4, 1) && WriteConfig(m_ConfigMSCI) && WriteConfig(m_ConfigMSLS) &&
           AA<ZR_DBLK_CMap>::SerializeWrite(this);
}

bool ZR_CMaps::ReadContent(bool /*bUpdate*/) {
    ClearContents();
    if (!ReadIdentity())
        return false;
    int32_t iDataSet = 0;
    if (!Read(&iDataSet, 4, 1) || iDataSet != m_iDataSetNumber)
        return false;
    bool bOk = ReadConfig(m_ConfigMSCI) && ReadConfig(m_ConfigMSLS) && AA<ZR_DBLK_CMap>::SerializeRead(this) &&
               GetNumFiles() > 0 && LocationsFit();
    if (!bOk)
        ClearContents();
    return bOk;
}

// ---------------------------------------------------------------------------
// Building and reading the table
// ---------------------------------------------------------------------------

void ZR_CMaps::AddDBLK(uint32_t iType, int iFile, const ZR_StripeLocation& loc) {
    ZR_DBLK_CMap& block = Append(iFile);
    block.m_iType = iType;
    block.m_Location = loc;
}

bool ZR_CMaps::AddSTREAM(uint32_t iType, int iFile, const ZR_StripeLocation& loc, uint64_t iLength) {
    int iBlocks = Count(iFile);
    if (iBlocks == 0)
        return false;
    ZR_STREAM_CMap& stream = (*this)(iFile, iBlocks - 1).Append();
    stream.m_iType = iType;
    stream.m_iLength = iLength;
    stream.m_Location = loc;
    return true;
}

bool ZR_CMaps::AddSegment(int iFile, const ZR_StripeLocation& loc) {
    int iBlocks = Count(iFile);
    if (iBlocks == 0)
        return false;
    ZR_DBLK_CMap& block = (*this)(iFile, iBlocks - 1);
    int iStreams = block;
    if (iStreams == 0)
        return false;
    block(iStreams - 1).Append(loc);
    return true;
}

uint32_t ZR_CMaps::GetType(int iFile) {
    int iBlocks = Count(iFile);
    return iBlocks ? (*this)(iFile, iBlocks - 1).m_iType : 0;
}

template <class F>
bool ZR_CMaps::EveryLocation(int iFile, F f) {
    for (int iDBLK = 0; iDBLK < Count(iFile); ++iDBLK) {
        ZR_DBLK_CMap& block = (*this)(iFile, iDBLK);
        if (!f(block.m_Location))
            return false;
        for (int iSTREAM = 0; iSTREAM < static_cast<int>(block); ++iSTREAM) {
            ZR_STREAM_CMap& stream = block(iSTREAM);
            if (!f(stream.m_Location))
                return false;
            for (int iSegment = 0; iSegment < static_cast<int>(stream); ++iSegment)
                if (!f(stream(iSegment)))
                    return false;
        }
    }
    return true;
}

uint64_t ZR_CMaps::GetRowEnd(int iFile) {
    uint64_t iEnd = 0;
    EveryLocation(iFile, [&](const ZR_StripeLocation& stored) {
        const ZR_StripeLocation loc = Based(stored);
        const uint64_t iLast = loc.iLength > UINT64_MAX - loc.iBkpFileOfs ? UINT64_MAX : loc.iBkpFileOfs + loc.iLength;
        iEnd = std::max(iEnd, iLast);
        return true;
    });
    return iEnd;
}

// Every location of row i names file i, and in a native map a stripe offset
// is the backup file offset: a map that says otherwise is damaged, and is
// passed over like any map that does not read.
bool ZR_CMaps::LocationsFit() {
    const bool bNative = X_MapBackend(m_eBackend) == ZR_BACKEND_MTF;
    for (int iFile = 0; iFile < GetNumFiles(); ++iFile) {
        bool bFit = EveryLocation(iFile, [&](const ZR_StripeLocation& loc) {
            return loc.iDevice == iFile && (!bNative || (loc.iStripeOfs == loc.iBkpFileOfs && loc.iRelativeOfs == 0));
        });
        if (!bFit)
            return false;
    }
    return true;
}

ZR_StripeLocation ZR_CMaps::Based(ZR_StripeLocation loc) const {
    loc.iBkpFileOfs += m_iBaseOffset;
    return loc;
}

ZR_StripeLocation ZR_CMaps::GetLocation(int iFile, int iDBLK) { return Based((*this)(iFile, iDBLK).m_Location); }

ZR_StripeLocation ZR_CMaps::GetLocation(int iFile, int iDBLK, int iSTREAM) {
    return Based((*this)(iFile, iDBLK)(iSTREAM).m_Location);
}

ZR_StripeLocation ZR_CMaps::GetLocation(int iFile, int iDBLK, int iSTREAM, int iSegment) {
    return Based((*this)(iFile, iDBLK)(iSTREAM)(iSegment));
}
