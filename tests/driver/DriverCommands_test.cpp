// The settings and the clean-up the library passes on to the driver, byte
// for byte as the driver's ports receive them.
#include <gtest/gtest.h>

#include "driver/ZR_DriverCommands.h"
#include "support/FakeDriver.h"
#include "zirlane/zirlane.h"

namespace {

using zrtest::Bytes;

Bytes CodeValue(uint8_t iCode, uint32_t iValue) {
    return {iCode, 0, 0, 0, uint8_t(iValue), uint8_t(iValue >> 8), uint8_t(iValue >> 16), uint8_t(iValue >> 24)};
}

TEST(DriverCommands, SettingsGoOnTheControlPortOnlyWhenItIsOpen) {
    zrtest::FakeDriver driver;
    SetNumAsyncDriverThreads(5);
    EXPECT_TRUE(driver.Sent(kControlPortName).empty()) << "the port was never opened";

    ASSERT_TRUE(OpenControlCommunicationPort());
    SetNumAsyncDriverThreads(0);
    SetNumAsyncDriverThreads(100);
    SetNumAsyncDriverThreads(7);
    SetDriverNumActiveIOTracking(123456);
    driver.SetControlResult(E_FAIL);
    SetDriverNumActiveIOTracking(0);  // a refusal is only traced
    EXPECT_EQ(driver.Sent(kControlPortName),
              (std::vector<Bytes>{CodeValue(15, 1), CodeValue(15, 64), CodeValue(15, 7), CodeValue(19, 123456),
                                  CodeValue(19, 0)}));
}

TEST(DriverCommands, CleanupFilterNamesSendsItsCodeOnTheTracePort) {
    zrtest::FakeDriver driver;
    CleanupFilterNames();
    EXPECT_EQ(driver.Sent(kTracePortName), (std::vector<Bytes>{{6, 0, 0, 0}}));
    EXPECT_TRUE(driver.Sent(kControlPortName).empty());
}

}  // namespace
