// The library's Pro and R2 drivers against the virtual cards: every Pro model,
// plain and FIPS, checked on the card side.
#include "component/vtoken/card_script.h"
#include "core/card_sender.h"
#include "core/faults.h"
#include "libapdu/token.h"
#include "pro/pro_card.h"
#include "r2/r2_card.h"
#include "token/appfs/fs_pro.h"
#include "token/appinfo/info_pro.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <tuple>

namespace krfs::component {
namespace {

using libapdu::CFileInfo;
using vtoken::Bytes;
using vtoken::pro::Model;
using vtoken::pro::Path;

// Makes the library's token over a card and selects an applet on it.
std::unique_ptr<libapdu::IToken> bindToken(vtoken::ICard& card, unsigned short applet) {
    std::unique_ptr<libapdu::ISender> sender(new vtoken::CardSender(card));
    auto token = libapdu::IToken::create(sender);
    token->selectApplet(applet);
    return token;
}

// A personalised Pro card (identifier 12 34 56 78, colour 9) bound as a Pro.
struct ProToken {
    explicit ProToken(const vtoken::pro::Personalisation& p)
        : card(vtoken::pro::personalise(p)), token(bindToken(card, 0x1002)) {}
    static vtoken::pro::Personalisation personalisation(Model model, bool fips) {
        vtoken::pro::Personalisation p;
        p.model = model;
        p.fips = fips;
        p.id = vtoken::Bytes{0x12, 0x34, 0x56, 0x78};
        p.colour = 9;
        return p;
    }

    libapdu::IAppFS* fs() { return token->fs(); }
    libapdu::IAppInfo* info() { return token->info(); }
    // The home directory of the layout, and a path below it.
    Path home(Path below = {}) const {
        Path p = card.state().home();
        p.insert(p.end(), below.begin(), below.end());
        return p;
    }
    const vtoken::pro::Node* node(const Path& path) const { return card.state().find(path); }

    vtoken::pro::ProCard card;
    std::unique_ptr<libapdu::IToken> token;
};

constexpr long kNotAllowed = 0x86E06900L, kNotFound = 0x86E06A82L;

class ProDrivers : public ::testing::TestWithParam<std::tuple<Model, bool>> {
protected:
    ProDrivers() : t(ProToken::personalisation(std::get<0>(GetParam()), std::get<1>(GetParam()))) {}
    const vtoken::pro::ModelInfo& model() const {
        return vtoken::pro::modelInfo(std::get<0>(GetParam()));
    }
    // The card-side children of the home directory, of one kind.
    TPath homeChildren(bool dirs) const {
        TPath out;
        for (const auto& c : t.node(t.home())->children)
            if (c.dir == dirs) out.push_back(c.id);
        return out;
    }
    long sent(const Bytes& command) const {
        return std::count(t.card.history().begin(), t.card.history().end(), command);
    }
    void create(std::uint16_t id, const CFileInfo& info) {
        t.fs()->select({});
        t.fs()->create(id, info);
    }

    ProToken t;
};

TEST_P(ProDrivers, InitAndInformation) {
    EXPECT_EQ(dynamic_cast<libapdu::CFSPro4*>(t.fs()) != nullptr, model().pro4);
    EXPECT_EQ(t.info()->isFips(), std::get<1>(GetParam()));
    // The life cycle byte reads 0x10, so the host sends its start-up command.
    EXPECT_EQ(sent({0x80, 0x10, 0x00, 0x00}), 1);
    EXPECT_EQ(sent({0x00, 0xCA, 0x01, 0x83, 0x00}), 1);

    // The identifier through the reader's control code, and from the card.
    EXPECT_EQ(t.info()->id(1), (Bytes{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(t.info()->id(2), (Bytes{0x00, 0x00, 0x12, 0x34, 0x56, 0x78}));
    const Bytes block = dynamic_cast<libapdu::CInfoPro&>(*t.info()).readCfg();
    EXPECT_EQ(block, t.card.configBlock());
    EXPECT_EQ(t.info()->version(0), model().version);
    EXPECT_EQ(t.info()->memoryTotal(), model().memoryKb * 1024);
    EXPECT_EQ(
        t.info()->memoryFree(),
        std::min<std::size_t>(t.card.state().memoryTotal() - t.card.state().memoryUsed(), 0xFFFF));
    EXPECT_EQ(t.info()->color(), 9u);
}

TEST_P(ProDrivers, TreeUnderTheCardsAccessRules) {
    const unsigned char pin =
        t.card.state().fips ? vtoken::pro::kFipsUserPin : vtoken::pro::kUserPin;
    // Nothing verified: the home directory takes no node, the label no text.
    EXPECT_EQ(codeOf([&] { create(0x0101, CFileInfo(1, 8, 0, 0)); }), kNotAllowed);
    t.fs()->select(t.card.state().fips ? TPath{0x0002} : TPath{0x1000, 0x0005});
    EXPECT_EQ(codeOf([&] { t.fs()->write(Bytes{'x'}, 0); }), kNotAllowed);

    // A verified PIN lasts while the host stays in its directory.
    t.card.verify(t.home(), pin);
    const Bytes markerBefore = t.node({0x6666, 0x0001})->data;
    create(0x0101, CFileInfo(1, 300, 0, pin));
    create(0x0200, CFileInfo(2, 0, 0, pin));
    EXPECT_NE(t.node({0x6666, 0x0001})->data, markerBefore) << "the tree change is marked";
    ASSERT_NE(t.node(t.home({0x0101})), nullptr);
    EXPECT_EQ(t.node(t.home({0x0101}))->access, (Bytes{0x00, pin, pin, pin, pin, pin, pin}));
    EXPECT_EQ(t.node(t.home({0x0200}))->access, Bytes(8, pin));
    // The older models report an identifier in use as wrong data, which the
    // driver reads as "exists" as the newer ones say it.
    EXPECT_EQ(codeOf([&] { create(0x0101, CFileInfo(1, 8, 0, 0)); }), 0x86E06A89L);

    Bytes data(300);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7);
    t.fs()->select({0x0101});
    const CFileInfo info = t.fs()->info();
    EXPECT_EQ(std::make_tuple(info.type, info.size, info.read, info.write),
              std::make_tuple(1, 300, 0, static_cast<int>(pin)));
    t.fs()->write(data, 0);
    EXPECT_EQ(t.node(t.home({0x0101}))->data, data);

    // A directory goes only once it is empty.
    t.fs()->select({0x0200});
    t.fs()->create(0x0300, CFileInfo(1, 4, 0, pin));
    t.fs()->select({0x0200});
    EXPECT_EQ(codeOf([&] { t.fs()->remove(); }), kNotAllowed);
    t.fs()->select({0x0200, 0x0300});
    t.fs()->remove();
    t.fs()->select({0x0200});
    EXPECT_TRUE(t.fs()->list(1).empty());
    t.fs()->remove();
    EXPECT_EQ(codeOf([&] { t.fs()->select({0x0200}); }), kNotFound);

    // Listing pages through more entries than one answer holds.
    for (std::uint16_t id = 0x0400; id < 0x0400 + 60; ++id) create(id, CFileInfo(1, 1, 0, 0));
    t.fs()->select({});
    EXPECT_EQ(t.fs()->list(1), homeChildren(false));
    EXPECT_GT(homeChildren(false).size(), 60u);
    EXPECT_EQ(t.fs()->list(2), homeChildren(true));

    // A private file: readable only with its PIN verified. Leaving the
    // directory is the logout.
    create(0x0102, CFileInfo(1, 8, pin, pin));
    t.fs()->select({0x0102});
    t.fs()->write(Bytes(8, 0x5A), 0);
    t.fs()->select({0x3F00});
    t.fs()->select({0x0102});
    EXPECT_EQ(t.fs()->info().read, pin);
    Bytes secret(8);
    EXPECT_EQ(codeOf([&] { t.fs()->read(secret, 0); }), kNotAllowed);
    EXPECT_EQ(codeOf([&] { create(0x0103, CFileInfo(1, 4, 0, pin)); }), kNotAllowed);

    // Memory runs out after at most a few files of 32 KB.
    t.card.setAssumedVerified({pin});
    long code = 0;
    for (std::uint16_t id = 0x0700; id < 0x0704 && code == 0; ++id)
        code = codeOf([&] { create(id, CFileInfo(1, 0x7FFF, 0, 0)); });
    EXPECT_EQ(code, 0x86E06400L);
}

INSTANTIATE_TEST_SUITE_P(
    AllModels, ProDrivers,
    ::testing::Combine(::testing::Values(Model::Pro16, Model::Pro32, Model::Pro42, Model::Pro42b),
                       ::testing::Bool()),
    [](const auto& info) {
        return std::string(vtoken::pro::modelInfo(std::get<0>(info.param)).name) +
               (std::get<1>(info.param) ? "Fips" : "Plain");
    });

TEST(ProPinDriver, UnblockUnderTheAdministratorGivesTheUserANewPin) {
    vtoken::pro::Personalisation p = ProToken::personalisation(Model::Pro32, false);
    p.adminPin = "admin-secret";
    ProToken t(p);
    libapdu::IAppPin* pin = t.token->pin();
    auto status = [](const std::function<void()>& f) { return codeOf(f) & 0xFFFF; };
    auto login = [&](const std::string& s) { pin->login(TBytes(s.begin(), s.end())); };

    pin->select(pin->pathUser());
    for (int i = 0; i < 15; ++i) EXPECT_EQ(status([&] { login("wrong-pin"); }), 0x6300) << i;
    EXPECT_EQ(t.node({0x6666})->pin(0x01)->tries, 0);
    EXPECT_EQ(status([&] { login(p.userPin); }), 0x6983) << "blocked";
    EXPECT_EQ(pin->info().attemptsLeft, 0);
    const TBytes fresh{'f', 'r', 'e', 's', 'h', '-', 'p', 'i', 'n'};
    EXPECT_NE(codeOf([&] { pin->unblock(fresh); }), 0) << "no administrator yet";

    pin->select(pin->pathAdmin());
    EXPECT_EQ(status([&] { login("admin-secret"); }), 0);
    EXPECT_EQ(status([&] { pin->unblock(fresh); }), 0);
    EXPECT_EQ(t.node({0x6666})->pin(0x01)->tries, 15);
    EXPECT_EQ(t.node({0x6666, 0x1000, 0x0004})->data[0], 15) << "the host's counter file";
    pin->logout();
    pin->select(pin->pathUser());
    EXPECT_EQ(pin->info().attemptsLeft, 15);
    EXPECT_EQ(status([&] { login(p.userPin); }), 0x6300);
    EXPECT_EQ(status([&] { login("fresh-pin"); }), 0);
    EXPECT_EQ(pin->info().loginState, 0x00FF);
}

TEST(ProApplet, StartUpFailuresAndTheOtherDialectsCards) {
    vtoken::pro::ProCard card(vtoken::pro::personalise({}));
    vtoken::Faults faults;
    faults.refuse.push_back({{0x00, 0xCA, 0x01, 0x83}, 0x6A88});
    vtoken::FaultyCard faulty(card, faults);
    EXPECT_EQ(codeOf([&] { bindToken(faulty, 0x1002); }), 0x86E06A82L) << "the card's 6A88";
    vtoken::r2::R2Card r2({});
    EXPECT_EQ(codeOf([&] { bindToken(r2, 0x1002); }), 0x86E0FACEL);
    EXPECT_EQ(codeOf([&] { bindToken(card, 0x1001); }), 0x86E0FACEL);
    // The R2 driver on its own card reads the block through R2 status words.
    const auto r2token = bindToken(r2, 0x1001);
    EXPECT_EQ(r2token->info()->id(2), r2.state().id);
    EXPECT_EQ(r2token->info()->memoryFree(), r2.state().memoryFree);

    // Another life cycle byte: no start-up command.
    card.state().lifeCycle = 0x20;
    bindToken(card, 0x1002);
    EXPECT_EQ(
        std::count(card.history().begin(), card.history().end(), Bytes{0x80, 0x10, 0x00, 0x00}), 0);
    card.state().mf.children.clear();
    EXPECT_EQ(codeOf([&] { bindToken(card, 0x1002); }), 0x86E06A82L) << "no home directory";
}

}  // namespace
}  // namespace krfs::component
