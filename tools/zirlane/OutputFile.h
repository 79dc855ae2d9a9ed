// What the tool writes: files under a temporary name until they are whole,
// the folders it made for them, and Ctrl-C while it writes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/win32.h"

// A file written under a temporary name beside its own ("NAME.partial")
// and renamed when complete, so that a failure or an interruption never
// leaves a file that looks whole. Every failure is recorded in the error
// chain (no mount key).
class ZirlaneOutputFile {
public:
    ZirlaneOutputFile() = default;
    // Removes the temporary file unless it was committed.
    ~ZirlaneOutputFile();
    ZirlaneOutputFile(const ZirlaneOutputFile&) = delete;
    ZirlaneOutputFile& operator=(const ZirlaneOutputFile&) = delete;

    // Makes the temporary file, iSize bytes long: what is not written
    // stays a hole. The folder must exist.
    bool Create(const std::string& path, uint64_t iSize);
    bool WriteAt(uint64_t iOfs, const void* p, uint32_t iLen);
    // Closes the file and gives it its name, replacing a file of that name.
    bool Commit();

private:
    bool Seek(uint64_t iOfs);
    bool Fail(const char* szWhat, uint64_t iOfs);
    void Close();

    HANDLE m_h = INVALID_HANDLE_VALUE;
    std::string m_path;
    std::string m_temp;
    bool m_bCommitted = false;
};

// The output folder of a command, made with its parents when missing. The
// destructor removes the folders that it made and that stayed empty, so
// that a failed command leaves no empty folder behind.
class ZirlaneOutputFolder {
public:
    ZirlaneOutputFolder() = default;
    ~ZirlaneOutputFolder();
    ZirlaneOutputFolder(const ZirlaneOutputFolder&) = delete;
    ZirlaneOutputFolder& operator=(const ZirlaneOutputFolder&) = delete;

    bool Create(const std::string& folder);

private:
    std::vector<std::filesystem::path> m_aMade;  // the deepest first
};

// From this call on, Ctrl-C and SIGTERM only raise a flag, which the
// writing loops test between pieces: they stop, and their temporary files
// go with their destructors.
void ZirlaneCatchInterrupts();
// True once interrupted; records the reason in the error chain.
bool ZirlaneStopRequested();
