#include "harness/pcscd.h"

#include "harness/pcsc.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace krfs::harness {

namespace {

constexpr const char* kVpcdDriver = "/usr/lib/pcsc/drivers/serial/libifdvpcd.so";
constexpr std::uint16_t kFirstPort = 0x8C7B;
// pcscd creates its socket some milliseconds after it starts; look this often.
constexpr milliseconds kReadyPoll{10};

std::string pcscdProgram() {
    if (const char* path = std::getenv("KRFS_PCSCD"); path && *path) return path;
    // Often outside a non-root PATH.
    if (::access("/usr/sbin/pcscd", X_OK) == 0) return "/usr/sbin/pcscd";
    return "pcscd";
}

std::string readerConf(int channels) {
    std::string conf;
    for (int c = 0; c < channels; ++c) {
        char port[16];
        std::snprintf(port, sizeof port, "0x%04X", kFirstPort + Pcscd::kSlots * c);
        conf += std::string("FRIENDLYNAME \"") + Pcscd::kReaderBase + "\"\n" +
                "DEVICENAME   /dev/null:" + port + "\n" + "LIBPATH      " + kVpcdDriver + "\n" +
                "CHANNELID    " + port + "\n\n";
    }
    return conf;
}

}  // namespace

Pcscd::Pcscd(int channels, milliseconds deadline) : channels_(channels), dir_("krfs-pcscd") {
    if (channels < 0 || channels > 1)
        throw std::invalid_argument("Pcscd: 0 or 1 vpcd channels (vpcd aliases a second one)");
    std::string confDir = dir_.file("conf");
    ::mkdir(confDir.c_str(), 0755);
    if (channels > 0) writeFile(confDir + "/reader.conf", readerConf(channels));

    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{pcscdProgram(), "--foreground", "--debug", "-c", confDir},
        dir_.file("pcscd.log"));

    auto until = Clock::now() + deadline;
    const std::size_t wanted = readers().size();
    for (;;) {
        if (!process_->running())
            throw std::runtime_error("pcscd ended while starting; its log:\n" + log());
        LONG rv = tryEstablishContext();
        if (rv == SCARD_S_SUCCESS) {
            if (wanted == 0) return;
            if (listReaders().size() >= wanted) return;
        }
        if (Clock::now() >= until) {
            stop();
            throw std::runtime_error("pcscd not ready in time (last result " + pcscText(rv) +
                                     "); its log:\n" + log());
        }
        std::this_thread::sleep_for(kReadyPoll);
    }
}

Pcscd::~Pcscd() {
    stop();
    if (::testing::Test::HasFailure()) std::cerr << "---- pcscd log ----\n" << log() << "----\n";
}

std::string Pcscd::readerName(int slot) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, " 00 %02X", slot);
    return kReaderBase + std::string(suffix);
}

std::uint16_t Pcscd::port(int slot) { return static_cast<std::uint16_t>(kFirstPort + slot); }

std::vector<std::string> Pcscd::readers() const {
    std::vector<std::string> names;
    for (int slot = 0; slot < channels_ * kSlots; ++slot) names.push_back(readerName(slot));
    return names;
}

std::string Pcscd::log() const { return readFile(dir_.file("pcscd.log")); }

bool Pcscd::running() { return process_ && process_->running(); }

void Pcscd::stop() {
    if (process_) process_->stop();
}

}  // namespace krfs::harness
