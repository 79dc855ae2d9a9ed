// A fixture for tests of the mount: a fresh library with the mount's steps
// replaced by Steps (a test double), and the requests made by the test freed
// at its end.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "diag/ZR_Error.h"
#include "mount/ZR.h"
#include "mount/ZR_MountInfo.h"
#include "mount/ZR_MountStepsTesting.h"
#include "zirlane/zirlane.h"

template <class Steps>
class MountTestBase : public testing::Test {
protected:
    void SetUp() override {
        InitializeZR(0);
        ZR::UninitializeForExit();
        ZR_ClearErrors(nullptr);
        m_pOldSteps = ZR_InstallMountStepsForTesting(&m_steps);
    }
    void TearDown() override {
        ZR_InstallMountStepsForTesting(m_pOldSteps);
        ZR::UninitializeForExit();
        ZR_ClearErrors(nullptr);
        for (ZR_MountInfo* pInfo : m_aInfos) FreeMountInfo(pInfo);
    }
    // A new empty request, freed with the test.
    ZR_MountInfo* NewRequest() {
        m_aInfos.push_back(AllocateMountInfo());
        return m_aInfos.back();
    }

    Steps m_steps;
    ZR_MountSteps* m_pOldSteps = nullptr;
    std::vector<ZR_MountInfo*> m_aInfos;
};
