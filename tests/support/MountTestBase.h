// A fixture for tests of the mount: a fresh library with the mount's steps
// replaced by Steps (a test double).
#pragma once

#include "mount/ZR_MountStepsTesting.h"
#include "support/LibraryTest.h"

template <class Steps>
class MountTestBase : public zrtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        m_pOldSteps = ZR_InstallMountStepsForTesting(&m_steps);
    }
    void TearDown() override {
        ZR_InstallMountStepsForTesting(m_pOldSteps);
        LibraryTest::TearDown();
    }

    Steps m_steps;
    ZR_MountSteps* m_pOldSteps = nullptr;
};
