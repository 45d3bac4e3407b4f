#include "core/vpcd.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace vtoken {

namespace vpcd {

Bytes frame(const Bytes& payload) {
    if (payload.size() > 0xFFFF) throw std::length_error("vpcd: payload above 65535 bytes");
    Bytes out;
    out.reserve(payload.size() + 2);
    out.push_back(static_cast<unsigned char>(payload.size() >> 8));
    out.push_back(static_cast<unsigned char>(payload.size() & 0xFF));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

void FrameDecoder::feed(const unsigned char* data, std::size_t size) {
    pending_.insert(pending_.end(), data, data + size);
}

std::optional<Bytes> FrameDecoder::next() {
    if (pending_.size() < 2) return std::nullopt;
    std::size_t length = std::size_t{pending_[0]} << 8 | pending_[1];
    if (pending_.size() < 2 + length) return std::nullopt;
    Bytes payload(pending_.begin() + 2, pending_.begin() + 2 + length);
    pending_.erase(pending_.begin(), pending_.begin() + 2 + length);
    return payload;
}

std::optional<Bytes> answer(ICard& card, const Bytes& payload, bool mute) {
    if (payload.empty()) return std::nullopt;
    if (payload.size() > 1) return card.process(payload);
    switch (payload[0]) {
        case kPowerOff:
            card.powerOff();
            return std::nullopt;
        case kPowerOn:
            card.powerOn();
            return std::nullopt;
        case kReset:
            card.reset();
            return std::nullopt;
        case kAtr:
            if (mute) {
                Bytes atr(kMuteAtrLength, 0x00);
                atr[0] = 0x3B;
                return atr;
            }
            return card.atr();
        default:
            return std::nullopt;
    }
}

}  // namespace vpcd

namespace {

// How often to dial while the port is not up yet.
constexpr int kRedialMs = 50;
// pcscd polls a reader for its card every 400 ms.
constexpr std::chrono::milliseconds kMuteAbsence{1200};

[[noreturn]] void raiseErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool sendAll(int fd, const Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

VpcdLink::VpcdLink(ICard& card, std::string host, std::uint16_t port)
    : card_(card), host_(std::move(host)), port_(port) {
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) raiseErrno("vpcd link: pipe");
}

VpcdLink::~VpcdLink() {
    if (socket_ >= 0) ::close(socket_);
    ::close(wake_[0]);
    ::close(wake_[1]);
}

void VpcdLink::set(std::atomic<bool>& flag, bool value) {
    flag.store(value);
    wake();
}

void VpcdLink::wake() {
    unsigned char byte = 1;
    // A full pipe already holds a wake-up; nothing is lost by dropping this one.
    [[maybe_unused]] ssize_t n = ::write(wake_[1], &byte, 1);
}

void VpcdLink::run() {
    while (!stop_) {
        if (backAt_ && std::chrono::steady_clock::now() >= *backAt_) {
            backAt_.reset();
            present_ = true;
        }
        if (backAt_) {
            waitReadable(kRedialMs);
            continue;
        }
        if (present_ && socket_ < 0 && !dial()) {
            waitReadable(kRedialMs);
            continue;
        }
        if (!present_ && socket_ >= 0) hangUp();
        if (waitReadable(-1) && socket_ >= 0) serveReadable();
    }
    hangUp();
}

bool VpcdLink::waitReadable(int timeoutMs) {
    pollfd fds[2] = {{wake_[0], POLLIN, 0}, {socket_, POLLIN, 0}};
    int n = ::poll(fds, socket_ >= 0 ? 2 : 1, timeoutMs);
    if (n < 0) {
        if (errno == EINTR) return false;
        raiseErrno("vpcd link: poll");
    }
    if (fds[0].revents) {
        unsigned char drain[64];
        while (::read(wake_[0], drain, sizeof drain) > 0) {
        }
    }
    return socket_ >= 0 && fds[1].revents != 0;
}

bool VpcdLink::dial() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    std::string service = std::to_string(port_);
    if (::getaddrinfo(host_.c_str(), service.c_str(), &hints, &found) != 0) return false;
    for (addrinfo* a = found; a != nullptr && socket_ < 0; a = a->ai_next) {
        int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        if (::connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
            int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            socket_ = fd;
        } else {
            ::close(fd);
        }
    }
    ::freeaddrinfo(found);
    if (socket_ < 0) return false;
    connected_ = true;
    if (log_) std::fprintf(log_, "connected to %s:%u\n", host_.c_str(), unsigned{port_});
    return true;
}

void VpcdLink::hangUp() {
    if (socket_ < 0) return;
    // Leaving the reader takes the power away; before the close, so that
    // whoever sees the connection end sees a card without power.
    card_.powerOff();
    ::close(socket_);
    socket_ = -1;
    connected_ = false;
    decoder_ = vpcd::FrameDecoder{};
    if (log_) std::fprintf(log_, "disconnected\n");
}

bool VpcdLink::serveReadable() {
    unsigned char buffer[4096];
    ssize_t n = ::recv(socket_, buffer, sizeof buffer, 0);
    // vpcd writes a frame's length and payload separately, so with delayed
    // acknowledgements every command would wait out the peer's Nagle timer
    // (about 40 ms). Acknowledge at once; the flag wears off, so set it anew.
    int one = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) {
        // vpcd closed the slot (pcscd stopped); dial again while present.
        hangUp();
        return false;
    }
    decoder_.feed(buffer, static_cast<std::size_t>(n));
    while (auto payload = decoder_.next()) {
        log(">", *payload);
        std::optional<Bytes> reply;
        try {
            reply = vpcd::answer(card_, *payload, mute_);
        } catch (const NoAnswer& e) {
            if (log_) std::fprintf(log_, "no answer: %s\n", e.what());
            // vpcd waits for an answer without a timeout, so a card that keeps
            // silent on the line would hold pcscd forever. Instead the card
            // drops the line (the pending transmission ends with no bytes)
            // and, if it went mute, comes back unable to power up, as pcscd
            // sees a card that stopped answering.
            if (e.why() == NoAnswer::Why::Mute) {
                mute_ = true;
                // Away long enough for pcscd's presence poll to notice.
                backAt_ = std::chrono::steady_clock::now() + kMuteAbsence;
            }
            present_ = false;
            hangUp();
            return false;
        }
        if (!reply) continue;
        log("<", *reply);
        if (!sendAll(socket_, vpcd::frame(*reply))) {
            hangUp();
            return false;
        }
    }
    return true;
}

void VpcdLink::log(const char* what, const Bytes& bytes) {
    if (!log_) return;
    std::fprintf(log_, "%s %s\n", what, toHex(bytes).c_str());
    std::fflush(log_);
}

}  // namespace vtoken
