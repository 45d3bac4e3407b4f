#include "harness/vtoken.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cctype>
#include <iostream>
#include <stdexcept>
#include <vector>

#ifndef KRFS_VTOKEN_PATH
#error "KRFS_VTOKEN_PATH names the krfs-vtoken program"
#endif

namespace krfs::harness {

namespace {

Bytes parseHex(const std::string& text) {
    Bytes out;
    std::string digits;
    for (char c : text)
        if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

}  // namespace

VToken::VToken(const Pcscd& pcscd, int slot, VTokenOptions options, milliseconds deadline)
    : reader_(Pcscd::readerName(slot)), options_(std::move(options)), dir_("krfs-vtoken") {
    if (slot < 0 || slot >= pcscd.channels() * Pcscd::kSlots)
        throw std::invalid_argument("VToken: pcscd has no reader for slot " + std::to_string(slot));
    // A card left by an earlier VToken in this slot shows until pcscd's next
    // poll; wait it out so readiness below cannot mistake it for ours.
    if (!readerEmpty(readerState(reader_)))
        waitForReader(reader_, readerEmpty, "the slot to be free", deadline);
    std::vector<std::string> argv{
        KRFS_VTOKEN_PATH, "serve",      "--port",   std::to_string(Pcscd::port(slot)),
        "--atr",          options_.atr, "--verbose"};
    if (!options_.script.empty()) {
        writeFile(dir_.file("script"), options_.script);
        argv.insert(argv.end(), {"--script", dir_.file("script")});
    }
    if (options_.mute) argv.push_back("--mute");
    process_ = std::make_unique<ChildProcess>(argv, dir_.file("vtoken.log"));
    waitInReader(deadline);
}

VToken::~VToken() {
    // A card that crashes, leaks under the sanitizers or ignores SIGTERM
    // fails the test that used it.
    bool graceful = process_->stop();
    if (!graceful || !process_->exitedWith(0))
        ADD_FAILURE() << "krfs-vtoken in \"" << reader_ << "\" did not exit cleanly on SIGTERM";
    if (::testing::Test::HasFailure())
        std::cerr << "---- krfs-vtoken log (" << reader_ << ") ----\n" << log() << "----\n";
}

Bytes VToken::atr() const { return parseHex(options_.atr); }

void VToken::waitInReader(milliseconds deadline) {
    try {
        if (options_.mute) {
            waitForReader(reader_, cardMute, "a mute card", deadline);
        } else {
            waitForReader(reader_, cardPresent, "the card", deadline);
        }
    } catch (const std::exception& e) {
        if (!process_->running())
            throw std::runtime_error(std::string(e.what()) + "; krfs-vtoken ended, its log:\n" +
                                     log());
        throw;
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
