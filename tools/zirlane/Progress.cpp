#include "Progress.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "platform/WideStdio.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kQuiet = 1s;              // work shorter than this shows nothing
constexpr auto kTerminalPeriod = 100ms;  // redraws of the bar
constexpr auto kLinePeriod = 5s;         // plain lines into a file or a pipe
constexpr int kBarWidth = 30;

}  // namespace

ZirlaneProgress::ZirlaneProgress(std::string label, uint64_t iTotal)
    : m_label(std::move(label)), m_iTotal(iTotal), m_bTerminal(_isatty(_fileno(stderr)) != 0),
      m_start(Clock::now()), m_last(m_start) {}

ZirlaneProgress::~ZirlaneProgress() {
    if (m_bTerminal && m_bShown) std::fputs("\r\033[K", stderr);
}

void ZirlaneProgress::Update(uint64_t iDone) {
    const Clock::time_point now = Clock::now();
    if (now - m_start < kQuiet || (m_bShown && now - m_last < (m_bTerminal ? kTerminalPeriod : kLinePeriod))) return;
    m_last = now;
    m_bShown = true;
    const int iPercent = m_iTotal ? static_cast<int>(iDone * 100 / m_iTotal) : 100;
    const unsigned long long iMiB = iDone >> 20, iTotalMiB = m_iTotal >> 20;
    if (!m_bTerminal) {
        std::fprintf(stderr, "%s: %d%% (%llu of %llu MiB)\n", m_label.c_str(), iPercent, iMiB, iTotalMiB);
        return;
    }
    const int iFilled = iPercent * kBarWidth / 100;
    std::fprintf(stderr, "\r%s [%s%*s] %3d%% (%llu of %llu MiB)", m_label.c_str(), std::string(iFilled, '#').c_str(),
                 kBarWidth - iFilled, "", iPercent, iMiB, iTotalMiB);
    std::fflush(stderr);
}

namespace {

// Shows the progress of work on a thread of its own until it is destroyed.
class ProgressShower {
public:
    ProgressShower(const std::string& label, uint64_t iTotal, const std::function<uint64_t()>& done)
        : m_thread([this, label, iTotal, done] { Show(label, iTotal, done); }) {}
    ~ProgressShower() {
        {
            std::lock_guard guard(m_cs);
            m_bDone = true;
        }
        m_cvDone.notify_all();
        m_thread.join();
    }
    ProgressShower(const ProgressShower&) = delete;
    ProgressShower& operator=(const ProgressShower&) = delete;

private:
    void Show(const std::string& label, uint64_t iTotal, const std::function<uint64_t()>& done) {
        try {
            ZirlaneProgress progress(label, iTotal);
            std::unique_lock lock(m_cs);
            while (!m_cvDone.wait_for(lock, kTerminalPeriod, [this] { return m_bDone; }))
                progress.Update(std::min(done(), iTotal));
        } catch (...) {
            // the bar is only a courtesy
        }
    }

    std::mutex m_cs;
    std::condition_variable m_cvDone;
    bool m_bDone = false;  // under m_cs
    std::thread m_thread;  // last: it starts once the rest is made
};

}  // namespace

bool ZirlaneWithProgress(const std::string& label, uint64_t iTotal, const std::function<uint64_t()>& done,
                         const std::function<bool()>& work) {
    ProgressShower shower(label, iTotal, done);
    return work();
}
