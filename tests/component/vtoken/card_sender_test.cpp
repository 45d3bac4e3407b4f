#include "core/card_sender.h"
#include "core/script_card.h"

#include <gtest/gtest.h>

namespace {

using vtoken::Bytes;

// Counts contact events, answers one fixed response.
class RecordingCard : public vtoken::ICard {
public:
    Bytes answer{0x01, 0x02, 0x03, 0x90, 0x00};
    Bytes lastCommand;
    int powerOns = 0;

    Bytes atr() const override { return {0x3B, 0x02, 0x14, 0x50}; }
    Bytes process(const Bytes& command) override {
        lastCommand = command;
        return answer;
    }
    void powerOn() override { ++powerOns; }
};

TEST(CardSender, PowersTheCardOnAndReportsItsAtr) {
    RecordingCard card;
    vtoken::CardSender sender(card);
    EXPECT_EQ(card.powerOns, 1);
    EXPECT_EQ(sender.atr(), card.atr());
    EXPECT_EQ(&sender.card(), &card);
}

TEST(CardSender, ResponseIsCutToWhatTheCardSent) {
    RecordingCard card;
    vtoken::CardSender sender(card);
    libapdu::ISender& asSender = sender;
    TBytes response(258, 0xEE);
    const TBytes command{0x00, 0xB0, 0x00, 0x00, 0x03};
    asSender.send(command, response);
    EXPECT_EQ(card.lastCommand, command);
    EXPECT_EQ(response, (TBytes{0x01, 0x02, 0x03, 0x90, 0x00}));

    // Exactly the room the answer needs is enough.
    response.assign(5, 0xEE);
    asSender.send(command, response);
    EXPECT_EQ(response, (TBytes{0x01, 0x02, 0x03, 0x90, 0x00}));
}

TEST(CardSender, AnswerLongerThanTheCallerTakesIsRefused) {
    RecordingCard card;
    vtoken::CardSender sender(card);
    TBytes response(4, 0xEE);
    EXPECT_THROW(sender.send({0x00, 0xB0, 0x00, 0x00, 0x03}, response), vtoken::ResponseTooLong);
}

}  // namespace
