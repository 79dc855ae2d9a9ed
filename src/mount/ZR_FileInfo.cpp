#include "mount/ZR_FileInfo.h"

#include <cctype>
#include <cwchar>
#include <cwctype>

#include "backupio/ZR_IOStats.h"
#include "diag/Format.h"
#include "foundation/ZR_Pattern.h"

namespace {

// The sparse files behind data files (MCF, NCF, LCF) have no extension of
// their own to be known by.
bool IsSparseKind(int iKind) { return iKind == 3 || iKind == 6 || iKind == 9; }

bool SameText(const wchar_t* wsz, const char* sz) {
    for (; *wsz && *sz; ++wsz, ++sz)
        if (towlower(static_cast<wint_t>(*wsz)) != static_cast<wint_t>(tolower(static_cast<unsigned char>(*sz))))
            return false;
    return *wsz == 0 && *sz == 0;
}

// The kind that the extension behind the last dot names, any case; 0 for
// any other extension.
int32_t FileKindOfExtension(const wchar_t* wszExtension) {
    const wchar_t* pwszDot = wcsrchr(wszExtension, L'.');
    for (int iKind = 1; pwszDot && iKind <= ZR_FILE_KIND_COUNT; ++iKind)
        if (!IsSparseKind(iKind) && SameText(pwszDot + 1, GetFileKindName(iKind))) return iKind;
    return 0;
}

// The grammar, compiled once; a compiled pattern serves any number of
// threads, each with its own match. Letters stand in both cases, since the
// operation service hands names over in capitals.
struct FileNamePatterns {
    ZR_Pattern path, scheme, tail, backupsLong, backupsShort, listItem, debug, guid, vdb;

    FileNamePatterns() {
        path.Compile(LR"(^{([A-Za-z]:)|(\\\\[^\\/]+(\\|/)[^\\/]+)}(\\|/){([^\\/]+(\\|/))*})", true);
        scheme.Compile(LR"(^{[A-Za-z]+}=)", true);
        tail.Compile(LR"(\!{[0-9]+}{\.[A-Za-z]+}$)", true);
        backupsLong.Compile(LR"(^{[^!]+}\!{[^!]*}\!{[^!]*}\!{[^!]+}\!{[^!]+})", true);
        backupsShort.Compile(LR"(^{[^!]+}\!{[^!]+})", true);
        listItem.Compile(LR"(^{[^,]+})", true);
        debug.Compile(LR"(^{[^!]+}\!{[0-9]+})", true);
        guid.Compile(LR"(^{\h+-\h+-\h+-\h+-\h+})", true);
        vdb.Compile(LR"(^{[^!]+}\!{[^!]*}\!{[^!]*}\!{[^!]+}\!{LSN=[^!]+})", true);
    }
};

const FileNamePatterns& Patterns() {
    static const FileNamePatterns patterns;
    return patterns;
}

XString<wchar_t> Group(const ZR_PatternMatch& match, unsigned iGroup) {
    const wchar_t* pStart = nullptr;
    const wchar_t* pEnd = nullptr;
    match.GetGroup(iGroup, &pStart, &pEnd);
    return pStart ? XString<wchar_t>(pStart, static_cast<int>(pEnd - pStart)) : XString<wchar_t>();
}

// "C:" or "\\host\share", then the directories, without a trailing separator.
XString<wchar_t> FolderOf(const ZR_PatternMatch& match) {
    XString<wchar_t> strFolder = Group(match, 0) + L"\\" + Group(match, 1);
    strFolder.TrimRight(L"\\/");
    return strFolder;
}

// Each item of the comma-separated list is a tag: the real file
// folder\name!tag.bak.
void ParseBackupList(ZR_FileInfo* pInfo, const XString<wchar_t>& strList) {
    ZR_PatternMatch match;
    const wchar_t* p = strList;
    const wchar_t* pEnd = nullptr;
    while (Patterns().listItem.Match(p, &match, &pEnd)) {
        const std::wstring strFile = ZR_FormatW(L"%s\\%s!%s.bak", pInfo->m_strFolder.GetString(),
                                                pInfo->m_strName.GetString(), Group(match, 0).GetString());
        pInfo->m_aBackupFiles.Append(_wcsdup(strFile.c_str()));
        p = *pEnd == L',' ? pEnd + 1 : pEnd;
    }
}

void ParseBackups(ZR_FileInfo* pInfo, const wchar_t* wszBody) {
    ZR_PatternMatch match;
    XString<wchar_t> strList;
    if (Patterns().backupsLong.Match(wszBody, &match, nullptr)) {
        pInfo->m_strPart1 = Group(match, 0);
        pInfo->m_strPart2 = Group(match, 1);
        pInfo->m_strPart3 = Group(match, 2);
        pInfo->m_strName = Group(match, 3);
        strList = Group(match, 4);
    } else if (Patterns().backupsShort.Match(wszBody, &match, nullptr)) {
        pInfo->m_strName = Group(match, 0);
        strList = Group(match, 1);
    } else {
        return;
    }
    ParseBackupList(pInfo, strList);
    pInfo->m_strMountKey.Format(L"Backups=%s!%s", pInfo->m_strName.GetString(), strList.GetString());
}

void ParseDebug(ZR_FileInfo* pInfo, const wchar_t* wszBody) {
    ZR_PatternMatch match;
    if (!Patterns().debug.Match(wszBody, &match, nullptr)) return;
    pInfo->m_strName = Group(match, 0);
    pInfo->m_iDebugNumber = _wtoi(Group(match, 1));
    pInfo->m_strMountKey.Format(L"Debug=%s!%d", pInfo->m_strName.GetString(), pInfo->m_iDebugNumber);
}

void ParseGuid(ZR_FileInfo* pInfo, const wchar_t* wszBody) {
    ZR_PatternMatch match;
    if (!Patterns().guid.Match(wszBody, &match, nullptr)) return;
    XString<wchar_t> strGuid = Group(match, 0);
    if (UuidFromStringW(reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(strGuid.GetString())), &pInfo->m_Guid) != 0)
        return;
    pInfo->m_strMountKey = (L"GUID=" + ZR_GuidText(pInfo->m_Guid)).c_str();
}

void ParseVdb(ZR_FileInfo* pInfo, const wchar_t* wszBody) {
    ZR_PatternMatch match;
    if (!Patterns().vdb.Match(wszBody, &match, nullptr)) return;
    pInfo->m_strPart1 = Group(match, 0);
    pInfo->m_strPart2 = Group(match, 1);
    pInfo->m_strPart3 = Group(match, 2);
    pInfo->m_strName = Group(match, 3);
    unsigned iSeqNo = 0, iBlockOffset = 0;
    unsigned short iSlotId = 0;
    if (swscanf(Group(match, 4), L"LSN=%u-%u-%hu", &iSeqNo, &iBlockOffset, &iSlotId) == 3)
        pInfo->m_lsn = LSN{iSeqNo, iBlockOffset, iSlotId};
    pInfo->m_strMountKey.Format(L"VDB=%s!%s!%s!%s!LSN=%u-%u-%u", pInfo->m_strPart1.GetString(),
                                pInfo->m_strPart2.GetString(), pInfo->m_strPart3.GetString(),
                                pInfo->m_strName.GetString(), pInfo->m_lsn.SeqNo, pInfo->m_lsn.blockOffset,
                                static_cast<unsigned>(pInfo->m_lsn.slotId));
}

struct SchemeParser {
    const wchar_t* wszWord;
    ZR_FileScheme_e eScheme;
    void (*Parse)(ZR_FileInfo*, const wchar_t*);
};

constexpr SchemeParser kSchemes[] = {
    {L"Backups", ZR_FILE_BACKUPS, ParseBackups},
    {L"Debug", ZR_FILE_DEBUG, ParseDebug},
    {L"GUID", ZR_FILE_GUID, ParseGuid},
    {L"VDB", ZR_FILE_VDB, ParseVdb},
    {L"Stop", ZR_FILE_STOP, nullptr},
};

}  // namespace

std::wstring ZR_GuidText(const GUID& g) {
    return ZR_FormatW(L"%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3, g.Data4[0],
                      g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
}

ZR_FileInfo* ParseFileName(const wchar_t* wszPath) {
    const FileNamePatterns& patterns = Patterns();
    ZR_PatternMatch path, scheme, tail;
    const wchar_t* pRest = nullptr;
    if (!wszPath || !patterns.path.Match(wszPath, &path, &pRest)) return nullptr;
    if (!patterns.scheme.Match(pRest, &scheme, &pRest)) return nullptr;
    if (!patterns.tail.Match(pRest, &tail, nullptr)) return nullptr;

    ZR_FileInfo* pInfo = new ZR_FileInfo();
    pInfo->m_eFileKind = FileKindOfExtension(Group(tail, 1));
    pInfo->m_iFileNumber = _wtoi64(Group(tail, 0));
    pInfo->m_strFolder = FolderOf(path);
    const XString<wchar_t> strBody(pRest, static_cast<int>(tail.m_pStart - pRest));
    const XString<wchar_t> strWord = Group(scheme, 0);
    for (const SchemeParser& parser : kSchemes) {
        if (strWord.CompareNoCase(parser.wszWord) != 0) continue;
        pInfo->m_eScheme = parser.eScheme;
        if (parser.Parse) parser.Parse(pInfo, strBody);
        break;
    }
    return pInfo;
}
