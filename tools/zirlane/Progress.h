// The progress of a long piece of work, on stderr: a bar redrawn in place
// on a terminal, a plain line every few seconds elsewhere. Work done within
// a second shows nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

class ZirlaneProgress {
public:
    // label: a few words, such as the name of the file being written.
    ZirlaneProgress(std::string label, uint64_t iTotal);
    // Clears the bar, so that what follows starts on a clean line.
    ~ZirlaneProgress();
    ZirlaneProgress(const ZirlaneProgress&) = delete;
    ZirlaneProgress& operator=(const ZirlaneProgress&) = delete;

    void Update(uint64_t iDone);

private:
    using Clock = std::chrono::steady_clock;

    std::string m_label;
    uint64_t m_iTotal;
    bool m_bTerminal;
    bool m_bShown = false;
    Clock::time_point m_start;
    Clock::time_point m_last;
};

// Runs work on the calling thread while another thread shows its progress,
// as done() tells it (called every tenth of a second, from that thread),
// against iTotal. Gives what work gave.
bool ZirlaneWithProgress(const std::string& label, uint64_t iTotal, const std::function<uint64_t()>& done,
                         const std::function<bool()>& work);
