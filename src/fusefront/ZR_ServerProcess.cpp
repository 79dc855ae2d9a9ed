#include "fusefront/ZR_ServerProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "diag/ZR_Error.h"
#include "platform/win32.h"

namespace {

int g_iReadyPipe = -1;  // the write end, in a detached server until it is ready

sigset_t ServerSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

// A failed system call: what was tried and the system's reason.
void Fail(const char* szFunction, int iLine, const std::string& what) {
    const std::string text = what + ": " + std::strerror(errno);
    SetLastError(NO_ERROR);  // errno is no Win32 code
    ZR_Error(nullptr, __FILE__, szFunction, iLine, "%s.\n", text.c_str());
}

}  // namespace

void ZR_ServerProcess::HoldSignals() {
    sigset_t set = ServerSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void ZR_ServerProcess::ReleaseSignals() {
    sigset_t set = ServerSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

bool ZR_ServerProcess::Interrupted() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1 ||
           sigismember(&pending, SIGHUP) == 1;
}

ZR_ServerProcess::Detached ZR_ServerProcess::Detach() {
    Detached result;
    result.bServer = true;
    int aPipe[2];
    std::fflush(stdout);
    std::fflush(stderr);
    if (pipe2(aPipe, O_CLOEXEC) != 0) {
        Fail("ZR_ServerProcess::Detach", __LINE__, "Unable to go into the background");
        result.iExit = 1;
        return result;
    }
    const pid_t pid = fork();
    if (pid <= 0) {
        close(aPipe[0]);
        if (pid < 0) {
            close(aPipe[1]);
            Fail("ZR_ServerProcess::Detach", __LINE__, "Unable to go into the background");
            result.iExit = 1;
            return result;
        }
        setsid();  // the terminal's Ctrl-C is the parent's, not the server's
        g_iReadyPipe = aPipe[1];
        return result;
    }
    close(aPipe[1]);
    result.bServer = false;
    result.iServerPid = pid;
    char c = 0;
    ssize_t n;
    do n = read(aPipe[0], &c, 1);
    while (n < 0 && errno == EINTR);
    close(aPipe[0]);
    result.bReady = n == 1;
    if (!result.bReady) {  // the server ended before it was ready: its messages are out
        int iStatus = 0;
        while (waitpid(pid, &iStatus, 0) < 0 && errno == EINTR) {
        }
        result.iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 1;
    }
    return result;
}

void ZR_ServerProcess::Ready() {
    if (g_iReadyPipe < 0) return;
    std::fflush(stdout);
    std::fflush(stderr);
    const char c = 'R';
    while (write(g_iReadyPipe, &c, 1) < 0 && errno == EINTR) {
    }
    close(g_iReadyPipe);
    g_iReadyPipe = -1;
    if (int fd = open("/dev/null", O_RDWR); fd >= 0) {
        for (int iStream = 0; iStream < 3; ++iStream) dup2(fd, iStream);
        if (fd > 2) close(fd);
    }
    if (chdir("/") != 0) {
        // stays where it is: every path it uses is absolute
    }
}

bool ZR_ServerProcess::Lock(const std::string& strPath, int iWaitMs) {
    const int fd = open(strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        Fail("ZR_ServerProcess::Lock", __LINE__, "Unable to open the lock file " + strPath);
        return false;
    }
    // The lock lasts as long as the process: fd stays open.
    constexpr int kStepMs = 100;
    for (int iWaited = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; iWaited += kStepMs) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) {
            Fail("ZR_ServerProcess::Lock", __LINE__, "Unable to lock " + strPath);
            close(fd);
            return false;
        }
        if (iWaited >= iWaitMs) {
            SetLastError(NO_ERROR);
            ZR_Error(nullptr, __FILE__, "ZR_ServerProcess::Lock", __LINE__,
                     "Another zirlane process serves the same data files (it holds %s).\n", strPath.c_str());
            close(fd);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kStepMs));
    }
    return true;
}
