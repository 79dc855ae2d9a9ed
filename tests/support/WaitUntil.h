// For states that no event announces: true once the condition holds,
// false when the limit passed first.
#pragma once

#include <chrono>
#include <thread>

namespace zrtest {

template <class Condition>
bool WaitUntil(Condition bCondition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    for (auto end = std::chrono::steady_clock::now() + limit; !bCondition();) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zrtest
