#include "Progress.h"

#include <cstdio>

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
