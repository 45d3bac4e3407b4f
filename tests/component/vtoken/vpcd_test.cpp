#include "core/vpcd.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace {

using vtoken::Bytes;
namespace vpcd = vtoken::vpcd;

class RecordingCard : public vtoken::ICard {
public:
    std::atomic<int> powerOns{0}, powerOffs{0}, resets{0}, commands{0};

    Bytes atr() const override { return {0x3B, 0x80, 0x80, 0x01, 0x01}; }
    Bytes process(const Bytes& command) override {
        ++commands;
        // Echoes CLA and INS.
        return Bytes{command.at(0), command.at(1), 0x90, 0x00};
    }
    void powerOn() override { ++powerOns; }
    void powerOff() override { ++powerOffs; }
    void reset() override { ++resets; }
};

TEST(VpcdFrame, LengthIsTwoBytesBigEndian) {
    EXPECT_EQ(vpcd::frame({}), (Bytes{0x00, 0x00}));
    EXPECT_EQ(vpcd::frame({0x04}), (Bytes{0x00, 0x01, 0x04}));
    Bytes big(0x0102, 0xAB);
    Bytes framed = vpcd::frame(big);
    ASSERT_EQ(framed.size(), 0x0104u);
    EXPECT_EQ(framed[0], 0x01);
    EXPECT_EQ(framed[1], 0x02);
    EXPECT_EQ(framed.back(), 0xAB);
    EXPECT_NO_THROW(vpcd::frame(Bytes(0xFFFF)));
    EXPECT_THROW(vpcd::frame(Bytes(0x10000)), std::length_error);
}

TEST(VpcdFrame, DecoderReassemblesFramesFromAnyChunking) {
    Bytes big(300);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i);
    Bytes stream = vpcd::frame({0x01});
    for (auto b : vpcd::frame(big)) stream.push_back(b);
    for (auto b : vpcd::frame({})) stream.push_back(b);
    for (auto b : vpcd::frame({0x00, 0xA4})) stream.push_back(b);

    for (std::size_t chunk : {std::size_t{1}, std::size_t{3}, stream.size()}) {
        vpcd::FrameDecoder decoder;
        std::vector<Bytes> payloads;
        for (std::size_t at = 0; at < stream.size(); at += chunk) {
            decoder.feed(stream.data() + at, std::min(chunk, stream.size() - at));
            while (auto p = decoder.next()) payloads.push_back(*p);
        }
        ASSERT_EQ(payloads.size(), 4u) << "chunk " << chunk;
        EXPECT_EQ(payloads[0], Bytes{0x01});
        EXPECT_EQ(payloads[1], big);
        EXPECT_TRUE(payloads[2].empty());
        EXPECT_EQ(payloads[3], (Bytes{0x00, 0xA4}));
        EXPECT_FALSE(decoder.next());
    }
}

TEST(VpcdAnswer, ContactEventsReachTheCardAndOnlyTheAtrRequestIsAnswered) {
    RecordingCard card;
    EXPECT_FALSE(vpcd::answer(card, {vpcd::kPowerOn}, false));
    EXPECT_FALSE(vpcd::answer(card, {vpcd::kReset}, false));
    EXPECT_FALSE(vpcd::answer(card, {vpcd::kPowerOff}, false));
    EXPECT_FALSE(vpcd::answer(card, {0x03}, false));
    EXPECT_FALSE(vpcd::answer(card, {}, false));
    EXPECT_EQ(card.powerOns, 1);
    EXPECT_EQ(card.resets, 1);
    EXPECT_EQ(card.powerOffs, 1);
    EXPECT_EQ(card.commands, 0);
    EXPECT_EQ(vpcd::answer(card, {vpcd::kAtr}, false), card.atr());
    // Two bytes are a command, even if the first is a control value.
    EXPECT_EQ(vpcd::answer(card, {0x04, 0xB0}, false), (Bytes{0x04, 0xB0, 0x90, 0x00}));
    EXPECT_EQ(card.commands, 1);
}

TEST(VpcdAnswer, MuteAnswersAnAtrTooLongForAnyReader) {
    RecordingCard card;
    auto atr = vpcd::answer(card, {vpcd::kAtr}, true);
    ASSERT_TRUE(atr);
    EXPECT_EQ(atr->size(), vpcd::kMuteAtrLength);
    EXPECT_GT(atr->size(), 33u) << "ISO 7816-3 caps an ATR at 33 bytes";
    EXPECT_EQ(vpcd::answer(card, {0x00, 0xA4}, true), (Bytes{0x00, 0xA4, 0x90, 0x00}));
}

// The reader end, as the vpcd driver plays it: a loopback listener.
class FakeVpcd {
public:
    explicit FakeVpcd(bool listening = true) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("fake vpcd: bind");
        port_ = ntohs(address.sin_port);
        if (listening) listen();
    }
    ~FakeVpcd() {
        if (peer_ >= 0) ::close(peer_);
        ::close(listener_);
    }

    std::uint16_t port() const { return port_; }
    void listen() { ::listen(listener_, 4); }

    // Waits for the card to dial in.
    bool accept() {
        if (peer_ >= 0) ::close(peer_);
        peer_ = -1;
        if (!readable(listener_)) return false;
        peer_ = ::accept(listener_, nullptr, nullptr);
        return peer_ >= 0;
    }
    void hangUp() {
        ::close(peer_);
        peer_ = -1;
    }
    void send(const Bytes& payload) {
        Bytes framed = vpcd::frame(payload);
        ASSERT_EQ(::send(peer_, framed.data(), framed.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(framed.size()));
    }
    // The card's next reply, or nothing if the connection ended or stayed quiet.
    std::optional<Bytes> receive() {
        for (;;) {
            if (auto payload = decoder_.next()) return payload;
            if (!readable(peer_)) return std::nullopt;
            unsigned char buffer[512];
            ssize_t n = ::recv(peer_, buffer, sizeof buffer, 0);
            if (n <= 0) return std::nullopt;
            decoder_.feed(buffer, static_cast<std::size_t>(n));
        }
    }
    // True once the card closed its end (a reset if it closed with our
    // last frame unread).
    bool peerClosed() {
        unsigned char byte;
        if (!readable(peer_)) return false;
        ssize_t n = ::recv(peer_, &byte, 1, 0);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }

private:
    static bool readable(int fd) {
        pollfd p{fd, POLLIN, 0};
        return ::poll(&p, 1, 5000) == 1;
    }

    int listener_ = -1;
    int peer_ = -1;
    std::uint16_t port_ = 0;
    vpcd::FrameDecoder decoder_;
};

// Runs a link on its own thread for the length of a test.
class RunningLink {
public:
    RunningLink(vtoken::ICard& card, std::uint16_t port)
        : link(card, "127.0.0.1", port), thread_([this] { link.run(); }) {}
    ~RunningLink() {
        link.stop();
        thread_.join();
    }
    vtoken::VpcdLink link;

private:
    std::thread thread_;
};

TEST(VpcdLink, ServesAtrRequestsContactEventsAndCommands) {
    FakeVpcd reader;
    RecordingCard card;
    RunningLink running(card, reader.port());
    ASSERT_TRUE(reader.accept());

    reader.send({vpcd::kAtr});
    EXPECT_EQ(reader.receive(), card.atr());
    // No reply to power-on: the next frame back is the command's.
    reader.send({vpcd::kPowerOn});
    reader.send({0x80, 0xCA, 0x00, 0x00, 0x00});
    EXPECT_EQ(reader.receive(), (Bytes{0x80, 0xCA, 0x90, 0x00}));
    EXPECT_EQ(card.powerOns, 1);
    EXPECT_EQ(card.commands, 1);

    running.link.setMute(true);
    reader.send({vpcd::kAtr});
    auto atr = reader.receive();
    ASSERT_TRUE(atr);
    EXPECT_EQ(atr->size(), vpcd::kMuteAtrLength);
}

TEST(VpcdLink, DialsUntilThePortIsUp) {
    FakeVpcd reader(false);
    RecordingCard card;
    RunningLink running(card, reader.port());
    // Long enough for several refused dials.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_FALSE(running.link.connected());
    reader.listen();
    ASSERT_TRUE(reader.accept());
    reader.send({vpcd::kAtr});
    EXPECT_EQ(reader.receive(), card.atr());
}

TEST(VpcdLink, VanishHangsUpUntilComeBack) {
    FakeVpcd reader;
    RecordingCard card;
    RunningLink running(card, reader.port());
    ASSERT_TRUE(reader.accept());
    reader.send({vpcd::kPowerOn});

    running.link.vanish();
    EXPECT_TRUE(reader.peerClosed());
    EXPECT_GE(card.powerOffs, 1) << "leaving the reader takes the power away";

    running.link.comeBack();
    ASSERT_TRUE(reader.accept());
    reader.send({vpcd::kAtr});
    EXPECT_EQ(reader.receive(), card.atr());
}

TEST(VpcdLink, RedialsWhenTheReaderDropsTheConnection) {
    FakeVpcd reader;
    RecordingCard card;
    RunningLink running(card, reader.port());
    ASSERT_TRUE(reader.accept());
    reader.hangUp();
    ASSERT_TRUE(reader.accept());
    reader.send({0x00, 0xA4, 0x00, 0x00});
    EXPECT_EQ(reader.receive(), (Bytes{0x00, 0xA4, 0x90, 0x00}));
}

}  // namespace
