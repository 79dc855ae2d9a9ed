#include "engine/ZR_File.h"

#include <cstdlib>

#include "diag/Trace.h"
#include "engine/OwnedString.h"

ZR_File::ZR_File(int iKind, uint16_t iFileId, int iSQLVersion, const wchar_t* wszPath, uint32_t iMountFileKey,
                 const FileObjectUniquifier& uniquifier)
    : m_iMountFileKey(iMountFileKey), m_iFileId(iFileId), m_iKind(iKind), m_pwszPath(DupOwnedString(wszPath)) {
    InitializeCriticalSection(&m_cs);
    if (IsUniquifierSet(uniquifier)) m_Uniquifier = uniquifier;
}

ZR_File::~ZR_File() { Fini(); }

void ZR_File::SetFileHandle(uint32_t iMountFileKey, const FileObjectUniquifier& uniquifier) {
    m_iMountFileKey = iMountFileKey;
    if (g_iTraceMode) TraceLine("ZR_File::SetFileHandle - iMountFileKey: %d\n", iMountFileKey);
    if (IsUniquifierSet(uniquifier)) m_Uniquifier = uniquifier;
}

void ZR_File::Fini() {
    if (g_iTraceMode) TraceLine("ZR_File::Fini()\n");
    free(m_pwszPath);
    m_pwszPath = nullptr;
    DeleteCriticalSection(&m_cs);
    if (g_iTraceMode) TraceLine("ZR_File::Fini() return\n");
}
