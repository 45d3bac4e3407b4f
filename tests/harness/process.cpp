#include "harness/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

extern char** environ;

namespace krfs::harness {

namespace {

// Granularity of waiting for a child to end; the wait itself is bounded by
// the caller's deadline.
constexpr milliseconds kReapPoll{5};

}  // namespace

TempDir::TempDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    if (!::mkdtemp(buffer.data()))
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + templ);
    path_ = buffer.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path);
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& logPath)
    : logPath_(logPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);

    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    int rc = ::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid_ = -1;
        throw std::system_error(rc, std::generic_category(), "cannot start " + argv[0]);
    }
}

ChildProcess::~ChildProcess() { stop(); }

bool ChildProcess::running() {
    if (pid_ < 0) return false;
    int status = 0;
    pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == 0) return true;
    if (r == pid_) status_ = status;
    pid_ = -1;
    return false;
}

bool ChildProcess::exitedWith(int code) const {
    return pid_ < 0 && WIFEXITED(status_) && WEXITSTATUS(status_) == code;
}

void ChildProcess::signal(int sig) {
    if (pid_ < 0) throw std::logic_error("signal to a child that has ended");
    ::kill(pid_, sig);
}

bool ChildProcess::reapWithin(milliseconds limit) {
    auto until = Clock::now() + limit;
    while (running()) {
        if (Clock::now() >= until) return false;
        std::this_thread::sleep_for(kReapPoll);
    }
    return true;
}

bool ChildProcess::stop(milliseconds grace) {
    if (!running()) return true;
    ::kill(pid_, SIGTERM);
    if (reapWithin(grace)) return true;
    ::kill(pid_, SIGKILL);
    reapWithin(kDeadline);
    return false;
}

}  // namespace krfs::harness
