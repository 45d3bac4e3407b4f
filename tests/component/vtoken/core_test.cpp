// The pieces every virtual token shares: transcripts, fault knobs, the
// in-process sender and the vpcd framing.
#include "component/vtoken/card_script.h"
#include "core/card_sender.h"
#include "core/faults.h"
#include "core/script_card.h"
#include "core/vpcd.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;

// Answers its INS and 01 02 90 00.
class EchoCard : public vtoken::ICard {
public:
    int powerOns = 0;
    Bytes atr() const override { return {0x3B, 0x00}; }
    Bytes process(const Bytes& c) override { return {c[1], 0x01, 0x02, 0x90, 0x00}; }
    std::optional<Bytes> control(unsigned int code, const Bytes&) override {
        return code == 7 ? std::optional<Bytes>(Bytes{1, 2, 3}) : std::nullopt;
    }
    void powerOn() override { ++powerOns; }
};

TEST(ScriptsAndKnobs, OrderedAnswersInTurnAndTextFormsAreCheckedWhole) {
    vtoken::ScriptCard card({0x3B, 0x00}, vtoken::Script::parse("order ordered # a comment\n"
                                                                "00 84 00 00 01 -> 01 90 00\n"
                                                                "00B0000004->0102030490 00\n"));
    const Bytes challenge = fromHex("00 84 00 00 01"), read = fromHex("00 B0 00 00 04");
    EXPECT_EQ(card.process(read), fromHex("6D 00")) << "out of turn";
    EXPECT_EQ(card.process(challenge), fromHex("01 90 00"));
    EXPECT_EQ(card.process(read), fromHex("01 02 03 04 90 00"));
    card.reset();
    EXPECT_EQ(card.process(challenge), fromHex("6D 00")) << "used up, whatever the contacts do";
    for (const char* bad : {"00 A4 00 -> 90 00", "00 A4 00 00 -> 90", "order sometimes"})
        EXPECT_THROW(vtoken::Script::parse(bad), std::invalid_argument) << bad;
    // The fault knobs' forms the command line refuses.
    for (const char* bad : {"B0=6A82", "00B0", "00B0=6A", "00B0=6A8200", "0xB0=6A82"})
        EXPECT_THROW(vtoken::Faults::parseRefusal(bad), std::invalid_argument) << bad;
    for (const char* bad : {"00CA=", "00CA=-1", "00CA=x", "00CA=70000"})
        EXPECT_THROW(vtoken::Faults::parseTruncation(bad), std::invalid_argument) << bad;
}

TEST(CardSender, PowersOnCutsAnswersAndFailsAsPcscWould) {
    EchoCard card;
    vtoken::CardSender sender(card);
    EXPECT_EQ(card.powerOns, 1);
    TBytes response(5, 0xEE), small(4), out(8);
    sender.send(fromHex("00 B0 00 00 03"), response);
    EXPECT_EQ(response, fromHex("B0 01 02 90 00")) << "exactly the room it needs";
    EXPECT_THROW(sender.send(fromHex("00 B0 00 00 03"), small), vtoken::ResponseTooLong);
    sender.control(7, {}, out);
    EXPECT_EQ(out, (TBytes{1, 2, 3}));
    EXPECT_EQ(codeOf([&] { sender.control(8, {}, out); }), 0x86E0FACEL);
    for (const bool mute : {true, false}) {
        vtoken::Faults f;
        (mute ? f.muteAfter : f.vanishAt) = mute ? 0 : 1;
        vtoken::FaultyCard faulty(card, f);
        vtoken::CardSender faultySender(faulty);
        EXPECT_EQ(codeOf([&] { faultySender.send(fromHex("00 84 00 00 08"), response); }),
                  mute ? vtoken::CardSender::kNoAnswerCode : vtoken::CardSender::kRemovedCode);
    }
}

TEST(Vpcd, FramesDecodeFromAnyChunking) {
    EXPECT_EQ(vtoken::vpcd::frame({0x04}), (Bytes{0x00, 0x01, 0x04}));
    EXPECT_THROW(vtoken::vpcd::frame(Bytes(0x10000)), std::length_error);
    Bytes big(0x0102);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i);
    const std::vector<Bytes> payloads{{0x01}, big, {}, {0x00, 0xA4}};
    Bytes stream;
    for (const auto& p : payloads) vtoken::append(stream, vtoken::vpcd::frame(p));
    for (std::size_t chunk : {std::size_t{1}, std::size_t{3}, stream.size()}) {
        vtoken::vpcd::FrameDecoder decoder;
        std::vector<Bytes> out;
        for (std::size_t at = 0; at < stream.size(); at += chunk) {
            decoder.feed(stream.data() + at, std::min(chunk, stream.size() - at));
            while (auto p = decoder.next()) out.push_back(*p);
        }
        EXPECT_EQ(out, payloads) << "chunk " << chunk;
    }
    // Two bytes are a command even if the first is a control value.
    EchoCard card;
    EXPECT_EQ(vtoken::vpcd::answer(card, {0x04, 0xB0}, false), fromHex("B0 01 02 90 00"));
}

}  // namespace
}  // namespace krfs::component
