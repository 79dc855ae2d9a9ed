// Status and control of mounts by key, through the exports: the cut-off of
// active hydrations, the count of active mounts, pause and resume.
#include "mount/ZR.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LibraryTest.h"
#include "zirlane/zirlane.h"

namespace {

class ControlByKey : public zrtest::LibraryTest {
protected:
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

}  // namespace
