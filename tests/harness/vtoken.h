// A krfs-vtoken process sitting in a vpcd reader of a private pcscd.
#pragma once

#include "harness/pcsc.h"
#include "harness/pcscd.h"
#include "harness/process.h"

#include <memory>
#include <string>

namespace krfs::harness {

struct VTokenOptions {
    // The answer to reset, hex. T=1, no historical bytes.
    std::string atr = "3B 80 80 01 01";
    // A command/response transcript in the text form of `krfs-vtoken --help`
    // ("order ordered" or "order keyed", then "COMMAND -> RESPONSE" lines).
    // Empty: every command gets 6D 00.
    std::string script;
    // Present in the reader but never powers up: pcscd reports it mute.
    bool mute = false;
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
    Bytes atr() const;

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
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace krfs::harness
