// The process that serves a mount: which thread takes Ctrl-C and SIGTERM,
// running on in the background once the mount is ready, and a lock that
// keeps two processes from serving the same data files.
#pragma once

#include <string>

class ZR_ServerProcess {
public:
    // Blocks SIGINT, SIGTERM and SIGHUP in the calling thread, and so in
    // every thread it starts later: call it before the library starts any,
    // and only the thread that serves the FUSE loop will take them.
    static void HoldSignals();
    // Lets the calling thread take them (ZR_FuseFront::Serve).
    static void ReleaseSignals();
    // One of them arrived while they were held (it stays pending).
    static bool Interrupted();

    // What Detach left the caller as.
    struct Detached {
        bool bServer = false;  // the process that serves; the others exit with iExit
        bool bReady = false;   // the server said it was ready
        int iExit = 0;         // the server's exit code when it ended before that
        int iServerPid = 0;
    };
    // Forks before any thread runs. The child, in a session of its own,
    // returns as the server. The parent waits until the child calls Ready
    // or ends, and returns what it learnt. On failure (no fork): returns as
    // the server, after recording why, with iExit 1.
    static Detached Detach();
    // In a detached server: tells the parent, then lets go of the terminal
    // (standard streams to /dev/null, current folder /). Nothing otherwise.
    static void Ready();

    // An exclusive lock on strPath (made if missing), waited for up to
    // iWaitMs while another process holds it. False with the reason in the
    // error chain. Released when the process ends.
    static bool Lock(const std::string& strPath, int iWaitMs);
};
