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

void initToken(const std::string& path, const TokenInit& init) {
    std::vector<std::string> argv{KRFS_VTOKEN_PATH, "init",       "--state", path,
                                  "--dialect",      init.dialect, "--force"};
    if (init.dialect == "pro") argv.insert(argv.end(), {"--model", init.model});
    if (init.fips) argv.push_back("--fips");
    const std::pair<const char*, const std::string*> values[] = {{"--label", &init.label},
                                                                 {"--user-pin", &init.userPin},
                                                                 {"--admin-pin", &init.adminPin},
                                                                 {"--id", &init.id}};
    for (const auto& [option, value] : values)
        if (!value->empty()) argv.insert(argv.end(), {option, *value});
    argv.insert(argv.end(), init.more.begin(), init.more.end());

    TempDir dir("krfs-vtoken-init");
    ChildProcess init_(argv, dir.file("init.log"));
    if (!init_.waitExit() || !init_.exitedWith(0))
        throw std::runtime_error("krfs-vtoken init failed:\n" + init_.log());
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
    if (options_.init && !options_.stateFile.empty())
        throw std::invalid_argument("VToken: a state file or an init, not both");
    // A card left by an earlier VToken in this slot shows until pcscd's next
    // poll; wait it out so readiness below cannot mistake it for ours.
    if (!readerEmpty(readerState(reader_)))
        waitForReader(reader_, readerEmpty, "the slot to be free", deadline);
    std::vector<std::string> argv{KRFS_VTOKEN_PATH, "serve", "--port",
                                  std::to_string(Pcscd::port(slot)), "--verbose"};
    statePath_ = options_.stateFile;
    if (options_.init) {
        statePath_ = dir_.file("token.json");
        initToken(statePath_, *options_.init);
    }
    if (statePath_.empty()) {
        argv.insert(argv.end(), {"--atr", options_.atr});
        if (!options_.script.empty()) {
            writeFile(dir_.file("script"), options_.script);
            argv.insert(argv.end(), {"--script", dir_.file("script")});
        }
    } else {
        argv.insert(argv.end(), {"--state", statePath_});
    }
    argv.insert(argv.end(), options_.serveArgs.begin(), options_.serveArgs.end());
    if (options_.mute) argv.push_back("--mute");
    process_ = std::make_unique<ChildProcess>(argv, dir_.file("vtoken.log"));
    waitInReader(deadline);
    atr_ = statePath_.empty() ? parseHex(options_.atr) : readerState(reader_).atr;
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
