// A krfs-vtoken process sitting in a vpcd reader of a private pcscd.
#pragma once

#include "harness/pcsc.h"
#include "harness/pcscd.h"
#include "harness/process.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace krfs::harness {

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
    std::string id;  // 8 hex digits
    // Further options, e.g. {"--colour", "3"} or {"--life-cycle", "20"}.
    std::vector<std::string> more;
};

// Writes a fresh token's state to `path` with `krfs-vtoken init` (replacing
// any file there); throws std::runtime_error with the program's output if
// it fails.
void initToken(const std::string& path, const TokenInit& init);
// A state file as JSON (see `krfs-vtoken --help` for its form).
nlohmann::json readState(const std::string& path);

struct VTokenOptions {
    // The answer to reset, hex. T=1, no historical bytes. Unused when the
    // token is served from a state file, which knows its own.
    std::string atr = "3B 80 80 01 01";
    // A command/response transcript in the text form of `krfs-vtoken --help`
    // ("order ordered" or "order keyed", then "COMMAND -> RESPONSE" lines).
    // Empty: every command gets 6D 00.
    std::string script;
    // Present in the reader but never powers up: pcscd reports it mute.
    bool mute = false;

    // Serve the token kept in this state file; the card writes every change
    // back to it.
    std::string stateFile;
    // Or make a token first, in the VToken's own directory, and serve it.
    std::optional<TokenInit> init;
    // More `serve` options, such as the fault knobs:
    // {"--refuse", "00B0=6A82", "--mute-after", "3", "--assume-verified", "01"}.
    std::vector<std::string> serveArgs;
};

// Starts the card and returns once pcscd shows it in the reader (present
// with its ATR, or mute). Stops the process when destroyed; its log is shown
// when the test has failed.
class VToken {
public:
    VToken(const Pcscd& pcscd, int slot = 0, VTokenOptions options = {},
           milliseconds deadline = kDeadline);
    ~VToken();
    VToken(const VToken&) = delete;
    VToken& operator=(const VToken&) = delete;

    const std::string& reader() const { return reader_; }
    // The card's ATR: the script card's option, or, for a stored token, what
    // pcscd read from it.
    Bytes atr() const { return atr_; }

    // The state file served (empty for a script card), and its content now:
    // the card side of what a test did.
    const std::string& statePath() const { return statePath_; }
    nlohmann::json state() const { return readState(statePath_); }

    // Drops the vpcd connection, as pulling the card out, and returns once
    // the reader shows empty.
    void vanish(milliseconds deadline = kDeadline);
    // Puts the card back after vanish() and returns once the reader shows it.
    void comeBack(milliseconds deadline = kDeadline);

    std::string log() const { return process_->log(); }
    pid_t pid() const { return process_->pid(); }

private:
    void waitInReader(milliseconds deadline);

    std::string reader_;
    VTokenOptions options_;
    TempDir dir_;
    std::string statePath_;
    Bytes atr_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace krfs::harness
