#include "support/RealMaps.h"

#include "support/MtfWalker.h"

#include <cstring>
#include <fstream>

namespace zrtest {

namespace {

constexpr std::uint64_t kExtentBytes = 65536;

ZR_StripeLocation Loc(std::uint64_t iOfs, std::uint64_t iLen) { return {iOfs, iLen, 0, iOfs, 0}; }

template <class T>
T Load(const std::vector<std::uint8_t>& a, std::uint64_t iAt) {
    T v;
    std::memcpy(&v, a.data() + iAt, sizeof v);
    return v;
}

// Which configuration a MQCI stream of this block belongs to, or null.
ZR_ConfigInfo* ConfigOf(ZR_CMaps& map, std::uint32_t iBlock) {
    if (iBlock == MTF_ID_MSCI)
        return &map.m_ConfigMSCI;
    if (iBlock == MTF_ID_MSLS)
        return &map.m_ConfigMSLS;
    return nullptr;
}

// One stream at iPos: its header, its data as a segment, and the
// configuration it carries. The stream's length on the medium, 0 to stop.
std::uint64_t AddStream(ZR_CMaps& map, const std::vector<std::uint8_t>& a, std::uint64_t iPos,
                        std::uint32_t iBlock, bool* pbConfigOk) {
    auto hdr = Load<MTF_STREAM_HDR>(a, iPos);
    std::uint32_t iId = MTF_StreamId(hdr);
    std::uint64_t iStep = MTF_StreamLength(hdr);
    if (!MTF_IsStreamId(iId) || !MTF_IsStreamChecksumValid(hdr) || iStep == 0 || iStep > a.size() - iPos)
        return 0;
    map.AddSTREAM(iId, 0, Loc(iPos, MTF_STREAM_HDR_SIZE), hdr.m_length);
    if (hdr.m_length)
        map.AddSegment(0, Loc(iPos + MTF_STREAM_HDR_SIZE, hdr.m_length));
    ZR_ConfigInfo* pConfig = ConfigOf(map, iBlock);
    if (iId == MTF_ID_MQCI && pConfig)
        *pbConfigOk = *pbConfigOk && map.ParseConfig(*pConfig, a.data() + iPos + MTF_STREAM_HDR_SIZE,
                                                     static_cast<std::uint32_t>(hdr.m_length));
    return iStep;
}

}  // namespace

bool FillContentMap(ZR_CMaps& map, const std::vector<std::uint8_t>& a) {
    std::uint64_t iPos = 0;
    std::uint32_t iBlock = 0;
    bool bConfigOk = true;
    int iBlocks = 0;
    while (iPos + MTF_DB_HDR_SIZE <= a.size()) {
        std::uint32_t iId = Load<std::uint32_t>(a, iPos);
        std::uint64_t iStep;
        if (MTF_IsBlockId(iId)) {
            if (!MTF_IsBlockChecksumValid(Load<MTF_DB_HDR>(a, iPos)))
                break;
            iStep = MTF_BlockLength(a.data() + iPos, a.size() - iPos);
            iBlock = iId;
            map.AddDBLK(iId, 0, Loc(iPos, iStep));
            ++iBlocks;
        } else {
            iStep = AddStream(map, a, iPos, iBlock, &bConfigOk);
        }
        if (iStep == 0)
            break;
        iPos += iStep;
    }
    map.SetRequiredFiles(1);
    return iBlocks > 0 && bConfigOk;
}

bool FillExtentMap(ZR_EMaps& map, const std::filesystem::path& backup) {
    MtfWalk walk = MtfWalker::WalkFile(backup);
    if (!walk.ok)
        return false;
    std::vector<std::uint8_t> a = ReadFileBytes(backup);
    int iExtents = 0;
    for (const MtfDataSet& set : walk.dataSets)
        for (const MtfDataRun& run : set.data)
            for (std::uint64_t iAt = 0; iAt + kExtentBytes <= run.length; iAt += kExtentBytes) {
                std::uint64_t iOfs = run.offset + iAt;
                if (iOfs + kExtentBytes <= a.size() && map.Augment(a.data() + iOfs, 0, iOfs, 0))
                    ++iExtents;
            }
    return iExtents > 0;
}

void SetTestIdentity(X_MapFile& map, const std::filesystem::path& backup) {
    MTF_DATE_TIME date{};
    for (int i = 0; i < 5; ++i)
        date.m_bytes[i] = static_cast<std::uint8_t>(0x31 + i * 7);
    map.SetBackend(ZR_BACKEND_MTF);
    map.SetDataSetNumber(1);
    map.SetMediaFamilyId(0x5EED0001);
    map.SetMediaDate(date);
    map.SetMediaWriteDate(date);
    map.SetBackupName(backup.wstring().c_str());
    map.SetPrimaryName(backup.wstring().c_str());
}

}  // namespace zrtest
