// Fault knobs and how the in-process face reports a card that misbehaves.
#include "core/card_sender.h"
#include "core/faults.h"
#include "libapdu/exception.h"

#include <gtest/gtest.h>

namespace {

using vtoken::Bytes;
using vtoken::Faults;
using vtoken::fromHex;

// Answers 90 00 with the command's INS; counts what reached it.
class EchoCard : public vtoken::ICard {
public:
    int processed = 0;
    Bytes atr() const override { return {0x3B, 0x00}; }
    Bytes process(const Bytes& c) override {
        ++processed;
        return {c[1], 0x01, 0x02, 0x90, 0x00};
    }
    std::optional<Bytes> control(unsigned int code, const Bytes&) override {
        if (code == 7) return Bytes{1, 2, 3};
        return std::nullopt;
    }
};

TEST(FaultRules, CommandLineForms) {
    auto r = Faults::parseRefusal("00B0=6A82");
    EXPECT_EQ(r.prefix, fromHex("00 B0"));
    EXPECT_EQ(r.status, 0x6A82);
    auto t = Faults::parseTruncation("00CA0181=10");
    EXPECT_EQ(t.prefix, fromHex("00 CA 01 81"));
    EXPECT_EQ(t.keep, 10u);
    for (const char* bad : {"B0=6A82", "00B0", "00B0=6A", "00B0=6A8200", "0xB0=6A82"})
        EXPECT_THROW(Faults::parseRefusal(bad), std::invalid_argument) << bad;
    for (const char* bad : {"00CA=", "00CA=-1", "00CA=x", "00CA=70000"})
        EXPECT_THROW(Faults::parseTruncation(bad), std::invalid_argument) << bad;
}

TEST(FaultyCard, RefusedCommandsNeverReachTheCardAndAnswersAreCut) {
    EchoCard card;
    Faults f;
    f.refuse.push_back({fromHex("00 B0"), 0x6982});
    f.truncate.push_back({fromHex("00 CA 01"), 2});
    vtoken::FaultyCard faulty(card, f);
    EXPECT_EQ(faulty.process(fromHex("00 B0 00 00 01")), fromHex("69 82"));
    EXPECT_EQ(card.processed, 0);
    EXPECT_EQ(faulty.process(fromHex("00 CA 01 81 00")), fromHex("CA 01"));
    EXPECT_EQ(faulty.process(fromHex("00 CA 02 81 00")), fromHex("CA 01 02 90 00"));
    EXPECT_EQ(card.processed, 2);
}

TEST(FaultyCard, MuteUntilTheNextPowerUpAndVanishOnce) {
    EchoCard card;
    Faults f;
    f.muteAfter = 2;
    f.vanishAt = 5;
    vtoken::FaultyCard faulty(card, f);
    int vanished = 0;
    faulty.setOnVanish([&] { ++vanished; });
    const Bytes c = fromHex("00 84 00 00 08");
    faulty.process(c);
    faulty.process(c);
    try {
        faulty.process(c);
        ADD_FAILURE() << "a mute card answered";
    } catch (const vtoken::NoAnswer& e) {
        EXPECT_EQ(e.why(), vtoken::NoAnswer::Why::Mute);
    }
    faulty.reset();
    faulty.process(c);
    try {
        faulty.process(c);
        ADD_FAILURE() << "the card answered as it left";
    } catch (const vtoken::NoAnswer& e) {
        EXPECT_EQ(e.why(), vtoken::NoAnswer::Why::Gone);
    }
    EXPECT_EQ(vanished, 1);
    faulty.powerOn();
    EXPECT_EQ(faulty.process(c).size(), 5u) << "back in the reader, it answers";
    EXPECT_EQ(card.processed, 4);
}

long codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const libapdu::IException& e) {
        return e.code();
    } catch (const CAException& e) {
        return e.Code();
    }
    return 0;
}

TEST(CardSenderFaults, SilenceAndRemovalFailAsPcscWouldReportThem) {
    EchoCard card;
    Faults f;
    f.muteAfter = 0;
    vtoken::FaultyCard mute(card, f);
    vtoken::CardSender muteSender(mute);
    TBytes response(258);
    EXPECT_EQ(codeOf([&] { muteSender.send(fromHex("00 84 00 00 08"), response); }),
              vtoken::CardSender::kNoAnswerCode);

    f.muteAfter.reset();
    f.vanishAt = 1;
    vtoken::FaultyCard gone(card, f);
    vtoken::CardSender goneSender(gone);
    EXPECT_EQ(codeOf([&] { goneSender.send(fromHex("00 84 00 00 08"), response); }),
              vtoken::CardSender::kRemovedCode);
}

TEST(CardSenderFaults, ControlCodesTheReaderDoesNotKnowFailAsWithoutAChannel) {
    EchoCard card;
    vtoken::CardSender sender(card);
    TBytes out(8);
    sender.control(7, {}, out);
    EXPECT_EQ(out, (TBytes{1, 2, 3}));
    EXPECT_EQ(codeOf([&] { sender.control(8, {}, out); }), 0x86E0FACEL);
    TBytes small(2);
    EXPECT_THROW(sender.control(7, {}, small), vtoken::ResponseTooLong);
}

}  // namespace
