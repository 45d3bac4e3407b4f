// The DataStore applet: selection, choice of layout, and the PIN, label and
// information drivers on the applet's status record.
#include "token/applet_datastore.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "libapdu/token.h"
#include "token/appfs/fs_datastore.h"
#include "token/appfs/fs_datastore_v2.h"
#include "unit/datastore/datastore_card.h"

namespace {

using namespace krfs_test;

TEST(DataStoreApplet, SelectionByAidAndTheChoiceOfLayout) {
    std::unique_ptr<ISender> owned(new ScriptedSender);
    auto& card = *static_cast<ScriptedSender*>(owned.get());
    std::unique_ptr<IToken> token = IToken::create(owned);
    card.expect(kSelectAid, "6A 82").expect(kSelectAid, kOk).expect(kSelectAid, "6A 82");
    EXPECT_FALSE(token->checkIfExist(0x2205));
    EXPECT_TRUE(token->checkIfExist(0x2205));
    EXPECT_EQ(failureCode([&] { token->selectApplet(0x2205); }), code(0x6A82));
    card.expect(kSelectAid, kOk);
    token->selectApplet(0x2205);
    EXPECT_NE(dynamic_cast<CFSDataStore*>(token->fs()), nullptr);
    token->switchToFileSystem(2);
    EXPECT_NE(dynamic_cast<CFSDataStore_v2*>(token->fs()), nullptr);
    // Another number keeps the driver; 1 makes a new one that lists the card again.
    IAppFS* v2 = token->fs();
    token->switchToFileSystem(3);
    EXPECT_EQ(token->fs(), v2);
    token->switchToFileSystem(1);
    ASSERT_NE(dynamic_cast<CFSDataStore*>(token->fs()), nullptr);
    card.expect(listFrom(0), kOk);
    token->fs()->select({});
    // The applet's own folding: 0x6F00 is no room here.
    card.expect("80 30 20 00 01 41 02", "6F 00");
    EXPECT_EQ(failureCode([&] { token->label()->write({'A'}); }), code(0x6400));
}

TEST(DataStoreApplet, PinColumnsComeFromTheStatusRecordAndOnlyTheMaximumIsChecked) {
    Card c;
    IAppPin* pin = c.applet.pin();
    EXPECT_EQ(std::vector<TPath>({pin->pathUser(), pin->pathAdmin(), pin->pathGlobal()}),
              std::vector<TPath>({{1}, {2}, {3}}));
    const struct {
        TPath path;
        std::string answer;
        std::vector<int> info;  // min, max, left, total, state
        long code;
    } rows[] = {
        {{1}, status(), {4, 8, 9, 10, 0}, 0},
        {{2}, status(), {6, 16, 10, 10, 0xFF}, 0},
        {{3}, status(), {8, 32, 0, 5, 0}, 0},
        {{4}, status(), {0, 0, 0xFF, 0xFF, 0x10}, code(0x6B00)},
        {{1}, "01 02 03 " + toHex(TBytes(26, 0x00)) + kOk, {0, 0, 0xFF, 0xFF, 0x10}, code(0x6281)},
    };
    for (const auto& r : rows) {
        c.sender.expect(kStatus, r.answer);
        EXPECT_EQ(failureCode([&] { pin->select(r.path); }), r.code);
        const CPinInfo i = pin->info();
        EXPECT_EQ(std::vector<int>(
                      {i.minLength, i.maxLength, i.attemptsLeft, i.attemptsTotal, i.loginState}),
                  r.info);
    }

    c.sender.expect(kStatus, status());
    pin->select({1});
    const TBytes p{'1', '2', '3', '4'};
    const std::string login = "80 10 10 00 06 00 04 31 32 33 34";
    const struct {
        std::function<void()> call;
        std::string command, answer;
        long code;
        int left, state;
    } calls[] = {
        {[&] { pin->login(p); }, login, "63 C2", code(0x6300), 8, 0},
        {[&] { pin->login(p); }, login, kOk, 0, 10, 0xFF},
        {[&] { pin->change(p); }, "80 10 20 00 06 00 04 31 32 33 34 00", kOk, 0, 10, 0xFF},
        {[&] { pin->logout(); }, "80 10 30 00 00 00", "67 04", code(0x6983), 10, 0},
        {[&] { pin->login(TBytes(9, '1')); }, "", "", code(0x6B00), 10, 0},
        {[&] { pin->change(TBytes(9, '1')); }, "", "", code(0x6B00), 10, 0},
        {[&] { pin->login({}); }, "80 10 10 00 02 00 00", "67 03", code(0x6300), 9, 0},
        {[&] { pin->unblock(p); }, "", "", code(0xFACE), 9, 0},
    };
    for (const auto& r : calls) {
        if (!r.command.empty()) c.sender.expect(r.command, r.answer);
        EXPECT_EQ(failureCode(r.call), r.code) << r.command;
        EXPECT_EQ(pin->info().attemptsLeft, r.left) << r.command;
        EXPECT_EQ(pin->info().loginState, r.state) << r.command;
    }
    EXPECT_EQ(pin->encoding(), 2u);
}

TEST(DataStoreApplet, LabelAndInformationFromTheApplet) {
    Card c;
    IAppLabel* label = c.applet.label();
    c.sender.expect("80 30 10 00 00", "20 41 20 42 00 20 20 " + kOk);
    EXPECT_EQ(label->read(), hex("20 41 20 42 00"));
    c.sender.expect("80 30 20 00 02 C3 A4 02", kOk);
    label->write(hex("C3 A4"));
    // No limit here: the length byte keeps its low 8 bits.
    c.sender.expect("80 30 20 00 2C " + toHex(TBytes(300, 0x61)) + "02", "67 0A");
    EXPECT_EQ(failureCode([&] { label->write(TBytes(300, 'a')); }), code(0x6B00));
    EXPECT_EQ(label->encoding(), 3u);

    IAppInfo* info = c.applet.info();
    c.sender.expect(kStatus, status(0x1234));
    EXPECT_EQ(info->version(1), hex("01 02 03"));
    c.sender.expect(kStatus, status(0x1234));
    EXPECT_EQ(info->id(2), hex("11 22 33 44 55 66 77 88"));
    c.sender.expect(kStatus, status(0x1234)).expect(kStatus, status(0xFFFE));
    EXPECT_EQ(info->memoryFree(), 0x1234u);
    EXPECT_EQ(info->memoryFree(), 0xFFFEu);
    EXPECT_EQ(info->memoryTotal(), 0xFFFFFFFFu);
    EXPECT_EQ(failureCode([&] { info->rnd(8); }), code(0xFACE));
    c.sender.expect(kStatus, toHex(TBytes(29, 0x00)) + kOk);
    EXPECT_EQ(failureCode([&] { info->id(1); }), code(0x6281));
}

}  // namespace
