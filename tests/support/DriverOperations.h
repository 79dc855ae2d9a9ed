// What the driver hands the library's file collection and operation
// service, made as the driver makes it, and the mount such tests find.
#pragma once

#include <string>

#include "driver/DriverMessages.h"
#include "engine/ZR_Database.h"
#include "foundation/Utf16.h"
#include "mount/ZR.h"

namespace zrtest {

// Operation 1: the name opened and, for a data file, the virtual name it
// was opened under.
inline ZR_CreateOperation CreateOperation(const std::wstring& strName, const std::wstring& strSecond = L"") {
    ZR_CreateOperation op{};
    op.Head.iOperation = ZR_OP_CREATE;
    Utf16EncodeField(strName.c_str(), op.wszName, sizeof op.wszName);
    Utf16EncodeField(strSecond.c_str(), op.wszSecondName, sizeof op.wszSecondName);
    op.Uniquifier = FileObjectUniquifier{{1, 2, 3, 4}};
    return op;
}

// A database known by the GUID in the library's list, which owns it from
// then on; null when the GUID does not parse.
inline ZR_Database* AddDatabaseWithGuid(const wchar_t* wszGuid) {
    GUID guid{};
    if (UuidFromStringW(reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(wszGuid)), &guid) != 0) return nullptr;
    return g_DBs.Append(new ZR_Database(L"", guid));
}

}  // namespace zrtest
