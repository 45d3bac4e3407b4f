// The pieces every virtual token shares: hex and transcripts, fault knobs, the
// in-process sender and the vpcd framing.
#include "component/pro/pro_token.h"
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

// Answers its INS and 01 02 90 00; counts what reached it.
class EchoCard : public vtoken::ICard {
public:
    int processed = 0, powerOns = 0;
    Bytes atr() const override { return {0x3B, 0x00}; }
    Bytes process(const Bytes& c) override {
        ++processed;
        return {c[1], 0x01, 0x02, 0x90, 0x00};
    }
    std::optional<Bytes> control(unsigned int code, const Bytes&) override {
        if (code == 7) return Bytes{1, 2, 3};
        return std::nullopt;
    }
    void powerOn() override { ++powerOns; }
};

TEST(VTokenText, HexScriptsAndFaultRulesRefuseWhatTheyCannotRead) {
    EXPECT_EQ(fromHex("3b8A 00:ff\t10"), (Bytes{0x3B, 0x8A, 0x00, 0xFF, 0x10}));
    EXPECT_EQ(vtoken::toHex({0x0A, 0xF0, 0x00}), "0A F0 00");
    for (const char* bad : {"3B8", "3G", "0x3B", "3 B"})
        EXPECT_THROW(fromHex(bad), std::invalid_argument) << bad;

    const auto script = vtoken::Script::parse(
        "# a transcript\n\norder ordered\n  00 A4 00 00 02 3F 00 -> 90 00   # select MF\r\n"
        "00B0000004->0102030490 00");
    EXPECT_EQ(script.order, vtoken::Script::Order::Ordered);
    ASSERT_EQ(script.exchanges.size(), 2u);
    EXPECT_EQ(script.exchanges[1].command, fromHex("00 B0 00 00 04"));
    EXPECT_EQ(script.exchanges[1].response, fromHex("01 02 03 04 90 00"));
    EXPECT_EQ(vtoken::Script::parse("00 A4 00 00 -> 90 00").order, vtoken::Script::Order::Keyed);
    const std::pair<const char*, const char*> badScripts[] = {
        {"00 A4 00 00 -> 90 00\n00 A4 00 00 90 00\n", "line 2"},
        {"#\norder sometimes\n", "line 2"},
        {"00 A4 00 00 -> 9\n", "line 1"},
        {"00 A4 00 -> 90 00\n", "header"},
        {"00 A4 00 00 -> 90\n", "status word"},
    };
    for (const auto& [text, says] : badScripts) {
        try {
            vtoken::Script::parse(text);
            ADD_FAILURE() << text;
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(says), std::string::npos) << e.what();
        }
    }

    const auto refusal = vtoken::Faults::parseRefusal("00B0=6A82");
    EXPECT_EQ(refusal.prefix, fromHex("00 B0"));
    EXPECT_EQ(refusal.status, 0x6A82);
    EXPECT_EQ(vtoken::Faults::parseTruncation("00CA0181=10").keep, 10u);
    for (const char* bad : {"B0=6A82", "00B0", "00B0=6A", "00B0=6A8200", "0xB0=6A82"})
        EXPECT_THROW(vtoken::Faults::parseRefusal(bad), std::invalid_argument) << bad;
    for (const char* bad : {"00CA=", "00CA=-1", "00CA=x", "00CA=70000"})
        EXPECT_THROW(vtoken::Faults::parseTruncation(bad), std::invalid_argument) << bad;
}

TEST(ScriptCard, OrderedAnswersInTurnAndAStrayCommandDoesNotAdvance) {
    vtoken::ScriptCard card({0x3B, 0x00}, vtoken::Script::parse("order ordered\n"
                                                                "00 84 00 00 01 -> 01 90 00\n"
                                                                "00 20 00 01 00 -> 63 C3\n"));
    const Bytes challenge = fromHex("00 84 00 00 01"), verify = fromHex("00 20 00 01 00");
    EXPECT_EQ(card.process(verify), fromHex("6D 00")) << "out of turn";
    EXPECT_EQ(card.process(challenge), fromHex("01 90 00"));
    EXPECT_EQ(card.process(verify), fromHex("63 C3"));
    card.reset();
    EXPECT_EQ(card.process(challenge), fromHex("6D 00")) << "used up, whatever the contacts do";
}

TEST(FaultyCard, RefusesCutsGoesMuteUntilPoweredAndVanishesOnce) {
    EchoCard card;
    vtoken::Faults f;
    f.refuse.push_back({fromHex("00 B0"), 0x6982});
    f.truncate.push_back({fromHex("00 CA 01"), 2});
    f.muteAfter = 4;
    f.vanishAt = 6;
    vtoken::FaultyCard faulty(card, f);
    int vanished = 0;
    faulty.setOnVanish([&] { ++vanished; });
    auto why = [&](const char* command) {
        try {
            faulty.process(fromHex(command));
        } catch (const vtoken::NoAnswer& e) {
            return e.why() == vtoken::NoAnswer::Why::Mute ? "mute" : "gone";
        }
        return "answered";
    };
    EXPECT_EQ(faulty.process(fromHex("00 B0 00 00 01")), fromHex("69 82"));
    EXPECT_EQ(card.processed, 0) << "a refused command never reaches the card";
    EXPECT_EQ(faulty.process(fromHex("00 CA 01 81 00")), fromHex("CA 01"));
    EXPECT_EQ(faulty.process(fromHex("00 CA 02 81 00")), fromHex("CA 01 02 90 00"));
    EXPECT_STREQ(why("00 84 00 00 08"), "answered");
    EXPECT_STREQ(why("00 84 00 00 08"), "mute");
    faulty.reset();
    EXPECT_STREQ(why("00 84 00 00 08"), "gone");
    EXPECT_EQ(vanished, 1);
    faulty.powerOn();
    EXPECT_STREQ(why("00 84 00 00 08"), "answered") << "back in the reader";
}

TEST(CardSender, PowersOnCutsAnswersAndFailsAsPcscWould) {
    EchoCard card;
    vtoken::CardSender sender(card);
    EXPECT_EQ(card.powerOns, 1);
    EXPECT_EQ(sender.atr(), card.atr());
    TBytes response(5, 0xEE), small(4), out(8);
    sender.send(fromHex("00 B0 00 00 03"), response);
    EXPECT_EQ(response, fromHex("B0 01 02 90 00")) << "exactly the room it needs";
    EXPECT_THROW(sender.send(fromHex("00 B0 00 00 03"), small), vtoken::ResponseTooLong);
    sender.control(7, {}, out);
    EXPECT_EQ(out, (TBytes{1, 2, 3}));
    EXPECT_EQ(codeOf([&] { sender.control(8, {}, out); }), 0x86E0FACEL);

    vtoken::Faults f;
    f.muteAfter = 0;
    vtoken::FaultyCard mute(card, f);
    vtoken::CardSender muteSender(mute);
    EXPECT_EQ(codeOf([&] { muteSender.send(fromHex("00 84 00 00 08"), response); }),
              vtoken::CardSender::kNoAnswerCode);
    f.muteAfter.reset();
    f.vanishAt = 1;
    vtoken::FaultyCard gone(card, f);
    vtoken::CardSender goneSender(gone);
    EXPECT_EQ(codeOf([&] { goneSender.send(fromHex("00 84 00 00 08"), response); }),
              vtoken::CardSender::kRemovedCode);
}

TEST(Vpcd, FramesAndTheirDecodingFromAnyChunking) {
    EXPECT_EQ(vtoken::vpcd::frame({0x04}), (Bytes{0x00, 0x01, 0x04}));
    EXPECT_NO_THROW(vtoken::vpcd::frame(Bytes(0xFFFF)));
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
    // Only the ATR request is answered among contact events; two bytes are a
    // command even if the first is a control value. Mute: an ATR too long for
    // any reader (ISO 7816-3 caps it at 33 bytes).
    EchoCard card;
    EXPECT_FALSE(vtoken::vpcd::answer(card, {vtoken::vpcd::kPowerOn}, false));
    EXPECT_EQ(card.powerOns, 1);
    EXPECT_EQ(vtoken::vpcd::answer(card, {vtoken::vpcd::kAtr}, false), card.atr());
    EXPECT_EQ(vtoken::vpcd::answer(card, {0x04, 0xB0}, false), fromHex("B0 01 02 90 00"));
    EXPECT_EQ(vtoken::vpcd::answer(card, {vtoken::vpcd::kAtr}, true)->size(), 34u);
}

}  // namespace
}  // namespace krfs::component
