// Everything an end-to-end test needs to stand up readers and cards: a private
// pcscd with vpcd readers, krfs-vtoken cards in them, and raw PC/SC views.
#pragma once

#include <PCSC/winscard.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace krfs::harness {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long the harness waits for pcscd, a card or a process before it gives up.
constexpr milliseconds kDeadline{10000};

// Gives this process (while it has one thread) its own mounts and network, a
// fresh tmpfs on /run/pcscd and the loopback up: no system pcscd and no other
// test's vpcd ports are seen. Throws saying what was refused and why.
void enterPrivateNamespaces();

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

// A program with stdin from /dev/null and its output in a log file, stopped
// on destruction.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::string& logPath);
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool running();  // false once it has exited and was reaped
    void signal(int sig);
    bool waitExit(milliseconds deadline = kDeadline);  // false if it still runs
    bool exitedWith(int code) const;
    // SIGTERM, then SIGKILL after `grace`; true if it ended within the grace.
    bool stop(milliseconds grace = milliseconds{3000});
    std::string log() const { return readFile(logPath_); }

private:
    pid_t pid_ = -1;
    int status_ = 0;
    std::string logPath_;
};

// "0x8010001D (Service not available.)"
std::string pcscText(LONG rv);

// A PC/SC client context; throws if pcscd cannot be reached.
class Context {
public:
    Context();
    ~Context() { SCardReleaseContext(context_); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    SCARDCONTEXT get() const { return context_; }

private:
    SCARDCONTEXT context_ = 0;
};

std::vector<std::string> listReaders();

struct ReaderState {
    DWORD state = 0;  // SCARD_STATE_* bits, without pcscd's event counter
    Bytes atr;
};
// Waits for `done(state)`; throws naming `what` and the last state seen.
ReaderState waitForReader(const std::string& reader, bool (*done)(const ReaderState&),
                          const char* what, milliseconds deadline = kDeadline);
ReaderState readerState(const std::string& reader);
inline bool cardPresent(const ReaderState& s) {
    return (s.state & SCARD_STATE_PRESENT) && !(s.state & SCARD_STATE_MUTE);
}
inline bool cardMute(const ReaderState& s) {
    return (s.state & SCARD_STATE_PRESENT) && (s.state & SCARD_STATE_MUTE);
}
inline bool readerEmpty(const ReaderState& s) { return (s.state & SCARD_STATE_EMPTY) != 0; }

// One client's connection to a card, in a context of its own so that two
// Connections are two PC/SC clients. A failed connect is kept in status().
class Connection {
public:
    explicit Connection(const std::string& reader, DWORD share = SCARD_SHARE_SHARED,
                        DWORD protocols = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1);
    ~Connection() {
        if (connected()) SCardDisconnect(handle_, SCARD_LEAVE_CARD);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    LONG status() const { return status_; }
    bool connected() const { return status_ == SCARD_S_SUCCESS; }
    // Sends one APDU; `response` is cut to what came back.
    LONG transmit(const Bytes& command, Bytes& response);
    LONG reconnect(DWORD initialization);
    SCARDHANDLE handle() const { return handle_; }
    // The active protocol PC/SC reported at connect or reconnect.
    DWORD protocol() const { return protocol_; }

private:
    Context context_;
    SCARDHANDLE handle_ = 0;
    DWORD protocol_ = 0;
    LONG status_;
};

// Resets the card from a client of its own, as another application would:
// every other handle's next call reports SCARD_W_RESET_CARD.
LONG resetCardFromAnotherClient(const std::string& reader);

// `pcscd --foreground` on a reader configuration of its own, ready once it
// lists its readers; its log is shown when the test has failed. Until one
// starts, nothing answers: a test of "no pcscd" needs no object.
class Pcscd {
public:
    static constexpr const char* kReaderBase = "Virtual PCD";
    static constexpr int kSlots = 2;  // vpcd readers per channel

    // 0 or 1 vpcd channels, never more: vpcd 0.8 keeps its slots in one table
    // for the whole driver, so a second channel would alias the first.
    explicit Pcscd(int channels = 1, milliseconds deadline = kDeadline);
    ~Pcscd();
    Pcscd(const Pcscd&) = delete;
    Pcscd& operator=(const Pcscd&) = delete;

    // The reader of vpcd slot 0 or 1 ("Virtual PCD 00 01"), and its port.
    static std::string readerName(int slot);
    static std::uint16_t port(int slot);
    int channels() const { return channels_; }
    std::string log() const { return readFile(dir_.file("pcscd.log")); }
    void stop() { process_.reset(); }

private:
    int channels_;
    TempDir dir_;
    std::unique_ptr<ChildProcess> process_;
};

// The options of `krfs-vtoken init`. Empty strings leave the program's
// defaults (user PIN 1234567890, administrator PIN the user PIN, a random
// identifier).
struct TokenInit {
    std::string dialect = "pro";  // or "r2"
    std::string model = "pro42";  // pro16, pro32, pro42, pro42b
    bool fips = false;
    std::string label;
    std::string userPin;
    std::string adminPin;
    std::string id;                 // 8 hex digits
    std::vector<std::string> more;  // e.g. {"--colour", "3"}
};
// Writes a fresh token's state to `path`; throws with the program's output.
void initToken(const std::string& path, const TokenInit& init);
// Runs `krfs-vtoken ARGS...`; throws with its output unless it succeeds.
void vtokenCommand(const std::vector<std::string>& args);
nlohmann::json readState(const std::string& path);

struct VTokenOptions {
    // A card without state: its ATR and a transcript in the form of
    // `krfs-vtoken --help`. No transcript: every command gets 6D 00.
    std::string atr = "3B 80 80 01 01";
    std::string script;
    bool mute = false;  // present, but never powers up
    // Or the token kept in this state file, which gets every change...
    std::string stateFile;
    // ...or one made first in the VToken's own directory (not both).
    std::optional<TokenInit> init;
    // More `serve` options, such as the fault knobs:
    // {"--refuse", "00B0=6A82", "--mute-after", "3", "--assume-verified", "01"}.
    std::vector<std::string> serveArgs;
};

// A krfs-vtoken process in a vpcd reader, ready once pcscd shows the card.
// It must end cleanly when destroyed; its log is shown when a test failed.
class VToken {
public:
    VToken(const Pcscd& pcscd, int slot = 0, VTokenOptions options = {},
           milliseconds deadline = kDeadline);
    ~VToken();
    VToken(const VToken&) = delete;
    VToken& operator=(const VToken&) = delete;

    const std::string& reader() const { return reader_; }
    Bytes atr() const { return readerState(reader_).atr; }
    // The state file served, and its content now: the card side of a test.
    const std::string& statePath() const { return statePath_; }
    nlohmann::json state() const { return readState(statePath_); }
    // Takes the card out of the reader, or puts it back, as pcscd then shows.
    void vanish(milliseconds deadline = kDeadline);
    void comeBack(milliseconds deadline = kDeadline);
    std::string log() const { return process_->log(); }

private:
    void waitInReader(milliseconds deadline);

    std::string reader_;
    VTokenOptions options_;
    TempDir dir_;
    std::string statePath_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace krfs::harness
