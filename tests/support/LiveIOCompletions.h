// Stands in for the driver's end of the async live I/O port: registers
// "\KelpbakMVAsyncLiveIO" in the process, points g_hAsyncLiveIOPort at a
// connection to it for the object's life, and records every read
// completion that arrives (operation id and result).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

namespace zrtest {

class LiveIOCompletions {
public:
    // onCompleted, when given, is also called on the completing thread.
    using Listener = std::function<void(std::uint64_t iOpId, std::int32_t hr)>;
    explicit LiveIOCompletions(Listener onCompleted = {});
    ~LiveIOCompletions();

    bool Connected() const { return m_bConnected; }
    // The result of operation iOpId; nullopt when the limit passed first.
    std::optional<std::int32_t> WaitForOp(std::uint64_t iOpId, std::chrono::milliseconds limit);
    // Operation id to result of every completion so far; a second
    // completion of an operation stores -1.
    std::map<std::uint64_t, std::int32_t> Results();

private:
    Listener m_onCompleted;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::map<std::uint64_t, std::int32_t> m_results;
    bool m_bRegistered = false;
    bool m_bConnected = false;
};

}  // namespace zrtest
