// The library's Pro file-system drivers (CFSPro, CFSPro4 behind CAppletPro)
// against the virtual Pro card, on every model, plain and FIPS.
#include "component/pro/pro_token.h"
#include "token/appfs/fs_pro.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

namespace krfs::component {
namespace {

using libapdu::CFileInfo;
using vtoken::Bytes;

class ProFs : public ::testing::TestWithParam<std::tuple<Model, bool>> {
protected:
    ProFs() : t(std::get<0>(GetParam()), std::get<1>(GetParam())) {}

    bool pro4() const { return vtoken::pro::modelInfo(std::get<0>(GetParam())).pro4; }
    bool fips() const { return std::get<1>(GetParam()); }
    // The card-side children of the home directory, of one kind.
    TPath homeChildren(bool dirs) const {
        TPath out;
        for (const auto& c : t.node(t.home())->children)
            if (c.dir == dirs) out.push_back(c.id);
        return out;
    }
    bool sent(const Bytes& command) const {
        const auto& h = t.card.history();
        return std::find(h.begin(), h.end(), command) != h.end();
    }

    ProToken t;
};

TEST_P(ProFs, InitInstallsTheModelsDriverAndRunsTheStartUpCommands) {
    EXPECT_EQ(dynamic_cast<libapdu::CFSPro4*>(t.fs()) != nullptr, pro4());
    EXPECT_NE(dynamic_cast<libapdu::CFSPro*>(t.fs()), nullptr);
    EXPECT_EQ(t.info()->isFips(), fips());
    // The life cycle byte reads 0x10, so the host sends its start-up command.
    EXPECT_TRUE(sent({0x80, 0x10, 0x00, 0x00}));
    EXPECT_TRUE(sent({0x00, 0xCA, 0x01, 0x83, 0x00}));
}

TEST_P(ProFs, RelativePathsStartAtTheHomeOfTheLayout) {
    t.fs()->select({});
    EXPECT_EQ(t.fs()->info().type, 2);
    EXPECT_EQ(t.card.session().df, t.home());
    EXPECT_FALSE(t.card.session().ef);

    // The marker stays under 6666 in both layouts.
    t.fs()->select({0x3F00, 0x6666, 0x0001});
    CFileInfo marker = t.fs()->info();
    EXPECT_EQ(marker.type, 1);
    EXPECT_EQ(marker.size, 16);
    EXPECT_EQ(marker.read, 0);
    EXPECT_EQ(marker.write, 0);

    t.fs()->select({0x3F00});
    EXPECT_EQ(t.fs()->info().type, 2);
    EXPECT_TRUE(t.card.session().df.empty());
}

TEST_P(ProFs, CreateWriteReadListAndRemove) {
    const unsigned char pin = t.userPin();
    t.card.setAssumedVerified({pin});
    const Bytes markerBefore = t.node({0x6666, 0x0001})->data;

    t.fs()->select({});
    t.fs()->create(0x0101, CFileInfo(1, 300, 0, pin));
    t.fs()->select({});
    t.fs()->create(0x0200, CFileInfo(2, 0, 0, pin));
    EXPECT_NE(t.node({0x6666, 0x0001})->data, markerBefore) << "the tree change is marked";

    Path filePath = t.home();
    filePath.push_back(0x0101);
    const vtoken::pro::Node* file = t.node(filePath);
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(file->dir);
    EXPECT_EQ(file->data.size(), 300u);
    EXPECT_EQ(file->access, (Bytes{0x00, pin, pin, pin, pin, pin, pin}));
    Path dirPath = t.home();
    dirPath.push_back(0x0200);
    ASSERT_NE(t.node(dirPath), nullptr);
    EXPECT_EQ(t.node(dirPath)->access, Bytes(8, pin));

    // 300 bytes go in two blocks of the driver.
    Bytes data(300);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7);
    t.fs()->select({0x0101});
    CFileInfo info = t.fs()->info();
    EXPECT_EQ(info.type, 1);
    EXPECT_EQ(info.size, 300);
    EXPECT_EQ(info.read, 0);
    EXPECT_EQ(info.write, pin);
    t.fs()->write(data, 0);
    EXPECT_EQ(t.node(filePath)->data, data);
    Bytes back(300);
    t.fs()->read(back, 0);
    EXPECT_EQ(back, data);
    Bytes middle(10);
    t.fs()->read(middle, 250);
    EXPECT_EQ(middle, Bytes(data.begin() + 250, data.begin() + 260));

    t.fs()->select({});
    EXPECT_EQ(t.fs()->list(1), homeChildren(false));
    EXPECT_EQ(t.fs()->list(2), homeChildren(true));
    const TPath files = t.fs()->list(1);
    EXPECT_NE(std::find(files.begin(), files.end(), 0x0101), files.end());

    // A directory with a file in it goes only once it is empty.
    t.fs()->select({0x0200});
    t.fs()->create(0x0300, CFileInfo(1, 4, 0, pin));
    t.fs()->select({0x0200});
    EXPECT_EQ(codeOf([&] { t.fs()->remove(); }), 0x86E06900L);
    t.fs()->select({0x0200, 0x0300});
    t.fs()->remove();
    t.fs()->select({0x0200});
    EXPECT_TRUE(t.fs()->list(1).empty());
    t.fs()->remove();
    EXPECT_EQ(codeOf([&] { t.fs()->select({0x0200}); }), 0x86E06A82L);
    t.fs()->select({0x0101});
    t.fs()->remove();
    EXPECT_EQ(t.node(filePath), nullptr);
}

TEST_P(ProFs, ListPagesThroughMoreEntriesThanOneAnswerHolds) {
    t.card.setAssumedVerified({t.userPin()});
    for (unsigned short id = 0x0400; id < 0x0400 + 60; ++id) {
        t.fs()->select({});
        t.fs()->create(id, CFileInfo(1, 1, 0, 0));
    }
    t.fs()->select({});
    const TPath files = t.fs()->list(1);
    EXPECT_EQ(files, homeChildren(false));
    EXPECT_EQ(files.size(), homeChildren(false).size());
    EXPECT_GT(files.size(), 60u);
}

TEST_P(ProFs, RefusalsReachTheLibraryAsItsCodes) {
    const unsigned char pin = t.userPin();
    // No PIN verified: the home directory takes no new nodes, the label no
    // new text.
    t.fs()->select({});
    EXPECT_EQ(codeOf([&] { t.fs()->create(0x0101, CFileInfo(1, 8, 0, 0)); }), 0x86E06900L);
    t.fs()->select(fips() ? TPath{0x0002} : TPath{0x1000, 0x0005});
    EXPECT_EQ(codeOf([&] { t.fs()->write(Bytes{'x'}, 0); }), 0x86E06900L);
    // The marker can never be deleted.
    t.fs()->select({0x3F00, 0x6666, 0x0001});
    EXPECT_EQ(codeOf([&] { t.fs()->remove(); }), 0x86E06900L);

    EXPECT_EQ(codeOf([&] { t.fs()->select({0x0BAD}); }), 0x86E06A82L);
    EXPECT_EQ(codeOf([&] { t.fs()->select({0x3F00, 0x6666, 0x0001, 0x0002}); }), 0x86E06A82L);

    t.card.setAssumedVerified({pin});
    const unsigned short existing = fips() ? 0x0002 : 0x0001;
    t.fs()->select({});
    // The older models report an identifier in use as wrong data, which the
    // driver reads as "exists" as the newer ones say it.
    EXPECT_EQ(codeOf([&] { t.fs()->create(existing, CFileInfo(1, 8, 0, 0)); }), 0x86E06A89L);

    // A private file: readable only with its PIN verified.
    t.fs()->select({});
    t.fs()->create(0x0102, CFileInfo(1, 8, pin, pin));
    t.fs()->select({0x0102});
    t.fs()->write(Bytes(8, 0x5A), 0);
    t.card.setAssumedVerified({});
    t.fs()->select({0x0102});
    EXPECT_EQ(t.fs()->info().read, pin);
    Bytes secret(8);
    EXPECT_EQ(codeOf([&] { t.fs()->read(secret, 0); }), 0x86E06900L);

    // Memory runs out after at most a few files of 32 KB.
    t.card.setAssumedVerified({pin});
    long code = 0;
    for (unsigned short id = 0x0700; id < 0x0704 && code == 0; ++id)
        code = codeOf([&] {
            t.fs()->select({});
            t.fs()->create(id, CFileInfo(1, 0x7FFF, 0, 0));
        });
    EXPECT_EQ(code, 0x86E06400L);
}

TEST_P(ProFs, VerifiedPinLastsWhileTheHostStaysInItsDirectory) {
    const unsigned char pin = t.userPin();
    t.card.verify(t.home(), pin);
    t.fs()->select({});
    t.fs()->create(0x0101, CFileInfo(1, 4, 0, pin));
    // Leaving the directory is the logout.
    t.fs()->select({0x3F00});
    t.fs()->select({});
    EXPECT_EQ(codeOf([&] { t.fs()->create(0x0102, CFileInfo(1, 4, 0, pin)); }), 0x86E06900L);
}

std::string paramName(const ::testing::TestParamInfo<std::tuple<Model, bool>>& info) {
    return std::string(modelName(std::get<0>(info.param))) +
           (std::get<1>(info.param) ? "Fips" : "Plain");
}

INSTANTIATE_TEST_SUITE_P(AllModels, ProFs,
                         ::testing::Combine(::testing::Values(Model::Pro16, Model::Pro32,
                                                              Model::Pro42, Model::Pro42b),
                                            ::testing::Bool()),
                         paramName);

TEST(ProFsStartUp, NoStartUpCommandWhenTheLifeCycleByteIsAnotherValue) {
    vtoken::pro::Personalisation p = ProToken::personalisation(Model::Pro32, false);
    vtoken::pro::ProCard card(vtoken::pro::personalise(p));
    card.state().lifeCycle = 0x20;
    auto token = bindToken(card, 0x1002);
    const auto& h = card.history();
    EXPECT_EQ(std::count(h.begin(), h.end(), Bytes{0x80, 0x10, 0x00, 0x00}), 0);
    EXPECT_EQ(std::count(h.begin(), h.end(), Bytes{0x00, 0xCA, 0x01, 0x83, 0x00}), 1);
}

}  // namespace
}  // namespace krfs::component
