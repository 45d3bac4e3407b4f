// A private pcscd with vpcd readers, for one test.
#pragma once

#include "harness/process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace krfs::harness {

// Starts `pcscd --foreground` on a reader configuration of its own, waits
// until it answers with all its readers, and stops it when destroyed. Its
// log goes to a file shown when the test has failed.
//
// It needs the private namespaces of harness/main.cpp: pcscd owns
// /run/pcscd and the vpcd ports.
//
// A test of "no pcscd running" needs no object at all: within the private
// namespace nothing answers until a Pcscd starts (or after stop()).
class Pcscd {
public:
    // The friendly name vpcd readers get; pcscd appends "00 <slot>".
    static constexpr const char* kReaderBase = "Virtual PCD";
    // vpcd slots per reader configuration line.
    static constexpr int kSlots = 2;

    // `channels` vpcd configurations, each giving two readers. 0 configures
    // none; more than 1 is refused: vpcd 0.8 keeps its slots in one table
    // for the whole driver, so a second channel aliases the first one's
    // slots and pcscd shows each card in two readers.
    explicit Pcscd(int channels = 1, milliseconds deadline = kDeadline);
    ~Pcscd();
    Pcscd(const Pcscd&) = delete;
    Pcscd& operator=(const Pcscd&) = delete;

    // The reader of vpcd slot 0 or 1, e.g. "Virtual PCD 00 01".
    static std::string readerName(int slot);
    // The TCP port a card dials to sit in that slot.
    static std::uint16_t port(int slot);

    int channels() const { return channels_; }
    // The readers this pcscd was configured with, in slot order.
    std::vector<std::string> readers() const;
    const std::string& dir() const { return dir_.path(); }
    std::string log() const;
    bool running();

    // Stops pcscd now (SIGTERM, then SIGKILL); later calls do nothing.
    void stop();

private:
    int channels_;
    TempDir dir_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace krfs::harness
