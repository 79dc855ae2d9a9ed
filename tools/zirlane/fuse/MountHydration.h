// zirlane mount --hydrate: the library fills the data files' sparse files
// from the backups on a thread of its own while the mount serves, and the
// progress shows: a bar on a terminal (percent, MB/s, time left, the file
// being filled), a plain line every few seconds elsewhere, on stderr; with
// --json, one JSON object a line on stdout instead.
//
// The data files stay open through the driver's host side for the
// hydration's life, so that it need not wait for SQL Server to open them.
// What the sparse files hold is what their bitmaps say: a hydration that
// is interrupted leaves it for the next mount of the chain, which goes on
// from there.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ZR_DriverHost;

class ZirlaneHydration {
public:
    struct DataFile {
        std::string name;         // under the mount point
        std::wstring wsHostName;  // as the driver knows it
    };

    // Starts the hydration of the mount with the key. The marker file is
    // made now and gets ".completed" added to its name when every data file
    // is whole.
    ZirlaneHydration(std::wstring wsKey, std::string marker, const std::vector<DataFile>& files, bool bJson);
    // Waits for the hydration to end, which Remove of the mount brings
    // about within seconds, then lets go of the data files.
    ~ZirlaneHydration();
    ZirlaneHydration(const ZirlaneHydration&) = delete;
    ZirlaneHydration& operator=(const ZirlaneHydration&) = delete;

private:
    using Clock = std::chrono::steady_clock;
    struct Open {
        std::string name;
        uint64_t handle = 0;
    };
    // One look at the progress.
    struct Sample {
        long long iDone = 0, iTotal = 0;  // as GetPercentComplete gives them
        std::string file;  // the first data file that is not yet whole
    };

    void Hydrate();
    void Show();
    Sample Take();
    void Print(const Sample& sample, double dBytesPerSecond, bool bFinal);

    std::wstring m_wsKey;
    std::string m_marker;
    bool m_bJson;
    bool m_bTerminal;
    std::shared_ptr<ZR_DriverHost> m_pHost;
    std::vector<Open> m_aFiles;
    std::atomic<int> m_iOutcome{0};  // 0 running, 1 complete, 2 stopped
    std::mutex m_cs;
    std::condition_variable m_cvEnded;
    std::thread m_shower;
    std::thread m_hydrator;  // last: it starts once the rest is made
};
