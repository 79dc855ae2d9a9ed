#include "diag/Trace.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "support/TestData.h"
#include "zirlane/zirlane.h"

namespace {

std::string LineAt(int iLine) { return std::string(g_pTraceRing + iLine * kTraceLineSize); }
std::string MessageAt(int iLine) { return LineAt(iLine).substr(kTracePrefixSize); }
std::string Numbered(int i) { return "line " + std::to_string(i) + "\n"; }

// The lines of a trace file without their prefixes.
std::vector<std::string> FileMessages(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string s; std::getline(in, s);)
        lines.push_back(s.size() > size_t(kTracePrefixSize) ? s.substr(kTracePrefixSize) : s);
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

std::vector<std::string> NumberedLines(int iFirst, int iLast) {
    std::vector<std::string> out;
    for (int i = iFirst; i <= iLast; ++i)
        out.push_back(Numbered(i));
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
    zrtest::TempDir m_dir;
};

TEST_F(TraceRing, PrefixAndMessagePlaces) {
    g_iTraceCount = 41;
    const long long iBefore = std::time(nullptr);
    TraceLine("hello %S %I64d\n", L"wide", int64_t{-2});
    const long long iAfter = std::time(nullptr);
    // Count, thread id and seconds; a thread id of more than four digits
    // makes the prefix longer, and the message still starts at offset 23.
    auto expected = [](long long iSeconds) {
        char sz[64];
        std::snprintf(sz, sizeof sz, "%06d-%04d-%010d ", 42, static_cast<int>(GetCurrentThreadId()),
                      static_cast<int>(iSeconds));
        return std::string(sz, kTracePrefixSize) + "hello wide -2\n";
    };
    const std::string line = LineAt(0);
    EXPECT_TRUE(line == expected(iBefore) || line == expected(iAfter)) << line;
    EXPECT_EQ(g_iTraceIndex, kTraceLineSize);

    g_iTraceCount = 9999999;
    TraceLine("long");
    EXPECT_EQ(LineAt(1).substr(0, 9), "10000000-");
    EXPECT_EQ(MessageAt(1), "long");
}

TEST_F(TraceRing, LongMessageIsCutAtByte255) {
    TraceLine("%s", std::string(400, 'y').c_str());
    EXPECT_EQ(LineAt(0).size(), static_cast<size_t>(kTraceLineSize - 1));
    EXPECT_EQ(MessageAt(0), std::string(kTraceLineSize - 1 - kTracePrefixSize, 'y'));
    EXPECT_EQ(g_pTraceRing[kTraceLineSize], 0) << "the next line is untouched";
}

TEST_F(TraceRing, WrapsBeforeTheLast1024BytesAndZeroesTheTail) {
    const int cFit = 4093;  // lines that start at or below 0x100000 - 1024
    Lines(1, cFit);
    EXPECT_EQ(g_iTraceIndex, cFit * kTraceLineSize);
    std::memset(g_pTraceRing + cFit * kTraceLineSize, 'Z', kTraceRingSize - cFit * kTraceLineSize);

    TraceLine("line %d\n", cFit + 1);
    EXPECT_EQ(g_iTraceIndex, kTraceLineSize);
    EXPECT_EQ(MessageAt(0), "line 4094\n");
    EXPECT_EQ(MessageAt(1), "line 2\n") << "the oldest lines are overwritten in order";
    for (unsigned i = cFit * kTraceLineSize; i < kTraceRingSize; ++i)
        ASSERT_EQ(g_pTraceRing[i], 0) << "at " << i;
}

TEST_F(TraceRing, CaptureGivesWholeLinesOldestFirst) {
    Lines(1, 3);
    EXPECT_EQ(Captured(), NumberedLines(1, 3));

    char buffer[2 * kTraceLineSize + 100];
    int cbBuffer = sizeof buffer, cbLine = 0;
    CaptureServiceTracing(buffer, &cbBuffer, &cbLine);
    EXPECT_EQ(cbBuffer, 2 * kTraceLineSize) << "only whole lines that fit";
    EXPECT_STREQ(buffer + kTraceLineSize + kTracePrefixSize, "line 2\n");

    Lines(4, 4095);  // two lines past the wrap
    EXPECT_EQ(Captured(), NumberedLines(3, 4095));

    TraceSetup(kTraceNoLimit, 0, 1);  // a size too small for a line leaves no ring
    ASSERT_EQ(g_pTraceRing, nullptr);
    TraceLine("dropped");
    EXPECT_TRUE(Captured().empty());
}

TEST_F(TraceRing, ModeZeroAndTheLimitDropLines) {
    Lines(1, 1);
    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    Lines(2, 2);
    EXPECT_EQ(g_iTraceIndex, kTraceLineSize);
    EXPECT_EQ(Captured(), NumberedLines(1, 1)) << "the ring stays for capture";

    TraceSetup(static_cast<unsigned>(g_iTraceCount) + 2, kTraceRingSize, 1);
    Lines(3, 6);
    EXPECT_EQ(Captured(), (std::vector<std::string>{"line 1\n", "line 3\n", "line 4\n"}));
}

// Mode 3 appends to the file; mode 2 starts it anew, and again at line 10,002.
TEST_F(TraceRing, FileModes) {
    const auto path = m_dir / "trace.txt";
    std::ofstream(path) << "earlier\n";
    SetServiceTracePath(path.wstring().c_str());
    EnableServiceTrace(3);
    EXPECT_TRUE(g_bIOInstanceLog);
    Lines(1, 2);
    EXPECT_EQ(FileMessages(path), (std::vector<std::string>{"earlier", "line 1", "line 2"}));

    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    TraceSetup(kTraceNoLimit, kTraceRingSize, 2);
    Lines(1, 10001);
    std::vector<std::string> lines = FileMessages(path);
    ASSERT_EQ(lines.size(), 10001u);
    EXPECT_EQ(lines.front(), "line 1");
    Lines(10002, 10003);
    EXPECT_EQ(FileMessages(path), (std::vector<std::string>{"line 10002", "line 10003"}));
}

TEST_F(TraceRing, DumpWritesTheRingAndSwitchesToTheFile) {
    const auto path = m_dir / "dump.txt";
    SetTracePath(path.wstring().c_str());
    Lines(1, 3);
    TraceDumpToDisk();
    EXPECT_EQ(g_iTraceMode, 2);
    Lines(4, 4);
    EXPECT_EQ(FileMessages(path), (std::vector<std::string>{"line 1", "line 2", "line 3", "line 4"}));

    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    TraceDumpToDisk();  // nothing in mode 0
    EXPECT_EQ(g_iTraceMode, 0);
}

TEST_F(TraceRing, PathsThatCannotBeUsed) {
    EXPECT_FALSE(SetTracePath(std::wstring(MAX_PATH, L'a').c_str()));
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
    ZRDbgTrace(std::wstring(600, L'w').c_str(), 0, 0, 0);
    EXPECT_EQ(MessageAt(0), "wide text");
    EXPECT_EQ(MessageAt(1), "narrow 1-2-ff");
    EXPECT_EQ(MessageAt(2), std::string(kTraceLineSize - 1 - kTracePrefixSize, 'w'));
    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    ZRDbgTrace("off", 0, 0, 0);
    EXPECT_EQ(g_iTraceIndex, 3 * kTraceLineSize);
}

}  // namespace
