// Both DataStore tree layouts through libapdu against the virtual card: the
// label layout kept by a new driver object, the two layouts blind to each
// other, and what a power cut between record and table leaves behind.
#include "component/vtoken/card_script.h"
#include "core/card_sender.h"
#include "datastore/datastore_card.h"
#include "javacard/javacard.h"
#include "libapdu/token.h"

#include <gtest/gtest.h>

#include <memory>

namespace krfs::component {
namespace {

using libapdu::CFileInfo;
using vtoken::datastore::DataStoreApplet;

struct Card {
    Card() {
        vtoken::datastore::Personalisation p;
        p.userPin = "123456";
        std::vector<std::unique_ptr<vtoken::javacard::Applet>> applets;
        applets.push_back(std::make_unique<DataStoreApplet>(vtoken::datastore::personalise(p)));
        card = std::make_unique<vtoken::javacard::JavaCard>(vtoken::javacard::defaultAtr(),
                                                            std::move(applets));
    }
    // A fresh binding, as after a power-up, on the layout `fs`.
    std::unique_ptr<libapdu::IToken> bind(unsigned short fs) {
        card->powerOn();
        std::unique_ptr<libapdu::ISender> sender(new vtoken::CardSender(*card));
        auto token = libapdu::IToken::create(sender);
        token->selectApplet(0x2205);
        token->switchToFileSystem(fs);
        token->pin()->select(token->pin()->pathUser());
        token->pin()->login({'1', '2', '3', '4', '5', '6'});
        return token;
    }
    vtoken::datastore::DataStoreState& state() { return card->find<DataStoreApplet>()->state(); }
    std::unique_ptr<vtoken::javacard::JavaCard> card;
};

TEST(DataStoreLayouts, LabelLayoutKeepsItsTreeAcrossDriversAndTheTableLayoutIgnoresIt) {
    Card c;
    auto token = c.bind(1);
    libapdu::IAppFS* fs = token->fs();
    fs->select({0x3F00});
    fs->create(0xCC00, CFileInfo(2, 0, 0, 0));
    fs->select({0x3F00, 0xCC00});
    fs->create(0x0001, CFileInfo(1, 5, 0, 0));
    fs->select({0x3F00, 0xCC00, 0x0001});
    fs->write({'h', 'e', 'l', 'l', 'o'}, 0);
    ASSERT_EQ(c.state().records.size(), 3u) << "the root's record, CC00's and 0001's";

    token->switchToFileSystem(1);  // a new driver object reads the card afresh
    fs = token->fs();
    fs->select({0x3F00, 0xCC00});
    EXPECT_EQ(fs->list(1), TPath{0x0001});
    fs->select({0x3F00, 0xCC00, 0x0001});
    TBytes back(5);
    fs->read(back, 0);
    EXPECT_EQ(back, (TBytes{'h', 'e', 'l', 'l', 'o'}));

    token->switchToFileSystem(2);
    fs = token->fs();
    fs->select({0x3F00});
    EXPECT_TRUE(fs->list(1).empty() && fs->list(2).empty()) << "no table: the root alone";
}

TEST(DataStoreLayouts, PowerCutBetweenRecordAndTableLeavesAnUnlistedRecord) {
    Card c;
    auto token = c.bind(2);
    token->fs()->select({0x3F00});
    token->fs()->create(0xE001, CFileInfo(2, 0, 0, 0));
    const std::size_t before = c.state().records.size();
    c.state().cutPowerAfterFinish = 1;
    token->fs()->select({0x3F00, 0xE001});
    EXPECT_EQ(codeOf([&] { token->fs()->create(0x0007, CFileInfo(1, 8, 0, 0)); }),
              vtoken::CardSender::kRemovedCode);
    EXPECT_EQ(c.state().records.size(), before + 1) << "the record was made";

    token = c.bind(2);
    token->fs()->select({0x3F00, 0xE001});
    EXPECT_TRUE(token->fs()->list(1).empty()) << "the table never learnt it";
    token->fs()->create(0x0007, CFileInfo(1, 8, 0, 0));
    EXPECT_EQ(token->fs()->list(1), TPath{0x0007}) << "the name is free to make again";
}

}  // namespace
}  // namespace krfs::component
