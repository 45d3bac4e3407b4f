// The three text getters of the session and their three size protocols,
// against an in-process Pro token.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <memory>
#include <string>

#include "core/card_sender.h"
#include "pro/pro_card.h"
#include "pro/pro_state.h"
#include "src/Token/Token.h"

namespace {

class TextGetters : public ::testing::Test {
protected:
    void SetUp() override {
        vtoken::pro::Personalisation p;
        p.label = "krFS";
        p.id = vtoken::Bytes{0x12, 0x34, 0xAB, 0xCD};
        card.reset(new vtoken::pro::ProCard(vtoken::pro::personalise(p)));
        session.Attach(std::unique_ptr<libapdu::ISender>(new vtoken::CardSender(*card)));
        session.Lock();
    }
    void TearDown() override { session.Unlock(); }
    std::unique_ptr<vtoken::pro::ProCard> card;
    CToken session;
};

TEST_F(TextGetters, LabelCountsItsTerminatorAndIsCutWithoutOne) {
    DWORD size = 0;
    session.GetLabel(nullptr, &size);
    EXPECT_EQ(size, 5u);
    char buf[8];
    std::memset(buf, '#', sizeof buf);
    size = 3;
    session.GetLabel(buf, &size);
    EXPECT_EQ(std::string(buf, 4), "krF#") << "three chars, no terminator";
    EXPECT_EQ(size, 3u) << "the size is not changed";
    size = sizeof buf;
    session.GetLabel(buf, &size);
    EXPECT_STREQ(buf, "krFS");
}

TEST_F(TextGetters, IdentifierWritesItsTerminatorAtTheLength) {
    DWORD size = 0;
    session.GetID(nullptr, &size);
    // Through the reader's control channel: the four identifier bytes.
    EXPECT_EQ(size, 9u) << "two hex digits a byte and the terminator";
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    size = 4;
    session.GetID(buf, &size);
    EXPECT_EQ(std::string(buf, 6), std::string("1234\0#", 6))
        << "four chars, then a zero one past the given size";
    size = sizeof buf;
    session.GetID(buf, &size);
    EXPECT_STREQ(buf, "1234abcd");
}

TEST_F(TextGetters, ModelDoesNotCountItsTerminator) {
    DWORD size = 0;
    session.GetModel(nullptr, &size);
    EXPECT_EQ(size, 7u);
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    size = 3;
    session.GetModel(buf, &size);
    EXPECT_EQ(std::string(buf, 5), std::string("Qnt\0#", 5));
    size = sizeof buf;
    session.GetModel(buf, &size);
    EXPECT_STREQ(buf, "Qntoken");
    EXPECT_EQ(session.AppletId(), 0x1002) << "back on the Pro applet";
}

}  // namespace
