// Status and control of mounts by key, through the exports: the cut-off of
// active hydrations, the count of active mounts, pause and resume, and what
// a null or unknown key answers.
#include "mount/ZR.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "zirlane/zirlane.h"

namespace {

class ControlByKey : public testing::Test {
protected:
    void SetUp() override {
        InitializeZR(0);
        ZR::UninitializeForExit();
    }
    void TearDown() override {
        ZR::UninitializeForExit();
        EnableServiceTrace(0);
    }
    // A database in g_DBs, of the library from then on.
    ZR_Database* Add(const wchar_t* wszKey, int32_t iState, int64_t iOrderKey = 0) {
        auto* pDB = new ZR_Database(L"", GUID_NULL);
        pDB->SetMountKey(wszKey);
        pDB->SetState(iState == ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED ? ZR_VDB_STATE_ONLINE_HYDRATING : iState);
        if (iState == ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED) pDB->PauseHydration();
        pDB->m_iHydrationOrderKey = iOrderKey;
        g_DBs.Append(pDB);
        return pDB;
    }
};

TEST_F(ControlByKey, TheMountsWithTheSmallestKeysHydrateAndEqualKeysAtTheCutOffWait) {
    struct Mount {
        int32_t iState;
        int64_t iKey;
        bool bDone = false;
    };
    struct Case {
        const char* what;
        std::vector<Mount> mounts;
        int iMax;
        int64_t iCutoff;
        int iActive;
    } cases[] = {
        {"two, one may run", {{9, 10}, {9, 20}}, 1, 20, 2},
        {"equal keys all wait", {{9, 5}, {9, 5}, {9, 5}}, 1, 5, 3},
        {"none may run", {{9, 7}}, 0, 7, 1},
        {"room for both", {{9, 10}, {9, 20}}, 2, 0, 2},
        {"a paused mount counts for neither", {{10, 10}, {9, 20}}, 1, 0, 1},
        {"nor one recovering or done", {{8, 10}, {9, 5, true}, {9, 20}}, 1, 0, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        for (size_t i = 0; i < c.mounts.size(); ++i) {
            const std::wstring strKey = L"GUID=" + std::to_wstring(i);
            Add(strKey.c_str(), c.mounts[i].iState, c.mounts[i].iKey)->m_bDataFilesCompletelyHydrated =
                c.mounts[i].bDone;
        }
        ZR_Database::ms_iHydrationCutoff = -1;
        SetMaxActiveHydrations(c.iMax);
        EXPECT_EQ(ZR_Database::ms_iHydrationCutoff, c.iCutoff);
        EXPECT_EQ(GetNumberOfActiveMounts(), c.iActive);
        ZR::UninitializeForExit();
    }
    SetMaxActiveHydrations(1000);
}

// Pause before hydration keeps the state; hydration then starts paused.
// Pause and resume twice change nothing more; resume outside a hydration
// leaves the state.
TEST_F(ControlByKey, PauseAndResumeMoveOnlyBetweenHydratingAndPaused) {
    ZR_Database* pDB = Add(L"GUID=P", ZR_VDB_STATE_RECOVERY);
    EXPECT_TRUE(PauseHydration(L"guid=p"));
    EXPECT_TRUE(PauseHydration(L"GUID=P"));
    EXPECT_EQ(pDB->GetState(), ZR_VDB_STATE_RECOVERY);
    pDB->SetState(ZR_VDB_STATE_ONLINE_HYDRATING);
    EXPECT_TRUE(IsHydrationPaused(L"GUID=P"));
    EXPECT_TRUE(ResumeHydration(L"GUID=P"));
    EXPECT_TRUE(ResumeHydration(L"GUID=P"));
    EXPECT_TRUE(IsHydrating(L"GUID=P"));
    ZR_Database* pOther = Add(L"GUID=Q", ZR_VDB_STATE_RECOVERY);
    EXPECT_TRUE(ResumeHydration(L"GUID=Q"));
    EXPECT_TRUE(IsRecoveryStage(L"GUID=Q"));
    EXPECT_EQ(pOther->GetState(), ZR_VDB_STATE_RECOVERY);
    EXPECT_FALSE(PauseHydration(L"GUID=NONE"));
}

std::vector<std::string> TraceMessages() {
    int cbBuffer = 0, cbLine = 0;
    char* p = CaptureServiceTrace(&cbBuffer, &cbLine);
    std::vector<std::string> out;
    for (int i = 0; p && i + cbLine <= cbBuffer; i += cbLine) out.emplace_back(p + i + kTracePrefixSize);
    FreeTraceBuffer(p);
    return out;
}

// A null key answers as an unknown one does, and says so in the trace; an
// unknown key says nothing.
TEST_F(ControlByKey, ANullKeyIsTracedAndAnUnknownOneIsNot) {
    struct Case {
        const char* szTrace;
        std::function<long long(const wchar_t*)> call;
    } cases[] = {
        {"IsHydrating called with null mount key\n", [](auto k) { return IsHydrating(k); }},
        {"IsHydrationPaused called with null mount key\n", [](auto k) { return IsHydrationPaused(k); }},
        {"IsRecoveryStage called with null mount key\n", [](auto k) { return IsRecoveryStage(k); }},
        {"IsDataCopyStage return\n", [](auto k) { return IsDataCopyStage(k); }},
        {"AllDataFilesOpened called with a NULL mount key\n", [](auto k) { return AllDataFilesOpened(k); }},
        {"DatabaseHydrationDone called with a NULL mount key\n",
         [](auto k) {
             bool bDeleted = true;
             return DatabaseHydrationDone(k, &bDeleted) + bDeleted;
         }},
        {"GetPercentComplete called with null mount key\n",
         [](auto k) {
             long long iDone = 5, iTotal = 5;
             GetPercentComplete(k, &iDone, &iTotal);
             return iDone + iTotal;
         }},
        {"WaitOnPercentChange called with NULL mount key\n", [](auto k) { return WaitOnPercentChange(k); }},
        {"StartDataHydration called with a NULL mount key\n",
         [](auto k) {
             StartDataHydration(k, L"marker", 0);
             return 0;
         }},
        {"PauseHydration called with NULL mount key\n", [](auto k) { return PauseHydration(k); }},
        {"ResumeHydration called with NULL mount key\n", [](auto k) { return ResumeHydration(k); }},
        {"SetNumWriterThreads called with NULL mount key\n", [](auto k) { return SetNumWriterThreads(k, 3); }},
        {"SetMaxTransferSize called with a NULL mount key\n",
         [](auto k) {
             SetMaxTransferSize(k, 0x100000);
             return 0;
         }},
        {"Remove called with a NULL mount key\n",
         [](auto k) {
             Remove(k);
             return 0;
         }},
    };
    EnableServiceTrace(1);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.szTrace);
        const size_t iBefore = TraceMessages().size();
        EXPECT_EQ(c.call(L"GUID=UNKNOWN"), 0);
        const std::vector<std::string> unknown = TraceMessages();
        for (size_t i = iBefore; i < unknown.size(); ++i) EXPECT_EQ(unknown[i].find("mount key"), std::string::npos);
        EXPECT_EQ(c.call(nullptr), 0);
        const std::vector<std::string> null = TraceMessages();
        ASSERT_FALSE(null.empty());
        EXPECT_EQ(null.back(), c.szTrace);
    }
    EXPECT_FALSE(SetNumHydrationThreads(nullptr, 2));
    Add(L"GUID=KNOWN", ZR_VDB_STATE_PREPARED);
    EXPECT_TRUE(SetNumHydrationThreads(L"GUID=KNOWN", 2));
    EXPECT_TRUE(SetNumWriterThreads(L"GUID=KNOWN", 2));
}

}  // namespace
