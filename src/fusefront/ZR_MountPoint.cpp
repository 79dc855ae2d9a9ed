#include "fusefront/ZR_MountPoint.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "diag/ZR_Error.h"
#include "platform/win32.h"

extern char** environ;

namespace {

bool Refuse(int iLine, const std::string& why) {
    SetLastError(NO_ERROR);  // the reasons are the system's errno texts, if any
    ZR_Error(nullptr, __FILE__, "ZR_MountPoint", iLine, "%s\n", why.c_str());
    return false;
}

std::string SystemText(int iErrno) { return std::strerror(iErrno); }

// /proc/self/mounts writes a blank, a tab, a line feed and a backslash of a
// path as \040, \011, \012 and \134.
std::string Unescape(const std::string& field) {
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            out += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

bool CheckFuseDevice() {
    const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
        return true;
    }
    const int iErrno = errno;
    if (iErrno == ENOENT)
        return Refuse(__LINE__, "/dev/fuse does not exist: the fuse kernel module is not loaded");
    return Refuse(__LINE__, "No permission to use /dev/fuse (" + SystemText(iErrno) +
                                "): mounting needs read and write access to it");
}

bool IsEmptyFolder(const std::string& strPath) {
    std::error_code ec;
    return std::filesystem::directory_iterator(strPath, ec) == std::filesystem::directory_iterator();
}

// Runs fusermount3 -u; its own messages go to stderr.
bool RunFusermount(const std::string& strPath) {
    const char* aArgs[] = {"fusermount3", "-u", "--", strPath.c_str(), nullptr};
    pid_t pid = 0;
    if (int iError = posix_spawnp(&pid, "fusermount3", nullptr, nullptr, const_cast<char**>(aArgs), environ))
        return Refuse(__LINE__, "Unable to run fusermount3 (" + SystemText(iError) +
                                    "); it comes with the Debian package fuse3");
    int iStatus = 0;
    while (waitpid(pid, &iStatus, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0) return true;
    return Refuse(__LINE__, "fusermount3 -u " + strPath + " failed (the lines above say why)");
}

}  // namespace

bool ZR_MountPoint::CheckFree(const std::string& strPath) {
    struct stat st {};
    if (stat(strPath.c_str(), &st) != 0) {
        const int iErrno = errno;
        if (iErrno == ENOENT) return Refuse(__LINE__, "The mount point " + strPath + " does not exist");
        if (iErrno == ENOTCONN)
            return Refuse(__LINE__, strPath + " is a mount whose process has gone; remove it with zirlane umount " +
                                        strPath);
        return Refuse(__LINE__, "The mount point " + strPath + " cannot be used: " + SystemText(iErrno));
    }
    if (!S_ISDIR(st.st_mode)) return Refuse(__LINE__, "The mount point " + strPath + " is not a folder");
    if (std::string type = MountedType(strPath); !type.empty())
        return Refuse(__LINE__, strPath + " is a mount already (" + type + ")");
    if (!IsEmptyFolder(strPath))
        return Refuse(__LINE__, "The mount point " + strPath + " is not empty: a mount would hide what it holds");
    return CheckFuseDevice();
}

std::string ZR_MountPoint::MountedType(const std::string& strPath) {
    std::ifstream mounts("/proc/self/mounts");
    std::string line, type;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string device, point, kind;
        if (fields >> device >> point >> kind && Unescape(point) == strPath) type = kind;
    }
    return type;
}

bool ZR_MountPoint::Unmount(const std::string& strPath) {
    const std::string type = MountedType(strPath);
    if (type.empty()) return Refuse(__LINE__, strPath + " is not mounted");
    if (type != kType) return Refuse(__LINE__, strPath + " is not a zirlane mount (it is " + type + ")");
    if (geteuid() != 0) return RunFusermount(strPath);
    if (umount2(strPath.c_str(), 0) == 0) return true;
    return Refuse(__LINE__, "Unable to unmount " + strPath + ": " + SystemText(errno));
}
