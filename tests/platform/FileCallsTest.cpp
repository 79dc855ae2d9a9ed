// The replaceable file-call table, sparse files, mappings, folder
// enumeration and GUID text.
#include "platform/FileCallsTesting.h"
#include "platform/win32.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

using zr::platform::testing::ReplaceFileCall;
using zr::platform::testing::ScopedFileCalls;

BOOL FailingRead(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED) {
    SetLastError(ERROR_IO_DEVICE);
    return FALSE;
}

TEST(FileCalls, ReplaceOneAndRestoreAll) {
    zrtest::TempDir dir;
    std::ofstream(dir / "f", std::ios::binary) << "hello";
    std::wstring name = (dir / "f").wstring();
    {
        ScopedFileCalls restore;
        auto previous = ReplaceFileCall(&FileCalls::ReadFile, &FailingRead);
        EXPECT_EQ(previous, g_DefaultFileCalls.ReadFile);
        HANDLE h = CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OVERLAPPED, nullptr);
        HANDLE port = CreateIoCompletionPort(h, nullptr, 5, 0);
        char buffer[5];
        DWORD got = 0;
        EXPECT_FALSE(ReadFile(h, buffer, 5, &got, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
        // the real call, through the saved pointer, still works, and a
        // failed I/O's packet carries its OVERLAPPED
        OVERLAPPED ov{};
        ov.Offset = 10;
        EXPECT_FALSE(previous(h, buffer, 5, &got, &ov));
        EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
        ULONG_PTR key = 0;
        OVERLAPPED* done = nullptr;
        EXPECT_FALSE(GetQueuedCompletionStatus(port, &got, &key, &done, 0));
        EXPECT_EQ(GetLastError(), ERROR_HANDLE_EOF);
        EXPECT_EQ(done, &ov);
        EXPECT_EQ(key, 5u);
        CloseHandle(h);
        CloseHandle(port);
    }
    EXPECT_EQ(g_FileCalls.ReadFile, g_DefaultFileCalls.ReadFile) << "restored";
    EXPECT_EQ(zr::platform::testing::OpenFileHandleCount(), 0u);
}

TEST(FileCalls, SparsePunchAndAllocatedRanges) {
    zrtest::TempDir dir;
    std::wstring name = (dir / "sparse").wstring();
    HANDLE h = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    DWORD bytes = 0;
    EXPECT_TRUE(DeviceIoControl(h, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &bytes, nullptr));
    std::vector<char> data(1 << 20, 'd');
    EXPECT_TRUE(WriteFile(h, data.data(), static_cast<DWORD>(data.size()), &bytes, nullptr));
    FILE_ZERO_DATA_INFORMATION zero{};
    zero.FileOffset.QuadPart = 256 * 1024;
    zero.BeyondFinalZero.QuadPart = 768 * 1024;
    EXPECT_TRUE(DeviceIoControl(h, FSCTL_SET_ZERO_DATA, &zero, sizeof zero, nullptr, 0, &bytes, nullptr));
    EXPECT_EQ(GetFileSize(h, nullptr), 1u << 20) << "size kept";
    OVERLAPPED at{};
    at.Offset = 300 * 1024;
    char byte = 'x';
    EXPECT_TRUE(ReadFile(h, &byte, 1, &bytes, &at));
    EXPECT_EQ(byte, 0);

    FILE_ALLOCATED_RANGE_BUFFER query{}, ranges[4]{};
    query.Length.QuadPart = 1 << 20;
    EXPECT_TRUE(DeviceIoControl(h, FSCTL_QUERY_ALLOCATED_RANGES, &query, sizeof query, ranges, sizeof ranges, &bytes,
                                nullptr));
    ASSERT_EQ(bytes, 2 * sizeof(FILE_ALLOCATED_RANGE_BUFFER)) << "data, hole, data";
    EXPECT_EQ(ranges[0].FileOffset.QuadPart, 0);
    EXPECT_EQ(ranges[0].Length.QuadPart, 256 * 1024);
    EXPECT_EQ(ranges[1].FileOffset.QuadPart, 768 * 1024);
    EXPECT_EQ(ranges[1].FileOffset.QuadPart + ranges[1].Length.QuadPart, 1 << 20);
    EXPECT_FALSE(DeviceIoControl(h, FSCTL_QUERY_ALLOCATED_RANGES, &query, sizeof query, ranges, sizeof ranges[0],
                                 &bytes, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_MORE_DATA);
    EXPECT_EQ(bytes, sizeof ranges[0]);
    CloseHandle(h);
    EXPECT_EQ(GetDriveTypeW(dir.path().wstring().c_str()), DRIVE_FIXED);
    EXPECT_EQ(GetDriveTypeW((dir / "missing").wstring().c_str()), DRIVE_NO_ROOT_DIR);
}

TEST(FileCalls, MappingRoundTrip) {
    zrtest::TempDir dir;
    std::wstring name = (dir / "map").wstring();
    HANDLE h = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    HANDLE mapping = CreateFileMappingW(h, nullptr, PAGE_READWRITE, 0, 131072, nullptr);
    ASSERT_NE(mapping, nullptr);
    CloseHandle(h);  // the mapping keeps the file
    EXPECT_EQ(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 4096, 0), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_MAPPED_ALIGNMENT);
    auto* view = static_cast<char*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 65536, 0));
    ASSERT_NE(view, nullptr);
    std::memcpy(view + 10, "mapped", 6);
    EXPECT_TRUE(FlushViewOfFile(view + 10, 6));
    EXPECT_TRUE(UnmapViewOfFile(view));
    EXPECT_FALSE(UnmapViewOfFile(view));
    CloseHandle(mapping);
    std::ifstream in(dir / "map", std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)), {});
    ASSERT_EQ(content.size(), 131072u) << "grown to the mapping's size";
    EXPECT_EQ(content.substr(65536 + 10, 6), "mapped");

    auto* memory = static_cast<unsigned char*>(VirtualAlloc(nullptr, 10000, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    ASSERT_NE(memory, nullptr);
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % info.dwPageSize, 0u);
    EXPECT_EQ(std::count(memory, memory + 10000, 0), 10000);
    EXPECT_TRUE(VirtualFree(memory, 0, MEM_RELEASE));
}

TEST(FileCalls, FindFirstFilePatterns) {
    zrtest::TempDir dir;
    for (const char* file : {"a.xcm", "B.XCM", "c.xdm", "ab.xcm"})
        std::ofstream(dir / file) << "z";
    auto names = [&](const std::wstring& pattern) {
        std::vector<std::wstring> found;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW((dir.path().wstring() + L"\\" + pattern).c_str(), &data);
        if (find == INVALID_HANDLE_VALUE)
            return found;
        do
            found.push_back(data.cFileName);
        while (FindNextFileW(find, &data));
        EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
        FindClose(find);
        return found;
    };
    EXPECT_EQ(names(L"*.xcm"), (std::vector<std::wstring>{L"B.XCM", L"a.xcm", L"ab.xcm"})) << "case ignored";
    EXPECT_EQ(names(L"?.xcm"), (std::vector<std::wstring>{L"B.XCM", L"a.xcm"}));
    EXPECT_EQ(names(L"*.*").size(), 6u) << "with . and ..";
    EXPECT_TRUE(names(L"*.none").empty());
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    WIN32_FIND_DATAW data;
    EXPECT_EQ(FindFirstFileW((dir.path().wstring() + L"/nofolder/*").c_str(), &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST(Uuid, TextRoundTripAndSequentialOrder) {
    wchar_t text[] = L"6F9619FF-8B86-D011-B42D-00C04FC964FF";
    UUID id;
    ASSERT_EQ(UuidFromStringW(text, &id), RPC_S_OK);
    EXPECT_EQ(id.Data1, 0x6F9619FFu);
    EXPECT_EQ(id.Data4[7], 0xFF);
    auto textOf = [](UUID* pId) {
        RPC_WSTR back = nullptr;
        EXPECT_EQ(UuidToStringW(pId, &back), RPC_S_OK);
        std::wstring str = back;
        RpcStringFreeW(&back);
        return str;
    };
    EXPECT_EQ(textOf(&id), L"6f9619ff-8b86-d011-b42d-00c04fc964ff");
    for (const wchar_t* bad : {L"6F9619FF-8B86-D011-B42D-00C04FC964F", L"{6F9619FF-8B86-D011-B42D-00C04FC964FF}",
                               L"6F9619FF-8B86-D011-B42D+00C04FC964FF", L"6F9619FG-8B86-D011-B42D-00C04FC964FF"})
        EXPECT_EQ(UuidFromStringW(const_cast<wchar_t*>(bad), &id), RPC_S_INVALID_STRING_UUID);
    EXPECT_EQ(UuidFromStringW(nullptr, &id), RPC_S_OK);
    EXPECT_TRUE(id == GUID_NULL);

    std::wstring previous;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(UuidCreateSequential(&id), RPC_S_OK);
        const std::wstring current = textOf(&id);
        EXPECT_LT(previous, current);
        previous = current;
    }
}

}  // namespace
