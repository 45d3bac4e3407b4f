// Child processes and scratch directories of the harness.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace krfs::harness {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long the harness waits for pcscd, a card or a process before it gives up.
constexpr milliseconds kDeadline{10000};

// A fresh directory under $TMPDIR (or /tmp), removed with its files.
class TempDir {
public:
    explicit TempDir(const std::string& prefix);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Reads a whole file; empty if it cannot be read.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// A program run with stdin from /dev/null and stdout and stderr appended to
// a log file. Stops it on destruction.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::string& logPath);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    // False once it has exited (and was reaped).
    bool running();
    // The exit status as waitpid reports it; valid once running() is false.
    int waitStatus() const { return status_; }
    void signal(int sig);
    // Waits for it to end by itself; false if it is still running at the deadline.
    bool waitExit(milliseconds deadline = kDeadline) { return reapWithin(deadline); }
    // True if it ended with exit status `code`.
    bool exitedWith(int code) const;
    // SIGTERM, then SIGKILL if it is still there after `grace`; reaps it.
    // Returns true if it ended within the grace period.
    bool stop(milliseconds grace = milliseconds{3000});
    std::string log() const { return readFile(logPath_); }
    const std::string& logPath() const { return logPath_; }

private:
    bool reapWithin(milliseconds limit);

    pid_t pid_ = -1;
    int status_ = 0;
    std::string logPath_;
};

}  // namespace krfs::harness
