#include "harness/harness.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#ifndef KRFS_VTOKEN_PATH
#error "KRFS_VTOKEN_PATH names the krfs-vtoken program"
#endif

extern char** environ;

namespace krfs::harness {

namespace {

void require(bool done, const std::string& step) {
    if (done) return;
    const int e = errno;
    std::string why = step + ": " + std::strerror(e);
    if (e == EPERM || e == EACCES)
        why +=
            " (the end-to-end tests need CAP_SYS_ADMIN and CAP_NET_ADMIN: run them as root, "
            "or in a privileged container)";
    throw std::runtime_error("cannot enter a private mount and network namespace: " + why);
}

std::string hex(unsigned long value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", value & 0xFFFFFFFFul);
    return text;
}

constexpr const char* kVpcdDriver = "/usr/lib/pcsc/drivers/serial/libifdvpcd.so";
constexpr std::uint16_t kFirstPort = 0x8C7B;
// pcscd counts events in the upper 16 bits of the event state.
constexpr DWORD kStateBits = 0xFFFF;

}  // namespace

void enterPrivateNamespaces() {
    require(::unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "unshare(CLONE_NEWNS | CLONE_NEWNET)");
    // Without this our tmpfs would propagate back to the host's /run.
    require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
            "making / recursively private");
    require(::mkdir("/run/pcscd", 0755) == 0 || errno == EEXIST, "mkdir /run/pcscd");
    require(::mount("krfs-pcscd", "/run/pcscd", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0,
            "mounting a tmpfs over /run/pcscd");
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(fd >= 0, "socket for the loopback interface");
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags |= IFF_UP | IFF_RUNNING;
    up = up && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    const int e = errno;
    ::close(fd);
    errno = e;
    require(up, "bringing the loopback interface up");
}

TempDir::TempDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (!::mkdtemp(templ.data()))
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + templ);
    path_ = templ;
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
    const int rc = ::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid_ = -1;
        throw std::system_error(rc, std::generic_category(), "cannot start " + argv[0]);
    }
}

bool ChildProcess::running() {
    if (pid_ < 0) return false;
    int status = 0;
    const pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == 0) return true;
    if (r == pid_) status_ = status;
    pid_ = -1;
    return false;
}

void ChildProcess::signal(int sig) { ::kill(pid_, sig); }

bool ChildProcess::waitExit(milliseconds deadline) {
    const auto until = Clock::now() + deadline;
    for (; running(); std::this_thread::sleep_for(milliseconds{5}))
        if (Clock::now() >= until) return false;
    return true;
}

bool ChildProcess::exitedWith(int code) const {
    return pid_ < 0 && WIFEXITED(status_) && WEXITSTATUS(status_) == code;
}

bool ChildProcess::stop(milliseconds grace) {
    if (!running()) return true;
    ::kill(pid_, SIGTERM);
    if (waitExit(grace)) return true;
    ::kill(pid_, SIGKILL);
    waitExit();
    return false;
}

std::string pcscText(LONG rv) {
    return hex(static_cast<unsigned long>(rv)) + " (" + pcsc_stringify_error(rv) + ")";
}

Context::Context() {
    const LONG rv = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_);
    if (rv != SCARD_S_SUCCESS) throw std::runtime_error("SCardEstablishContext: " + pcscText(rv));
}

std::vector<std::string> listReaders() {
    Context context;
    char* names = nullptr;
    DWORD size = SCARD_AUTOALLOCATE;
    std::vector<std::string> readers;
    if (SCardListReaders(context.get(), nullptr, reinterpret_cast<char*>(&names), &size) != 0)
        return readers;
    for (const char* name = names; *name != '\0'; name += readers.back().size() + 1)
        readers.emplace_back(name);
    SCardFreeMemory(context.get(), names);
    return readers;
}

ReaderState waitForReader(const std::string& reader, bool (*done)(const ReaderState&),
                          const char* what, milliseconds deadline) {
    Context context;
    const auto until = Clock::now() + deadline;
    SCARD_READERSTATE s{};
    s.szReader = reader.c_str();
    s.dwCurrentState = SCARD_STATE_UNAWARE;
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(until - Clock::now()).count();
        const LONG rv = SCardGetStatusChange(context.get(), std::max(0L, left), &s, 1);
        const ReaderState state{s.dwEventState & kStateBits, Bytes(s.rgbAtr, s.rgbAtr + s.cbAtr)};
        if (rv == SCARD_S_SUCCESS && (state.state & SCARD_STATE_UNKNOWN))
            throw std::runtime_error("no reader \"" + reader + "\" while waiting for " + what);
        if (rv == SCARD_S_SUCCESS && done(state)) return state;
        if (rv != SCARD_S_SUCCESS && rv != SCARD_E_TIMEOUT)
            throw std::runtime_error(std::string("waiting for ") + what + ": " + pcscText(rv));
        if (Clock::now() >= until)
            throw std::runtime_error(std::string("timed out waiting for ") + what + " in \"" +
                                     reader + "\"; its state is " + hex(state.state));
        s.dwCurrentState = s.dwEventState;
    }
}

ReaderState readerState(const std::string& reader) {
    return waitForReader(
        reader, [](const ReaderState&) { return true; }, "its state", milliseconds{0});
}

Connection::Connection(const std::string& reader, DWORD share, DWORD protocols) {
    status_ = SCardConnect(context_.get(), reader.c_str(), share, protocols, &handle_, &protocol_);
}

LONG Connection::transmit(const Bytes& command, Bytes& response) {
    response.resize(MAX_BUFFER_SIZE_EXTENDED);
    DWORD length = static_cast<DWORD>(response.size());
    const LONG rv = SCardTransmit(
        handle_, protocol_ == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1, command.data(),
        static_cast<DWORD>(command.size()), nullptr, response.data(), &length);
    response.resize(rv == SCARD_S_SUCCESS ? length : 0);
    return rv;
}

LONG Connection::reconnect(DWORD initialization) {
    return SCardReconnect(handle_, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                          initialization, &protocol_);
}

LONG resetCardFromAnotherClient(const std::string& reader) {
    Connection other(reader);
    return other.connected() ? other.reconnect(SCARD_RESET_CARD) : other.status();
}

Pcscd::Pcscd(int channels, milliseconds deadline) : channels_(channels), dir_("krfs-pcscd") {
    const std::string confDir = dir_.file("conf");
    ::mkdir(confDir.c_str(), 0755);
    if (channels > 0) {
        char port[8];
        std::snprintf(port, sizeof port, "0x%04X", kFirstPort);
        writeFile(confDir + "/reader.conf", std::string("FRIENDLYNAME \"") + kReaderBase +
                                                "\"\nDEVICENAME /dev/null:" + port + "\nLIBPATH " +
                                                kVpcdDriver + "\nCHANNELID " + port + "\n");
    }
    const char* program = std::getenv("KRFS_PCSCD");
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program && *program ? program : "/usr/sbin/pcscd", "--foreground",
                                 "--debug", "-c", confDir},
        dir_.file("pcscd.log"));
    // pcscd makes its socket some milliseconds after it starts: poll for it.
    const auto until = Clock::now() + deadline;
    for (std::string last;; std::this_thread::sleep_for(milliseconds{10})) {
        if (!process_->running())
            throw std::runtime_error("pcscd ended while starting; its log:\n" + log());
        try {
            if (listReaders().size() >= static_cast<std::size_t>(channels * kSlots)) return;
            last = "readers missing";
        } catch (const std::runtime_error& e) {
            last = e.what();
        }
        if (Clock::now() >= until) {
            stop();
            throw std::runtime_error("pcscd not ready in time (" + last + "); its log:\n" + log());
        }
    }
}

Pcscd::~Pcscd() {
    stop();
    if (::testing::Test::HasFailure()) std::cerr << "---- pcscd log ----\n" << log() << "----\n";
}

std::string Pcscd::readerName(int slot) {
    return kReaderBase + std::string(slot ? " 00 01" : " 00 00");
}

std::uint16_t Pcscd::port(int slot) { return static_cast<std::uint16_t>(kFirstPort + slot); }

void initToken(const std::string& path, const TokenInit& init) {
    std::vector<std::string> argv{"init", "--state", path, "--dialect", init.dialect, "--force"};
    if (init.dialect == "pro") argv.insert(argv.end(), {"--model", init.model});
    if (init.fips) argv.push_back("--fips");
    const std::pair<const char*, std::string> values[] = {{"--label", init.label},
                                                          {"--user-pin", init.userPin},
                                                          {"--admin-pin", init.adminPin},
                                                          {"--id", init.id}};
    for (const auto& [option, value] : values)
        if (!value.empty()) argv.insert(argv.end(), {option, value});
    argv.insert(argv.end(), init.more.begin(), init.more.end());
    vtokenCommand(argv);
}

void vtokenCommand(const std::vector<std::string>& args) {
    std::vector<std::string> argv{KRFS_VTOKEN_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    TempDir dir("krfs-vtoken-command");
    ChildProcess program(argv, dir.file("command.log"));
    if (!program.waitExit() || !program.exitedWith(0))
        throw std::runtime_error("krfs-vtoken " + args.at(0) + " failed:\n" + program.log());
}

nlohmann::json readState(const std::string& path) {
    const std::string text = readFile(path);
    if (text.empty()) throw std::runtime_error("no state in " + path);
    return nlohmann::json::parse(text);
}

VToken::VToken(const Pcscd& pcscd, int slot, VTokenOptions options, milliseconds deadline)
    : reader_(Pcscd::readerName(slot)), options_(std::move(options)), dir_("krfs-vtoken") {
    if (slot < 0 || slot >= pcscd.channels() * Pcscd::kSlots)
        throw std::invalid_argument("VToken: pcscd has no reader for slot " + std::to_string(slot));
    // A card left by an earlier VToken in this slot shows until pcscd's next
    // poll; wait it out so readiness below cannot mistake it for ours.
    waitForReader(reader_, readerEmpty, "the slot to be free", deadline);
    std::vector<std::string> argv{KRFS_VTOKEN_PATH, "serve", "--port",
                                  std::to_string(Pcscd::port(slot)), "--verbose"};
    statePath_ = options_.stateFile;
    if (options_.init) {
        statePath_ = dir_.file("token.json");
        initToken(statePath_, *options_.init);
    }
    if (!statePath_.empty()) {
        argv.insert(argv.end(), {"--state", statePath_});
    } else {
        argv.insert(argv.end(), {"--atr", options_.atr});
        if (!options_.script.empty()) {
            writeFile(dir_.file("script"), options_.script);
            argv.insert(argv.end(), {"--script", dir_.file("script")});
        }
    }
    argv.insert(argv.end(), options_.serveArgs.begin(), options_.serveArgs.end());
    if (options_.mute) argv.push_back("--mute");
    process_ = std::make_unique<ChildProcess>(argv, dir_.file("vtoken.log"));
    waitInReader(deadline);
}

VToken::~VToken() {
    // A card that crashes, leaks under the sanitizers or ignores SIGTERM
    // fails the test that used it.
    if (!process_->stop() || !process_->exitedWith(0))
        ADD_FAILURE() << "krfs-vtoken in \"" << reader_ << "\" did not exit cleanly on SIGTERM";
    if (::testing::Test::HasFailure())
        std::cerr << "---- krfs-vtoken log (" << reader_ << ") ----\n" << log() << "----\n";
}

void VToken::waitInReader(milliseconds deadline) {
    try {
        waitForReader(reader_, options_.mute ? cardMute : cardPresent,
                      options_.mute ? "a mute card" : "the card", deadline);
    } catch (const std::exception& e) {
        if (process_->running()) throw;
        throw std::runtime_error(std::string(e.what()) + "; krfs-vtoken ended, its log:\n" + log());
    }
}

void VToken::vanish(milliseconds deadline) {
    process_->signal(SIGUSR1);
    waitForReader(reader_, readerEmpty, "the card to leave", deadline);
}

void VToken::comeBack(milliseconds deadline) {
    process_->signal(SIGUSR2);
    waitInReader(deadline);
}

}  // namespace krfs::harness
