#include "filterdriver/ZR_FileNameTable.h"

#include <cwctype>

#include "diag/Format.h"
#include "diag/ZR_Error.h"
#include "driver/DriverMessages.h"
#include "foundation/Unaligned.h"
#include "foundation/Utf16.h"

namespace {

std::wstring Lower(std::wstring str) {
    for (wchar_t& c : str) c = static_cast<wchar_t>(std::towlower(c));
    return str;
}

// The library doubles each quote of the key in name B, as it does in SQL
// text; the sparse file is named with the key itself.
std::wstring UndoubleQuotes(const std::wstring& str) {
    std::wstring out;
    for (size_t i = 0; i < str.size(); ++i) {
        out += str[i];
        if (str[i] == L'\'' && i + 1 < str.size() && str[i + 1] == L'\'') ++i;
    }
    return out;
}

bool Refuse(const char* szWhy, uint32_t iValue) {
    ZR_Error(nullptr, __FILE__, "ZR_FileNameTable::Add", __LINE__,
             "Driver: file names of a data file refused: %hs (%u)\n", szWhy, iValue);
    return false;
}

}  // namespace

std::wstring ZR_FileNameEntry::SparseName(const std::wstring& strFolder) const {
    return ZR_FormatW(L"%s\\%s!%u.%hs", strFolder.c_str(), strKey.c_str(), iFileNumber, bPrimary ? "mcf" : "ncf");
}

bool ZR_FileNameTable::ParseVirtualName(const std::wstring& strNameB, ZR_FileNameEntry* pEntry) {
    if (strNameB.size() < 3 || !std::iswalpha(strNameB[0]) || strNameB[1] != L':' || strNameB[2] != L'\\') return false;
    std::wstring strRest = strNameB.substr(3);
    size_t iDot = strRest.rfind(L'.');
    size_t iBang = iDot == std::wstring::npos ? iDot : strRest.rfind(L'!', iDot);
    if (iBang == std::wstring::npos || iBang == 0) return false;
    std::wstring strExt = Lower(strRest.substr(iDot + 1));
    std::wstring strNumber = strRest.substr(iBang + 1, iDot - iBang - 1);
    if ((strExt != L"mxf" && strExt != L"nxf") || strNumber.empty() || strNumber.size() > 5) return false;
    uint32_t iNumber = 0;
    for (wchar_t c : strNumber) {
        if (c < L'0' || c > L'9') return false;
        iNumber = iNumber * 10 + static_cast<uint32_t>(c - L'0');
    }
    if (iNumber == 0 || iNumber > 0xFFFF) return false;
    pEntry->strKey = UndoubleQuotes(strRest.substr(0, iBang));
    pEntry->iFileNumber = iNumber;
    pEntry->bPrimary = strExt == L"mxf";
    return true;
}

bool ZR_FileNameTable::Add(const void* pMessage, uint32_t cbMessage) {
    const uint8_t* p = static_cast<const uint8_t*>(pMessage);
    if (cbMessage < kAddFileNamesHead) return Refuse("message shorter than its head", cbMessage);
    uint32_t cbA = ZR_Load<uint32_t>(p + offsetof(ZR_AddFileNamesMessage, iNameABytes));
    uint32_t cbB = ZR_Load<uint32_t>(p + offsetof(ZR_AddFileNamesMessage, iNameBBytes));
    if (cbA < 2 || cbB < 2 || cbA % 2 || cbB % 2 || cbA > kAddFileNamesBufferSize || cbB > kAddFileNamesBufferSize ||
        kAddFileNamesHead + cbA + cbB > cbMessage)
        return Refuse("name sizes do not fit the message", cbMessage);
    ZR_FileNameEntry entry;
    entry.strNameA = Utf16Decode(p + kAddFileNamesHead, cbA);
    entry.strNameB = Utf16Decode(p + kAddFileNamesHead + cbA, cbB);
    entry.iFileSize = ZR_Load<uint64_t>(p + offsetof(ZR_AddFileNamesMessage, iFileSize));
    if (entry.strNameA.empty()) return Refuse("empty physical name", cbA);
    if (!ParseVirtualName(entry.strNameB, &entry)) {
        ZR_Error(nullptr, __FILE__, "ZR_FileNameTable::Add", __LINE__,
                 "Driver: \"%S\" is not a virtual data file name\n", entry.strNameB.c_str());
        return false;
    }
    std::lock_guard guard(m_lock);
    m_Entries[Lower(entry.strNameA)] = std::move(entry);
    return true;
}

bool ZR_FileNameTable::Find(const wchar_t* wszName, ZR_FileNameEntry* pOut) {
    std::lock_guard guard(m_lock);
    auto it = m_Entries.find(Lower(wszName));
    if (it == m_Entries.end()) return false;
    *pOut = it->second;
    return true;
}

void ZR_FileNameTable::Clear() {
    std::lock_guard guard(m_lock);
    m_Entries.clear();
}
