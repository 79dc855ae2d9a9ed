#include "diag/Trace.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "diag/Format.h"
#include "support/TestData.h"
#include "zirlane/zirlane.h"

namespace {

std::string LineAt(int iLine) { return std::string(g_pTraceRing + iLine * kTraceLineSize); }
std::string MessageAt(int iLine) { return std::string(g_pTraceRing + iLine * kTraceLineSize + kTracePrefixSize); }

std::vector<std::string> FileLines(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string s; std::getline(in, s);)
        lines.push_back(s);
    return lines;
}

// The messages of a capture, line by line.
std::vector<std::string> Captured() {
    int cbBuffer = 0, cbLine = 0;
    char* p = CaptureServiceTrace(&cbBuffer, &cbLine);
    EXPECT_NE(p, nullptr);
    EXPECT_EQ(cbLine, kTraceLineSize);
    std::vector<std::string> out;
    for (int i = 0; p && i + cbLine <= cbBuffer; i += cbLine)
        out.emplace_back(p + i + kTracePrefixSize);
    FreeTraceBuffer(p);
    return out;
}

// Each test starts with an empty ring of 1 MiB in mode 1 and leaves the
// trace off, its file closed and its path at the default.
class TraceRing : public ::testing::Test {
protected:
    void SetUp() override {
        TraceSetup(kTraceNoLimit, 0x1000, 1);  // another size frees the ring...
        TraceSetup(kTraceNoLimit, kTraceRingSize, 1);  // ...and this one starts it empty
    }
    void TearDown() override {
        TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
        SetTracePath(L"c:\\");
        g_bIOInstanceLog = false;
    }
    static void Lines(int iFirst, int iLast) {
        for (int i = iFirst; i <= iLast; ++i)
            TraceLine("line %d\n", i);
    }
};

TEST_F(TraceRing, PrefixAndMessagePlaces) {
    TraceLine("hello %S %I64d\n", L"wide", int64_t{-2});
    std::string line = LineAt(0);
    std::string expected = ZR_Format("%06d-%04d-", g_iTraceCount, static_cast<int>(GetCurrentThreadId()));
    EXPECT_EQ(line.substr(0, expected.size()), expected);
    EXPECT_EQ(MessageAt(0), "hello wide -2\n");
    EXPECT_EQ(g_iTraceIndex, kTraceLineSize);

    // A prefix that comes out longer than 23 characters gives up its last
    // characters to the message, which still starts at offset 23.
    g_iTraceCount = 9999999;
    TraceLine("long");
    line = LineAt(1);
    EXPECT_EQ(line.substr(0, 9), "10000000-");
    EXPECT_EQ(MessageAt(1), "long");
}

TEST_F(TraceRing, LongMessageIsCutAtByte255) {
    std::string big(400, 'y');
    TraceLine("%s", big.c_str());
    EXPECT_EQ(LineAt(0).size(), static_cast<size_t>(kTraceLineSize - 1));
    EXPECT_EQ(MessageAt(0), std::string(kTraceLineSize - 1 - kTracePrefixSize, 'y'));
    EXPECT_EQ(g_pTraceRing[kTraceLineSize], 0) << "the next line is untouched";
}

TEST_F(TraceRing, WrapsBeforeTheLast1024BytesAndZeroesTheTail) {
    const int cFit = 4093;  // lines that start at or below 0x100000 - 1024
    Lines(1, cFit);
    EXPECT_EQ(g_iTraceIndex, cFit * kTraceLineSize);
    EXPECT_EQ(MessageAt(cFit - 1), "line 4093\n");
    std::memset(g_pTraceRing + cFit * kTraceLineSize, 'Z', kTraceRingSize - cFit * kTraceLineSize);

    TraceLine("line %d\n", cFit + 1);
    EXPECT_EQ(g_iTraceIndex, kTraceLineSize);
    EXPECT_EQ(MessageAt(0), "line 4094\n");
    EXPECT_EQ(MessageAt(1), "line 2\n") << "the oldest lines are overwritten in order";
    for (unsigned i = cFit * kTraceLineSize; i < kTraceRingSize; ++i)
        ASSERT_EQ(g_pTraceRing[i], 0) << "at " << i;
}

TEST_F(TraceRing, CaptureGivesOldestFirst) {
    Lines(1, 3);
    EXPECT_EQ(Captured(), (std::vector<std::string>{"line 1\n", "line 2\n", "line 3\n"}));

    Lines(4, 4095);  // two lines past the wrap
    std::vector<std::string> lines = Captured();
    ASSERT_EQ(lines.size(), 4093u);
    for (size_t i = 0; i < lines.size(); ++i)
        ASSERT_EQ(lines[i], ZR_Format("line %d\n", static_cast<int>(i) + 3)) << "at " << i;
}

TEST_F(TraceRing, CaptureIsCutToWholeLinesThatFit) {
    Lines(1, 5);
    char buffer[3 * kTraceLineSize + 100];
    int cbBuffer = sizeof buffer, cbLine = 0;
    CaptureServiceTracing(buffer, &cbBuffer, &cbLine);
    EXPECT_EQ(cbBuffer, 3 * kTraceLineSize);
    EXPECT_STREQ(buffer + 2 * kTraceLineSize + kTracePrefixSize, "line 3\n");
}

TEST_F(TraceRing, CaptureWithoutARing) {
    TraceSetup(kTraceNoLimit, 0, 1);  // a size too small for a line leaves no ring
    ASSERT_EQ(g_pTraceRing, nullptr);
    TraceLine("dropped");
    int cbBuffer = -1, cbLine = 0;
    char* p = CaptureServiceTrace(&cbBuffer, &cbLine);
    EXPECT_NE(p, nullptr);
    EXPECT_EQ(cbBuffer, 0);
    FreeTraceBuffer(p);
}

TEST_F(TraceRing, ModeZeroAndTheLimitDropLines) {
    Lines(1, 1);
    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    Lines(2, 2);
    EXPECT_EQ(g_iTraceIndex, kTraceLineSize);
    EXPECT_EQ(Captured(), (std::vector<std::string>{"line 1\n"})) << "the ring stays for capture";

    TraceSetup(static_cast<unsigned>(g_iTraceCount) + 2, kTraceRingSize, 1);
    Lines(3, 6);
    EXPECT_EQ(Captured(), (std::vector<std::string>{"line 1\n", "line 3\n", "line 4\n"}));
}

TEST_F(TraceRing, ModeTwoStartsTheFileAnewAtLine10002) {
    zrtest::TempDir dir;
    std::filesystem::path path = dir / "trace.txt";
    ASSERT_TRUE(SetTracePath(path.wstring().c_str()));
    TraceSetup(kTraceNoLimit, kTraceRingSize, 2);
    Lines(1, 10001);
    std::vector<std::string> lines = FileLines(path);
    ASSERT_EQ(lines.size(), 10001u);
    EXPECT_EQ(lines.back().substr(kTracePrefixSize), "line 10001");
    Lines(10002, 10003);
    lines = FileLines(path);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(kTracePrefixSize), "line 10002");
}

TEST_F(TraceRing, ModeThreeAppends) {
    zrtest::TempDir dir;
    std::filesystem::path path = dir / "trace.txt";
    std::ofstream(path) << "earlier\n";
    SetServiceTracePath(path.wstring().c_str());
    EnableServiceTrace(3);
    EXPECT_TRUE(g_bIOInstanceLog);
    Lines(1, 2);
    std::vector<std::string> lines = FileLines(path);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "earlier");
    EXPECT_EQ(lines[2].substr(kTracePrefixSize), "line 2");
}

TEST_F(TraceRing, DumpWritesTheRingAndSwitchesToTheFile) {
    zrtest::TempDir dir;
    std::filesystem::path path = dir / "dump.txt";
    SetTracePath(path.wstring().c_str());
    Lines(1, 3);
    TraceDumpToDisk();
    EXPECT_EQ(g_iTraceMode, 2);
    Lines(4, 4);
    std::vector<std::string> lines = FileLines(path);
    ASSERT_EQ(lines.size(), 4u);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(lines[i].substr(kTracePrefixSize), ZR_Format("line %d", i + 1));

    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    TraceDumpToDisk();  // nothing in mode 0
    EXPECT_EQ(g_iTraceMode, 0);
}

TEST_F(TraceRing, PathsThatCannotBeUsed) {
    std::wstring tooLong(MAX_PATH, L'a');
    EXPECT_FALSE(SetTracePath(tooLong.c_str()));
    SetServiceTracePath(nullptr);
    EXPECT_STREQ(g_wszTracePath, L"c:\\");
    // The default path cannot be opened: lines still reach the ring.
    TraceSetup(kTraceNoLimit, kTraceRingSize, 2);
    Lines(1, 1);
    EXPECT_EQ(g_pTraceFile, nullptr);
    EXPECT_EQ(MessageAt(0), "line 1\n");
}

TEST_F(TraceRing, DebugTraceTellsWideFromNarrow) {
    ZRDbgTrace(L"wide text", 0, 0, 0);
    ZRDbgTrace("narrow %d-%I64u-%x", 1, 2, 255);
    std::wstring big(600, L'w');
    ZRDbgTrace(big.c_str(), 0, 0, 0);
    EXPECT_EQ(MessageAt(0), "wide text");
    EXPECT_EQ(MessageAt(1), "narrow 1-2-ff");
    EXPECT_EQ(MessageAt(2), std::string(kTraceLineSize - 1 - kTracePrefixSize, 'w'));
    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    ZRDbgTrace("off", 0, 0, 0);
    EXPECT_EQ(g_iTraceIndex, 3 * kTraceLineSize);
}

TEST(TraceFlags, OffForGood) {
    SetTraceFlags(~uint64_t{0});
    EXPECT_EQ(GetTraceFlags(), 0u);
    EXPECT_FALSE(TraceFlagOn(kTraceFlagDebugger));
    EXPECT_FALSE(TAcquireDumpLock());
    // Extended conversions would take a number for a string if formatted.
    TPrintf("LastError: %{X32} %S\n", 5u, L"x");
    TPrintf(L"%{X32} %s\n", 5u, L"x");
    TDumpError(ERROR_ACCESS_DENIED);
}

}  // namespace
