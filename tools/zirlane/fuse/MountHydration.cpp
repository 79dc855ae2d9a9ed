#include "fuse/MountHydration.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "Commands.h"
#include "filterdriver/ZR_DriverHost.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "platform/WideStdio.h"
#include "zirlane/zirlane.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kLookPeriod = 100ms;      // looks at the progress
constexpr auto kTerminalPeriod = 250ms;  // redraws of the bar
constexpr auto kLinePeriod = 5s;         // plain lines into a file or a pipe
constexpr auto kJsonPeriod = 1s;
constexpr int kBarWidth = 30;
constexpr uint64_t kPage = 8192;

std::string JsonText(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            char sz[8];
            std::snprintf(sz, sizeof sz, "\\u%04x", c);
            out += sz;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// "1:02:03" or "2:03"; "?" while the rate is unknown.
std::string Duration(double dSeconds) {
    if (dSeconds < 0) return "?";
    const auto s = static_cast<long long>(dSeconds + 0.5);
    char sz[32];
    if (s >= 3600)
        std::snprintf(sz, sizeof sz, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    else
        std::snprintf(sz, sizeof sz, "%lld:%02lld", s / 60, s % 60);
    return sz;
}

}  // namespace

ZirlaneHydration::ZirlaneHydration(std::wstring wsKey, std::string marker, const std::vector<DataFile>& files,
                                   bool bJson)
    : m_wsKey(std::move(wsKey)), m_marker(std::move(marker)), m_bJson(bJson),
      m_bTerminal(_isatty(_fileno(stderr)) != 0), m_pHost(ZR_FilterDriver::Host()) {
    std::error_code ec;
    std::filesystem::remove(m_marker + ".completed", ec);
    std::ofstream(m_marker) << "hydrating\n";
    for (const DataFile& file : files) {
        ZR_HostHandle handle = 0;
        if (m_pHost && m_pHost->Open(file.wsHostName.c_str(), &handle) == kHostSuccess)
            m_aFiles.push_back({file.name, handle});
    }
    m_shower = std::thread([this] { Show(); });
    m_hydrator = std::thread([this] { Hydrate(); });
}

ZirlaneHydration::~ZirlaneHydration() {
    m_hydrator.join();
    m_shower.join();
    for (const Open& file : m_aFiles) m_pHost->Close(file.handle, false);
}

void ZirlaneHydration::Hydrate() {
    bool bComplete = false;
    try {
        StartDataHydration(m_wsKey.c_str(), ZirlaneWide(m_marker).c_str(), 0);
        bool bDeleted = false;
        bComplete = DatabaseHydrationDone(m_wsKey.c_str(), &bDeleted) && !bDeleted;
    } catch (...) {
        // the error chain tells; the mount serves on
    }
    {
        std::lock_guard guard(m_cs);
        m_iOutcome = bComplete ? 1 : 2;
    }
    m_cvEnded.notify_all();
}

ZirlaneHydration::Sample ZirlaneHydration::Take() {
    Sample sample;
    GetPercentComplete(m_wsKey.c_str(), &sample.iDone, &sample.iTotal);
    for (const Open& file : m_aFiles) {
        uint64_t iSize = 0, iPages = 0;
        if (m_pHost->QuerySize(file.handle, &iSize) == kHostSuccess &&
            m_pHost->QueryPresentPages(file.handle, &iPages) == kHostSuccess && iPages < (iSize + kPage - 1) / kPage) {
            sample.file = file.name;
            break;
        }
    }
    return sample;
}

void ZirlaneHydration::Show() {
    try {
        const auto period = m_bJson ? kJsonPeriod : m_bTerminal ? kTerminalPeriod : kLinePeriod;
        // The rate counts from the first look that found the files: what
        // they held before is not this run's.
        Sample first, last;
        Clock::time_point start, printed = Clock::now();
        std::unique_lock lock(m_cs);
        for (bool bEnded = false; !bEnded;) {
            bEnded = m_cvEnded.wait_for(lock, kLookPeriod, [this] { return m_iOutcome != 0; });
            // A removed mount tells nothing more; progress never goes back.
            if (Sample sample = Take(); sample.iTotal) {
                sample.iDone = std::max(sample.iDone, last.iDone);
                if (!first.iTotal) first = sample, start = Clock::now();
                last = sample;
            }
            if (!bEnded && Clock::now() - printed < period) continue;
            printed = Clock::now();
            const double dSeconds = std::chrono::duration<double>(printed - start).count();
            Print(last, first.iTotal && dSeconds > 0 ? double(last.iDone - first.iDone) / dSeconds : 0, bEnded);
        }
    } catch (...) {
        // the progress is only a courtesy
    }
}

void ZirlaneHydration::Print(const Sample& sample, double dBytesPerSecond, bool bFinal) {
    const double dPercent = sample.iTotal ? 100.0 * double(sample.iDone) / double(sample.iTotal) : 0;
    const double dMBps = dBytesPerSecond / 1e6;
    const double dLeft = dBytesPerSecond > 0 ? double(sample.iTotal - sample.iDone) / dBytesPerSecond : -1;
    const char* szState = !bFinal ? "hydrating" : m_iOutcome == 1 ? "complete" : "stopped";
    if (m_bJson) {
        std::printf("{\"state\":\"%s\",\"percent\":%.2f,\"done_bytes\":%lld,\"total_bytes\":%lld,\"mb_per_s\":%.1f,"
                    "\"seconds_left\":%.0f,\"file\":%s}\n",
                    szState, dPercent, sample.iDone, sample.iTotal,
                    dMBps, dLeft < 0 ? -1 : dLeft, JsonText(sample.file).c_str());
        std::fflush(stdout);
        return;
    }
    if (bFinal) {
        if (m_bTerminal) std::fputs("\r\033[K", stderr);
        if (m_iOutcome == 1)
            std::fprintf(stderr, "Hydrated: every data file is whole in the sparse folder (%.1f MB/s).\n", dMBps);
        else
            std::fprintf(stderr, "Hydration stopped at %.2f%%; the next mount of this chain goes on from there.\n",
                         dPercent);
        return;
    }
    if (!m_bTerminal) {
        std::fprintf(stderr, "Hydrating: %.2f%%, %.1f MB/s, %s left, %s\n", dPercent, dMBps, Duration(dLeft).c_str(),
                     sample.file.c_str());
        return;
    }
    const int iFilled = static_cast<int>(dPercent * kBarWidth / 100);
    std::fprintf(stderr, "\rHydrating [%s%*s] %6.2f%%  %.1f MB/s  %s left  %s\033[K", std::string(iFilled, '#').c_str(),
                 kBarWidth - iFilled, "", dPercent, dMBps, Duration(dLeft).c_str(), sample.file.c_str());
    std::fflush(stderr);
}
