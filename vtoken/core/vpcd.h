// The card end of a vpcd reader slot: a TCP client that the vpcd driver in
// pcscd talks to. Each message is a 2-byte big-endian length and a payload;
// a 1-byte payload is a contact event, anything longer a command APDU.
#pragma once

#include "core/card.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace vtoken {

namespace vpcd {

enum Control : unsigned char { kPowerOff = 0, kPowerOn = 1, kReset = 2, kAtr = 4 };

// The first port of the first reader; the second slot listens on the next.
constexpr std::uint16_t kDefaultPort = 0x8C7B;

// One frame on the wire; throws std::length_error above 65535 bytes.
Bytes frame(const Bytes& payload);

// Splits a byte stream into payloads, whatever the chunks it arrives in.
class FrameDecoder {
public:
    void feed(const unsigned char* data, std::size_t size);
    // The next complete payload, if one has arrived.
    std::optional<Bytes> next();

private:
    Bytes pending_;
};

// An over-long answer to reset: vpcd reports the card present, but the
// driver cannot hand the ATR to pcscd, so every power-up fails and pcscd
// marks the card mute. An empty ATR instead makes vpcd drop the connection.
constexpr std::size_t kMuteAtrLength = 34;

// What the card answers to one payload from vpcd; nothing for contact
// events other than the ATR request. A card's NoAnswer passes through.
std::optional<Bytes> answer(ICard& card, const Bytes& payload, bool mute);

}  // namespace vpcd

// Serves a card on a vpcd port until stopped. It dials until the port is up
// and dials again when vpcd drops the connection.
//
// stop(), vanish(), comeBack() and setMute() are safe to call from another
// thread or from a signal handler.
class VpcdLink {
public:
    VpcdLink(ICard& card, std::string host, std::uint16_t port);
    ~VpcdLink();
    VpcdLink(const VpcdLink&) = delete;
    VpcdLink& operator=(const VpcdLink&) = delete;

    // Blocks until stop(). Throws std::system_error on a failure of the
    // host (not of the connection, which it redials).
    void run();

    void stop() { set(stop_, true); }
    // Drops the connection, as if the card left the reader, and stays away.
    void vanish() { set(present_, false); }
    // Dials again after vanish().
    void comeBack() { set(present_, true); }
    void setMute(bool mute) { set(mute_, mute); }

    // Exchanges and events go here when set (the program's --verbose).
    void setLog(std::FILE* log) { log_ = log; }
    // Whether the card is connected to vpcd now.
    bool connected() const { return connected_; }

private:
    void set(std::atomic<bool>& flag, bool value);
    void wake();
    // Waits on the connection (if any) and the wake pipe.
    bool waitReadable(int timeoutMs);
    bool dial();
    void hangUp();
    bool serveReadable();
    void log(const char* what, const Bytes& bytes);

    ICard& card_;
    std::string host_;
    std::uint16_t port_;
    int socket_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stop_{false};
    std::atomic<bool> present_{true};
    std::atomic<bool> mute_{false};
    std::atomic<bool> connected_{false};
    std::FILE* log_ = nullptr;
    vpcd::FrameDecoder decoder_;
    // When a card that went mute shows up again (run's thread only).
    std::optional<std::chrono::steady_clock::time_point> backAt_;
};

}  // namespace vtoken
