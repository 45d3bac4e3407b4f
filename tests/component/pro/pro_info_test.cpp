// The library's information drivers (CInfoPro, CInfoR2) against the
// virtual Pro and R2 cards.
#include "component/pro/pro_token.h"
#include "core/faults.h"
#include "token/appinfo/info_pro.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

namespace krfs::component {
namespace {

using vtoken::Bytes;

// A reader without the vendor control code in front of a card.
class PlainReader : public vtoken::ICard {
public:
    explicit PlainReader(vtoken::ICard& card) : card_(card) {}
    Bytes atr() const override { return card_.atr(); }
    Bytes process(const Bytes& c) override { return card_.process(c); }

private:
    vtoken::ICard& card_;
};

class ProInfo : public ::testing::TestWithParam<std::tuple<Model, bool>> {
protected:
    ProInfo() : t(std::get<0>(GetParam()), std::get<1>(GetParam())) {}
    const vtoken::pro::ModelInfo& model() const {
        return vtoken::pro::modelInfo(std::get<0>(GetParam()));
    }

    ProToken t;
};

TEST_P(ProInfo, IdentifierFromTheReaderControlCodeOrFromTheCard) {
    EXPECT_EQ(t.info()->id(1), (Bytes{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(t.info()->id(2), (Bytes{0x00, 0x00, 0x12, 0x34, 0x56, 0x78}));

    // Without the control code the first form fails the way that sends the
    // host on to the second.
    PlainReader reader(t.card);
    auto token = bindToken(reader, 0x1002);
    EXPECT_EQ(codeOf([&] { token->info()->id(1); }), 0x86E0FACEL);
    EXPECT_EQ(token->info()->id(2), (Bytes{0x00, 0x00, 0x12, 0x34, 0x56, 0x78}));
}

TEST_P(ProInfo, ConfigurationBlockThroughTheReader) {
    auto* info = dynamic_cast<libapdu::CInfoPro*>(t.info());
    ASSERT_NE(info, nullptr);
    const Bytes block = info->readCfg();
    EXPECT_EQ(block, t.card.configBlock());
    ASSERT_GE(block.size(), 6u);
    EXPECT_EQ(Bytes(block.begin(), block.begin() + 4), (Bytes{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(Bytes(block.begin() + 4, block.begin() + 6), model().version);
}

TEST_P(ProInfo, VersionMemoryAndColour) {
    EXPECT_EQ(t.info()->version(0), model().version);
    EXPECT_EQ(t.info()->memoryTotal(), model().memoryKb * 1024);
    const std::size_t total = t.card.state().memoryTotal();
    auto expectedFree = [&] {
        return std::min<std::size_t>(total - t.card.state().memoryUsed(), 0xFFFF);
    };
    EXPECT_EQ(t.info()->memoryFree(), expectedFree());
    t.card.setAssumedVerified({t.userPin()});
    t.fs()->select({});
    t.fs()->create(0x0101, libapdu::CFileInfo(1, 1000, 0, 0));
    EXPECT_EQ(t.info()->memoryFree(), expectedFree());
    EXPECT_LE(t.info()->memoryFree(), 0xFFFFu);

    EXPECT_EQ(t.info()->color(), 9u);
}

TEST_P(ProInfo, ColourIsAllOnesWithoutTheColourFile) {
    Path dir = t.home();
    if (!t.card.state().fips) dir.push_back(vtoken::pro::kInfoDir);
    auto& children = t.card.state().find(dir)->children;
    const std::uint16_t colour =
        t.card.state().fips ? vtoken::pro::kFipsColour : vtoken::pro::kColour;
    children.erase(std::find_if(children.begin(), children.end(),
                                [&](const auto& n) { return n.id == colour; }));
    EXPECT_EQ(t.info()->color(), 0xFFFFFFFFu);
}

TEST_P(ProInfo, RandomBytesComeInChallengesOfAtMost240) {
    const Bytes a = t.info()->rnd(241);
    EXPECT_EQ(a.size(), 241u);
    const auto& h = t.card.history();
    EXPECT_EQ(h[h.size() - 2], (Bytes{0x00, 0x84, 0x00, 0x00, 0xF0}));
    EXPECT_EQ(h.back(), (Bytes{0x00, 0x84, 0x00, 0x00, 0x01}));
    EXPECT_NE(t.info()->rnd(16), t.info()->rnd(16));
    EXPECT_TRUE(t.info()->rnd(0).empty());
}

std::string paramName(const ::testing::TestParamInfo<std::tuple<Model, bool>>& info) {
    return std::string(modelName(std::get<0>(info.param))) +
           (std::get<1>(info.param) ? "Fips" : "Plain");
}

INSTANTIATE_TEST_SUITE_P(AllModels, ProInfo,
                         ::testing::Combine(::testing::Values(Model::Pro16, Model::Pro32,
                                                              Model::Pro42, Model::Pro42b),
                                            ::testing::Bool()),
                         paramName);

TEST(ProApplet, StartUpFailureLeavesTheCardsStatusWordToTheHost) {
    vtoken::pro::ProCard card(vtoken::pro::personalise({}));
    vtoken::Faults faults;
    faults.refuse.push_back({{0x00, 0xCA, 0x01, 0x83}, 0x6A88});
    vtoken::FaultyCard faulty(card, faults);
    std::unique_ptr<libapdu::ISender> sender(new vtoken::CardSender(faulty));
    auto token = libapdu::IToken::create(sender);
    EXPECT_EQ(codeOf([&] { token->selectApplet(0x1002); }), 0x86E06A82L);
}

TEST(ProApplet, ATokenWithoutItsHomeDirectoryFailsInit) {
    vtoken::pro::ProCard card(vtoken::pro::personalise({}));
    card.state().mf.children.clear();
    std::unique_ptr<libapdu::ISender> sender(new vtoken::CardSender(card));
    auto token = libapdu::IToken::create(sender);
    EXPECT_EQ(codeOf([&] { token->selectApplet(0x1002); }), 0x86E06A82L);
}

TEST(R2Info, ConfigurationBlockServesIdentifierVersionMemoryAndColour) {
    vtoken::r2::R2State state;
    state.id = {0xDE, 0xAD, 0xBE, 0xEF};
    state.version = {0x03, 0x07};
    state.memoryTotal = 0x1234;
    state.memoryFree = 0x0FED;
    state.colour = 4;
    vtoken::r2::R2Card card(state);
    auto token = bindToken(card, 0x1001);
    EXPECT_EQ(token->info()->id(1), state.id);
    EXPECT_EQ(token->info()->id(2), state.id);
    EXPECT_EQ(token->info()->version(9), state.version);
    EXPECT_EQ(token->info()->memoryTotal(), 0x1234u);
    EXPECT_EQ(token->info()->memoryFree(), 0x0FEDu);
    EXPECT_EQ(token->info()->color(), 4u);
    EXPECT_FALSE(token->info()->isFips());
}

TEST(R2Info, StatusWordsTravelLowByteFirst) {
    vtoken::r2::R2Card card({});
    EXPECT_EQ(card.process({0x00, 0xDA, 0x00, 0x00, 0x01, 0x00, 0x00}).size(), 22u);
    EXPECT_EQ(card.process({0x00, 0xDA, 0x00, 0x00, 0x01, 0x00, 0x00}).back(), 0x90);
    EXPECT_EQ(card.process({0x00, 0xB2, 0x00, 0x00, 0x01}), (Bytes{0x00, 0x6D}));
    EXPECT_EQ(card.process({0x00, 0xDA, 0x00, 0x01, 0x01, 0x00, 0x00}), (Bytes{0x86, 0x6A}));

    // A refusal knob speaks the card's byte order, which the R2 host reads.
    vtoken::Faults faults;
    faults.refuse.push_back({{0x00, 0xDA}, 0x6A82});
    vtoken::FaultyCard faulty(card, faults);
    EXPECT_EQ(faulty.process({0x00, 0xDA, 0x00, 0x00, 0x01, 0x00, 0x00}), (Bytes{0x82, 0x6A}));
    auto token = bindToken(faulty, 0x1001);
    EXPECT_EQ(codeOf([&] { token->info()->id(1); }), 0x86E06A82L);
}

TEST(R2Info, NeitherAppletTakesTheOthersCard) {
    vtoken::r2::R2Card r2({});
    EXPECT_EQ(codeOf([&] { bindToken(r2, 0x1002); }), 0x86E0FACEL);
    vtoken::pro::ProCard pro(vtoken::pro::personalise({}));
    EXPECT_EQ(codeOf([&] { bindToken(pro, 0x1001); }), 0x86E0FACEL);
}

}  // namespace
}  // namespace krfs::component
