// The embedded driver's data path: a data file of the size asked for (in
// GB, default 2) in a temporary folder, with the library's side of the
// ports played in the same process. Each figure stands beside the plain
// file call that does the same bytes in the same run (the physical limit):
//   hydration    every page pushed with command 9 (mode 0, 1 MiB a message)
//                beside 1 MiB writes of a plain file, both flushed at the end;
//   present      the whole file read through the host in 1 MiB reads, and
//                random 8 KiB pages, beside plain reads of the sparse file;
//   live         64 KiB reads of pages not yet present (held, supplied by the
//                library over the ports, kept) beside plain 64 KiB reads.
//
//     driver_bench [GB] [folder]
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "support/DriverPortClient.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kPage = 8192;
constexpr uint32_t kChunk = 1 << 20;
constexpr uint32_t kLive = 65536;
constexpr int kRandomPages = 20000;

// Pages as a backup holds them: a header that is not blank.
void FillPages(uint8_t* p, uint64_t iFirstPage, uint32_t iCount) {
    for (uint32_t i = 0; i < iCount; ++i) {
        std::memset(p + uint64_t(i) * kPage, 0x11, kPage);
        uint32_t iPage = static_cast<uint32_t>(iFirstPage + i);
        std::memcpy(p + uint64_t(i) * kPage + 32, &iPage, sizeof iPage);
    }
}

// Answers creates and reads as the library does, filling every page asked for.
struct Library {
    void Answer(const uint8_t* pMessage, ZR_OperationReply*) {
        ZR_ReadOperation read;
        std::memcpy(&read, pMessage, sizeof read);
        if (read.Head.iOperation == ZR_OP_CREATE)
            std::memcpy(&uniquifier, pMessage + offsetof(ZR_CreateOperation, Uniquifier), sizeof uniquifier);
        if (read.Head.iOperation != ZR_OP_READ) return;
        uint8_t* pBuffer = pClient->MapBuffer(read.iBufferKey);
        FillPages(pBuffer, read.iOffset / kPage, read.iLength / kPage);
        pClient->CompleteRead(read.iBufferKey, pBuffer, read.pOpId, 0);
    }
    zrtest::DriverPortClient* pClient = nullptr;
    FileObjectUniquifier uniquifier{};  // of the last file opened
};

long PeakRssKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

// Plain 1 MiB writes of a new file, flushed: what hydration's writes cost.
double PlainWrites(const fs::path& path, uint64_t cbFile, const std::vector<uint8_t>& aChunk) {
    auto start = std::chrono::steady_clock::now();
    HANDLE h = CreateFileW(path.wstring().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    for (uint64_t iAt = 0; iAt < cbFile; iAt += kChunk) {
        OVERLAPPED ov{};
        ov.Offset = static_cast<DWORD>(iAt);
        ov.OffsetHigh = static_cast<DWORD>(iAt >> 32);
        DWORD cb = 0;
        WriteFile(h, aChunk.data(), kChunk, &cb, &ov);
    }
    FlushFileBuffers(h);
    CloseHandle(h);
    return zrbench::Seconds(start);
}

// Reads of cb bytes at each offset, through the host or plainly.
template <class ReadAt>
double TimeReads(const std::vector<uint64_t>& aOffsets, uint32_t cb, ReadAt readAt) {
    std::vector<uint8_t> aBuffer(cb);
    auto start = std::chrono::steady_clock::now();
    for (uint64_t iAt : aOffsets) readAt(iAt, aBuffer.data(), cb);
    return zrbench::Seconds(start);
}

void PrintRatio(const char* szWhat, double dDriver, double dPlain, uint64_t cbMoved, double dPlainAgain = -1) {
    if (dPlainAgain >= 0) dPlain = (dPlain + dPlainAgain) / 2;
    std::printf("%-22s %8.3f s (%7.1f MiB/s)   plain %8.3f s   ratio %.2f", szWhat, dDriver,
                double(cbMoved) / dDriver / 1048576, dPlain, dDriver / dPlain);
    if (dPlainAgain >= 0) std::printf("   (plain runs %.3f s and %.3f s)", 2 * dPlain - dPlainAgain, dPlainAgain);
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    double dGigabytes = zrbench::Gigabytes(argc, argv);
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: driver_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    uint64_t cbFile = static_cast<uint64_t>(dGigabytes * 1024) * kChunk;
    ZR_FilterDriverOptions options;
    options.strSparseFolder = folder.wstring();
    if (!ZR_FilterDriver::Start(options)) return zrbench::PrintErrors(), 1;
    Library library;
    zrtest::DriverPortClient client([&](const uint8_t* p, ZR_OperationReply* r) { library.Answer(p, r); });
    library.pClient = &client;
    client.AddFileNames(L"D:\\bench.mdf", L"C:\\bench!1.mxf", cbFile);
    client.AddFileNames(L"D:\\live.ndf", L"C:\\bench!2.nxf", cbFile / 8);
    std::shared_ptr<ZR_DriverHost> pHost = ZR_FilterDriver::Host();
    ZR_HostHandle hData = 0, hLive = 0;
    if (pHost->Open(L"D:\\bench.mdf", &hData)) return zrbench::PrintErrors(), 1;
    FileObjectUniquifier uniquifier = library.uniquifier;
    if (pHost->Open(L"D:\\live.ndf", &hLive)) return zrbench::PrintErrors(), 1;

    std::vector<uint8_t> aChunk(kChunk);
    FillPages(aChunk.data(), 0, kChunk / kPage);
    double dPlainWrites = PlainWrites(folder / "plain.bin", cbFile, aChunk);
    auto start = std::chrono::steady_clock::now();
    ZR_HydratePagesMessage msg{};
    msg.iCode = DRIVER_COMMAND_HYDRATE_PAGES;
    msg.pPages = reinterpret_cast<uint64_t>(aChunk.data());
    msg.Range.iNumExtents = kChunk / kPage;
    msg.Uniquifier = uniquifier;
    for (uint64_t iAt = 0; iAt < cbFile; iAt += kChunk) {
        msg.Range.iFirstExtent = static_cast<uint32_t>(iAt / kPage);
        if (FAILED(client.Control(&msg, sizeof msg))) return std::fprintf(stderr, "command 9 failed\n"), 1;
    }
    pHost->Flush(hData);
    PrintRatio("hydration (1 MiB)", zrbench::Seconds(start), dPlainWrites, cbFile);

    HANDLE hPlain = CreateFileW((folder / "bench!1.mcf").wstring().c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    auto plainAt = [&](uint64_t iAt, uint8_t* p, uint32_t cb) {
        OVERLAPPED ov{};
        ov.Offset = static_cast<DWORD>(iAt);
        ov.OffsetHigh = static_cast<DWORD>(iAt >> 32);
        DWORD cbRead = 0;
        ReadFile(hPlain, p, cb, &cbRead, &ov);
    };
    auto hostAt = [&](ZR_HostHandle h) {
        return [&, h](uint64_t iAt, uint8_t* p, uint32_t cb) {
            uint32_t cbRead = 0;
            pHost->Read(h, iAt, p, cb, &cbRead);
        };
    };
    std::vector<uint64_t> aSequential, aRandom, aLive;
    for (uint64_t iAt = 0; iAt < cbFile; iAt += kChunk) aSequential.push_back(iAt);
    std::mt19937_64 rng(42);
    for (int i = 0; i < kRandomPages; ++i) aRandom.push_back(rng() % (cbFile / kPage) * kPage);
    for (uint64_t iAt = 0; iAt < cbFile / 8; iAt += kLive) aLive.push_back(iAt);
    // Plain, driver, plain again: the driver meets the cache state of the
    // mean of the plain runs.
    auto compare = [&](const char* szWhat, const std::vector<uint64_t>& aAt, uint32_t cb, ZR_HostHandle h) {
        double dPlain = TimeReads(aAt, cb, plainAt);
        double dDriver = TimeReads(aAt, cb, hostAt(h));
        PrintRatio(szWhat, dDriver, dPlain, aAt.size() * uint64_t(cb), TimeReads(aAt, cb, plainAt));
    };
    compare("present, 1 MiB reads", aSequential, kChunk, hData);
    compare("present, 8 KiB random", aRandom, kPage, hData);
    compare("live, 64 KiB held", aLive, kLive, hLive);
    std::printf("peak RSS: %ld KiB\n", PeakRssKiB());

    CloseHandle(hPlain);
    pHost->Close(hData, true);
    pHost->Close(hLive, true);
    pHost.reset();
    ZR_FilterDriver::Stop();
    fs::remove(folder / "plain.bin");
    return 0;
}
