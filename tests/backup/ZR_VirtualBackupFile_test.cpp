// The view object on its own: the changes against reads that cut through
// them, and the handle ids, alone and on many threads. The mapping and the
// size are held against the walker on real and synthetic backups (View_test,
// ZR_ScanVirtualizeBackup_test).
#include "backup/ZR_Backup.h"
#include "backup/ZR_VirtualBackupFile.h"
#include "platform/FileCallsTesting.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

ZR_VirtualChange Replace(uint64_t iOffset, const std::vector<uint8_t>& value) {
    ZR_VirtualChange c{};
    c.m_iOffset = iOffset;
    c.m_iLength = static_cast<uint16_t>(value.size());
    std::memcpy(c.m_aValue, value.data(), value.size());
    return c;
}

ZR_VirtualChange Subtract(uint64_t iOffset, uint64_t iValue) {
    ZR_VirtualChange c{};
    c.m_iOffset = iOffset;
    c.m_iLength = 8;
    std::memcpy(c.m_aValue, &iValue, sizeof iValue);
    c.m_bAdditive = true;
    return c;
}

// The bytes of a made-up real file: byte i is i mod 251.
std::vector<uint8_t> RealBytes(uint64_t iFrom, uint32_t n) {
    std::vector<uint8_t> b(n);
    for (uint32_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>((iFrom + i) % 251);
    return b;
}

const std::vector<uint8_t> kLsn = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA};

// A 10-byte change read in every split of a 40-byte window, behind a hole:
// the two reads together always give the whole new value, and nothing
// around it changes.
TEST(VirtualBackupFile, ReplacingChangeSurvivesEverySplitOfTheRead) {
    ZR_VirtualBackupFile view;
    view.m_iHoleStart = 1000;
    view.m_iHoleLength = 5000;
    view.m_bHoleSet = true;
    view.AddVirtualChange(Replace(6100, kLsn));  // view offset 1100
    std::vector<uint8_t> expected = RealBytes(6080, 40);
    std::copy(kLsn.begin(), kLsn.end(), expected.begin() + 20);
    for (uint32_t cut = 0; cut <= 40; ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        std::vector<uint8_t> head = RealBytes(6080, cut);
        std::vector<uint8_t> tail = RealBytes(6080 + cut, 40 - cut);
        view.ApplyVirtualChanges(head.data(), 1080, cut);
        view.ApplyVirtualChanges(tail.data(), 1080 + cut, 40 - cut);
        head.insert(head.end(), tail.begin(), tail.end());
        EXPECT_EQ(head, expected);
    }
}

TEST(VirtualBackupFile, AdditiveChangeSubtractsOnceAndNeedsItsEightBytes) {
    ZR_VirtualBackupFile view;
    view.AddVirtualChange(Subtract(200, 0x1000));
    // A filemark block met twice is moved once; replacing changes are not
    // compared.
    view.AddVirtualChange(Subtract(200, 0x1000));
    view.AddVirtualChange(Replace(300, {1, 2}));
    view.AddVirtualChange(Replace(300, {1, 2}));
    ASSERT_EQ(view.m_iNumVirtualchanges, 3);

    uint64_t iValue = 0x123456;
    std::vector<uint8_t> buf(16, 0);
    std::memcpy(buf.data() + 4, &iValue, 8);
    view.ApplyVirtualChanges(buf.data(), 196, 16);
    uint64_t iAfter = 0;
    std::memcpy(&iAfter, buf.data() + 4, 8);
    EXPECT_EQ(iAfter, 0x122456u);

    std::vector<uint8_t> shortBuf(11, 0);
    try {
        view.ApplyVirtualChanges(shortBuf.data(), 196, 11);
        FAIL() << "no exception";
    } catch (const char* sz) {
        EXPECT_STREQ(sz, "less than 8 bytes remaining in the buffer for an additive virtualization\n");
    }
}

TEST(VirtualBackupFile, NewHandleRetiresTheOldOne) {
    ZR_Backup backup(nullptr);
    backup.m_aVirtualFiles.Append(new ZR_VirtualBackupFile());
    backup.m_aVirtualFiles.Append(new ZR_VirtualBackupFile());
    EXPECT_EQ(backup.GetNextHandle(2), nullptr);
    EXPECT_EQ(backup.FindVirtualFile(nullptr), -1);
    HANDLE h0 = backup.GetNextHandle(0);
    HANDLE h1 = backup.GetNextHandle(1);
    ASSERT_NE(h0, nullptr);
    ASSERT_NE(h0, h1);
    EXPECT_EQ(backup.FindVirtualFile(h1), 1);
    HANDLE h0b = backup.GetNextHandle(0);
    EXPECT_NE(h0b, h0);
    EXPECT_EQ(backup.FindVirtualFile(h0b), 0);
    EXPECT_EQ(backup.FindVirtualFile(h0), -1);
    EXPECT_EQ(backup.m_aVirtualFiles(0)->m_HandleOpen, ZR_VirtualBackupFile::HandleId(h0b) + 0x87654321u);
}

// Threads that take new handles of the same views at once: each view ends
// with exactly one open handle, the last one it gave, so no handle leaks and
// none is closed twice; the views keep distinct ids.
TEST(VirtualBackupFile, HandlesTakenOnManyThreadsAtOnceLeakNoneAndStayDistinct) {
    std::vector<ZR_VirtualBackupFile> views(2);
    const size_t iHandles = zr::platform::testing::OpenHandleCount();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&views, t] {
            for (int i = 0; i < 300; ++i)
                views[t % 2].GetNextHandle();
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(zr::platform::testing::OpenHandleCount(), iHandles + views.size());
    std::set<uint32_t> ids;
    for (auto& v : views) {
        ids.insert(ZR_VirtualBackupFile::HandleId(v.GetHandle()));
        EXPECT_EQ(v.m_HandleOpen, ZR_VirtualBackupFile::HandleId(v.GetHandle()) + 0x87654321u);
    }
    EXPECT_EQ(ids.size(), views.size());
}

}  // namespace
