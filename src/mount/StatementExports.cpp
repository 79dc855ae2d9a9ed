// The exported functions through which a caller gets the restore statements
// of a mount and gives the WITH options of each. Statements are counted from
// 0 (the full backup, the differential if there is one, then the logs);
// AddWith alone counts from 1, as its callers always have.
#include <cwchar>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/XString.h"
#include "mount/ZR.h"
#include "mount/ZR_MountInfo.h"
#include "zirlane/zirlane.h"

namespace {

int NumStatements(ZR_MountInfo* pInfo) { return 1 + (pInfo->GetDiff() ? 1 : 0) + pInfo->GetNumberOfLogs(); }

// Generates statement iStatement of the mount the record names; false, with
// the reason recorded, for a number past the last statement or a library
// that was never initialised.
bool GenerateStatement(ZR_MountInfo* pInfo, unsigned int iStatement, XString<wchar_t>& strSQL) {
    ZR* pZR = ZR::GetZR();
    if (!pZR) {
        ZR_Error(nullptr, __FILE__, "GetSQL", __LINE__, "The library is not initialized\n");
        return false;
    }
    const int iCount = NumStatements(pInfo);
    if (iStatement >= static_cast<unsigned int>(iCount)) {
        ZR_Error(pInfo->GetMountKey(), __FILE__, "GetSQL", __LINE__,
                 "Statement %u does not exist: the mount has %d statements\n", iStatement, iCount);
        return false;
    }
    const wchar_t* wszDatabase = pInfo->GetTargetDatabase();
    const wchar_t* wszDrive = pInfo->GetFilterDrive();
    const wchar_t* wszKey = pInfo->GetMountKey();
    const bool bDiff = pInfo->GetDiff() != nullptr;
    if (iStatement == 0)
        pZR->GenRestoreDatabaseFullSQL(wszDatabase, pInfo, wszDrive, wszKey, strSQL);
    else if (iStatement == 1 && bDiff)
        pZR->GenRestoreDatabaseDiffSQL(wszDatabase, pInfo, wszDrive, wszKey, strSQL);
    else
        pZR->GenRestoreDatabaseLogSQL(wszDatabase, pInfo, wszDrive, wszKey, iStatement - (bDiff ? 2 : 1), strSQL);
    return true;
}

}  // namespace

ZR_API int GetNumSQL(ZR_MountInfo* pInfo) { return pInfo ? NumStatements(pInfo) : 0; }

ZR_API int GetSQLSize(ZR_MountInfo* pInfo, unsigned int iStatement) {
    if (!pInfo) {
        if (g_iTraceMode) TraceLine("GetSQL MountInfo is Null");
        return 0;
    }
    XString<wchar_t> strSQL;
    if (!GenerateStatement(pInfo, iStatement, strSQL)) return 0;
    return strSQL.GetLength() + 1;
}

ZR_API void GetSQL(ZR_MountInfo* pInfo, unsigned int iStatement, wchar_t* wszBuffer, unsigned int cchBuffer) {
    if (!pInfo) {
        if (g_iTraceMode) TraceLine("GetSQL MountInfo is Null");
        return;
    }
    if (!wszBuffer || cchBuffer == 0) {
        if (g_iTraceMode) TraceLine("GetSQL SQL buffer is Null");
        return;
    }
    XString<wchar_t> strSQL;
    if (GenerateStatement(pInfo, iStatement, strSQL)) wcsncpy(wszBuffer, strSQL.GetString(), cchBuffer);
}

ZR_API void AddWith(ZR_MountInfo* pInfo, int iStatement, const wchar_t* wszOption) {
    if (!pInfo || !wszOption || iStatement < 1) {
        ZR_Error(pInfo ? pInfo->GetMountKey() : nullptr, __FILE__, "AddWith", __LINE__,
                 "A WITH option needs a mount request, a text and a statement number from 1 (got %d)\n",
                 iStatement);
        return;
    }
    while (pInfo->m_aWith.size() < static_cast<size_t>(iStatement)) pInfo->m_aWith.emplace_back();
    auto it = pInfo->m_aWith.begin();
    std::advance(it, iStatement - 1);
    it->push_back(wszOption);
}
