// The Win32 edges of the file calls that the library relies on: ReadFile
// with and without OVERLAPPED at, before and past the end, on synchronous
// and overlapped handles, bad handles, and the emulated share modes.
#include "platform/FileCallsTesting.h"
#include "platform/win32.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

std::wstring Wide(const std::filesystem::path& path) { return path.wstring(); }

class FileTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_path = m_dir / "data.bin";
        std::ofstream(m_path, std::ios::binary) << std::string(100, 'x');
    }
    HANDLE Open(DWORD flags = 0, DWORD access = GENERIC_READ, DWORD share = FILE_SHARE_READ,
                DWORD disposition = OPEN_EXISTING) {
        return CreateFileW(Wide(m_path).c_str(), access, share, nullptr, disposition, flags, nullptr);
    }
    zrtest::TempDir m_dir;
    std::filesystem::path m_path;
};

// One read of 10 bytes of a 100-byte file: on a plain or an overlapped
// handle, with or without an OVERLAPPED, at an offset. What it gives:
// ReadFile's result and, after a failure or from GetOverlappedResult on an
// overlapped handle, the error; and the bytes read.
struct ReadCase {
    bool overlappedHandle;
    bool withOverlapped;
    uint32_t offset;  // of the OVERLAPPED, or where the file pointer is set
    BOOL result;
    DWORD error;
    DWORD bytes;
};

TEST_F(FileTest, ReadTable) {
    const ReadCase cases[] = {
        {false, false, 0, TRUE, 0, 10},    {false, false, 95, TRUE, 0, 5},
        {false, false, 100, TRUE, 0, 0},   {false, false, 150, TRUE, 0, 0},
        {false, true, 0, TRUE, 0, 10},     {false, true, 95, TRUE, 0, 5},
        {false, true, 100, FALSE, ERROR_HANDLE_EOF, 0}, {false, true, 150, FALSE, ERROR_HANDLE_EOF, 0},
        {true, true, 0, FALSE, ERROR_SUCCESS, 10},      {true, true, 95, FALSE, ERROR_SUCCESS, 5},
        {true, true, 100, FALSE, ERROR_HANDLE_EOF, 0},  {true, true, 150, FALSE, ERROR_HANDLE_EOF, 0},
        {true, false, 0, FALSE, ERROR_INVALID_PARAMETER, 0},
    };
    for (const ReadCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "overlapped handle " << c.overlappedHandle << ", OVERLAPPED "
                                        << c.withOverlapped << ", offset " << c.offset);
        HANDLE file = Open(c.overlappedHandle ? FILE_FLAG_OVERLAPPED : 0);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        char buffer[10] = {};
        DWORD got = 12345;
        OVERLAPPED ov{};
        ov.Offset = c.offset;
        ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (!c.withOverlapped)
            SetFilePointer(file, static_cast<LONG>(c.offset), nullptr, FILE_BEGIN);
        SetLastError(0);
        BOOL result = ReadFile(file, buffer, sizeof buffer, &got, c.withOverlapped ? &ov : nullptr);
        EXPECT_EQ(result, c.result);
        DWORD error = result ? 0 : GetLastError();
        if (c.overlappedHandle && c.withOverlapped) {
            EXPECT_EQ(error, ERROR_IO_PENDING);
            EXPECT_EQ(WaitForSingleObject(ov.hEvent, 0), WAIT_OBJECT_0) << "the event is set on completion";
            SetLastError(0);
            EXPECT_EQ(GetOverlappedResult(file, &ov, &got, TRUE), c.error == ERROR_SUCCESS);
            error = GetLastError();
        }
        EXPECT_EQ(error, c.error);
        if (c.error != ERROR_INVALID_PARAMETER) {
            EXPECT_EQ(got, c.bytes);
        }
        EXPECT_EQ(std::string(buffer, c.bytes), std::string(c.bytes, 'x'));
        if (!c.withOverlapped && result) {
            EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), c.offset + c.bytes) << "moved by what was read";
        }
        CloseHandle(ov.hEvent);
        EXPECT_TRUE(CloseHandle(file));
    }
}

TEST_F(FileTest, BadHandlesFailCleanly) {
    char buffer[4];
    DWORD got = 0;
    for (HANDLE bad : {INVALID_HANDLE_VALUE, HANDLE(nullptr), reinterpret_cast<HANDLE>(&got)}) {
        SetLastError(0);
        EXPECT_FALSE(ReadFile(bad, buffer, sizeof buffer, &got, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(bad));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(GetFileSize(bad, nullptr), INVALID_FILE_SIZE);
    }
    HANDLE file = Open();
    ASSERT_TRUE(CloseHandle(file));
    EXPECT_FALSE(ReadFile(file, buffer, sizeof buffer, &got, nullptr)) << "a closed handle is refused";
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(ReadFile(event, buffer, sizeof buffer, &got, nullptr)) << "an event is no file";
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    CloseHandle(event);
}

TEST_F(FileTest, ShareModes) {
    struct {
        DWORD access1, share1, access2, share2;
        bool admitted;
    } const cases[] = {
        {GENERIC_READ, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_READ, true},
        {GENERIC_READ, FILE_SHARE_READ, GENERIC_WRITE, FILE_SHARE_READ, false},
        {GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, GENERIC_WRITE, FILE_SHARE_READ, true},
        {GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, GENERIC_READ, FILE_SHARE_READ, false},
        {GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, true},
        {GENERIC_WRITE, 0, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, false},
        {GENERIC_READ, FILE_SHARE_READ, 0, FILE_SHARE_READ, true},
    };
    for (const auto& c : cases) {
        HANDLE first = Open(0, c.access1, c.share1);
        ASSERT_NE(first, INVALID_HANDLE_VALUE);
        HANDLE second = Open(0, c.access2, c.share2);
        EXPECT_EQ(second != INVALID_HANDLE_VALUE, c.admitted) << c.access1 << "/" << c.share1 << " then "
                                                              << c.access2 << "/" << c.share2;
        if (second == INVALID_HANDLE_VALUE) {
            EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
        } else {
            CloseHandle(second);
        }
        CloseHandle(first);
    }
    HANDLE open = Open(0, GENERIC_READ, FILE_SHARE_READ);
    EXPECT_FALSE(DeleteFileW(Wide(m_path).c_str())) << "open without FILE_SHARE_DELETE";
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    CloseHandle(open);
    HANDLE again = Open(0, GENERIC_READ | GENERIC_WRITE, 0);
    EXPECT_NE(again, INVALID_HANDLE_VALUE) << "closing released the share entry";
    CloseHandle(again);
    EXPECT_TRUE(DeleteFileW(Wide(m_path).c_str()));
    EXPECT_EQ(zr::platform::testing::OpenFileHandleCount(), 0u);
}

TEST_F(FileTest, DispositionsAndDeleteOnClose) {
    auto created = m_dir / "new.bin";
    std::wstring name = Wide(created);
    HANDLE h = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    std::wstring missingFolder = Wide(m_dir / "nofolder" / "x.bin");
    EXPECT_EQ(CreateFileW(missingFolder.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);

    h = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(h, "abcdef", 6, &written, nullptr));
    CloseHandle(h);
    EXPECT_EQ(CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);

    h = CreateFileW(name.c_str(), GENERIC_READ, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(GetFileSize(h, nullptr), 6u);
    CloseHandle(h);
    h = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(GetFileSize(h, nullptr), 0u) << "CREATE_ALWAYS truncates";
    CloseHandle(h);

    // backslashes are separators
    std::wstring backslashed = name;
    std::replace(backslashed.begin(), backslashed.end(), L'/', L'\\');
    h = CreateFileW(backslashed.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                    FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_NE(GetFileAttributesW(name.c_str()), INVALID_FILE_ATTRIBUTES);
    CloseHandle(h);
    EXPECT_EQ(GetFileAttributesW(name.c_str()), INVALID_FILE_ATTRIBUTES) << "deleted on close";
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST_F(FileTest, SetFilePointerAndEndOfFile) {
    HANDLE h = Open(0, GENERIC_READ | GENERIC_WRITE, 0);
    LONG high = 1;
    EXPECT_EQ(SetFilePointer(h, 0x10, &high, FILE_BEGIN), 0x10u) << "64-bit position 4 GiB + 16";
    EXPECT_EQ(high, 1);
    EXPECT_EQ(SetFilePointer(h, -10, nullptr, FILE_END), 90u);
    EXPECT_EQ(SetFilePointer(h, -200, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_NEGATIVE_SEEK);
    EXPECT_TRUE(SetEndOfFile(h));
    EXPECT_EQ(GetFileSize(h, nullptr), 90u);
    EXPECT_TRUE(FlushFileBuffers(h));
    CloseHandle(h);
    HANDLE reader = Open();
    EXPECT_FALSE(SetEndOfFile(reader));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    CloseHandle(reader);
}

TEST_F(FileTest, NoBufferingFallsBackOnTmpfs) {
    std::error_code ignored;
    if (!std::filesystem::is_directory("/dev/shm", ignored))
        GTEST_SKIP() << "no tmpfs folder";
    auto path = std::filesystem::path("/dev/shm") / ("zr-platform-" + std::to_string(GetCurrentProcessId()));
    std::wstring name = Wide(path);
    HANDLE h = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                           FILE_FLAG_NO_BUFFERING | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << "tmpfs refuses O_DIRECT; the open stays buffered";
    std::vector<char> page(4096, 'p');
    DWORD done = 0;
    OVERLAPPED ov{};
    EXPECT_TRUE(WriteFile(h, page.data(), 4096, &done, &ov));
    std::vector<char> back(4096);
    EXPECT_TRUE(ReadFile(h, back.data(), 4096, &done, &ov));
    EXPECT_EQ(back, page);
    CloseHandle(h);
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
