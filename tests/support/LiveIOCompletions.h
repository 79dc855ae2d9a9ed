// Stands in for the driver's end of the async live I/O port: registers
// "\KelpbakMVAsyncLiveIO" in the process, points g_hAsyncLiveIOPort at a
// connection to it for the object's life, and records every read completion
// that arrives there (the operation id and its result), so that a test or a
// benchmark can wait for the reads it queued.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

namespace zrtest {

class LiveIOCompletions {
public:
    // onCompleted, when given, is called on the completing thread after the
    // completion is recorded.
    using Listener = std::function<void(std::uint64_t iOpId, std::int32_t hr)>;
    explicit LiveIOCompletions(Listener onCompleted = {});
    ~LiveIOCompletions();
    LiveIOCompletions(const LiveIOCompletions&) = delete;
    LiveIOCompletions& operator=(const LiveIOCompletions&) = delete;

    // The port was registered and connected.
    bool Connected() const { return m_bConnected; }

    // Waits until n completions in all have arrived; false when the limit
    // passed first.
    bool WaitForCount(std::size_t n, std::chrono::milliseconds limit);
    // The result of operation iOpId once it has completed; nullopt when the
    // limit passed first.
    std::optional<std::int32_t> WaitForOp(std::uint64_t iOpId, std::chrono::milliseconds limit);

    // Operation id to result, of every completion so far.
    std::map<std::uint64_t, std::int32_t> Results();
    // Completions that named an operation that had completed already.
    std::size_t Repeats();

private:
    void Record(std::uint64_t iOpId, std::int32_t hr);

    Listener m_onCompleted;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::map<std::uint64_t, std::int32_t> m_results;
    std::size_t m_iRepeats = 0;
    bool m_bConnected = false;
};

}  // namespace zrtest
