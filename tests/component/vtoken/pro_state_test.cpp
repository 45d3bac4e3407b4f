// What a fresh Pro token holds, and how its state is kept in a file.
#include "core/state_json.h"
#include "persist/token_file.h"
#include "pro/pro_crypto.h"
#include "pro/pro_state.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using namespace vtoken::pro;

const Node& at(const ProState& s, const Path& path) {
    const Node* n = s.find(path);
    if (!n) throw std::runtime_error("missing node");
    return *n;
}

TEST(ProLayout, PlainTokenHoldsHomeInformationFilesAndItsTwoPins) {
    Personalisation p;
    p.model = Model::Pro32;
    p.label = "Grüße";
    p.userPin = "user-pin";
    p.adminPin = "admin-pin";
    p.colour = 6;
    const ProState s = personalise(p);
    EXPECT_EQ(s.home(), (Path{0x6666}));
    const Node& home = at(s, {0x6666});
    ASSERT_EQ(home.pins.size(), 2u);
    EXPECT_EQ(home.pins[0].id, 0x01);
    EXPECT_EQ(home.pins[0].key, md5Key("user-pin")) << "the key, never the PIN";
    EXPECT_EQ(home.pins[1].id, 0x05);
    EXPECT_EQ(home.pins[1].key, md5Key("admin-pin"));
    EXPECT_EQ(home.right(right::kCreate), kUserPin);
    EXPECT_EQ(at(s, {0x6666, 0x0001}).data.size(), 16u);
    const Node& counter = at(s, {0x6666, 0x1000, 0x0004});
    EXPECT_EQ(Bytes(counter.data.begin(), counter.data.begin() + 4), fromHex("0F 0F 0F 0F"));
    EXPECT_EQ(counter.data.size(), 20u);
    EXPECT_EQ(counter.right(right::kUpdate), right::kFree);
    Bytes utf8 = {'G', 'r', 0xC3, 0xBC, 0xC3, 0x9F, 'e'}, legacy = {'G', 'r', '?', '?', 'e'};
    utf8.resize(32);
    legacy.resize(32);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0005}).data, utf8);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0002}).data, legacy);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0005}).right(right::kUpdate), kUserPin);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0006}).data, Bytes{6});
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0006}).right(right::kUpdate), right::kNever);
}

TEST(ProLayout, FipsTokenKeepsItsFilesAndKeyObjectsUnder5000) {
    Personalisation p;
    p.fips = true;
    p.colour = 2;
    const ProState s = personalise(p);
    EXPECT_EQ(s.home(), (Path{0x6666, 0x5000}));
    EXPECT_EQ(s.find({0x6666, 0x1000}), nullptr);
    EXPECT_TRUE(at(s, {0x6666}).pins.empty());
    EXPECT_EQ(at(s, {0x6666, 0x5000, 0x0002}).right(right::kUpdate), kFipsUserPin);
    EXPECT_EQ(at(s, {0x6666, 0x5000, 0x000A}).data, fromHex("00 00 02"));
    const Bytes counter = at(s, {0x6666, 0x5000, 0x000F}).data;
    ASSERT_EQ(counter.size(), 43u);
    EXPECT_EQ(counter[41] + counter[42], 0x0F + 0x0F);
    // Both sets hold the user PIN's keys salted by the counter file: the MAC
    // key in the PIN and signature objects, the cipher key in between.
    const Bytes salt(counter.begin(), counter.begin() + 20);
    EXPECT_EQ(s.salt(), salt);
    const Node& home = at(s, {0x6666, 0x5000});
    ASSERT_EQ(home.pins.size(), 6u);
    for (const auto& [id, keyId] :
         {std::pair{0x11, 1}, {0x12, 3}, {0x13, 1}, {0x1A, 1}, {0x1B, 3}, {0x1C, 1}})
        EXPECT_EQ(home.pin(id)->key, saltedKey(keyId, p.userPin, salt)) << id;
}

TEST(ProLayout, PersonalisationRefusesWhatNoTokenHolds) {
    Personalisation label33, fipsAdmin, noPin, shortId;
    label33.label = std::string(33, 'x');
    fipsAdmin.fips = true;
    fipsAdmin.adminPin = "1234";
    noPin.userPin.clear();
    shortId.id = Bytes{1, 2, 3};
    for (const auto* p : {&label33, &fipsAdmin, &noPin, &shortId})
        EXPECT_THROW(personalise(*p), std::invalid_argument);
    label33.label.pop_back();
    EXPECT_NO_THROW(personalise(label33)) << "32 bytes fit";
    EXPECT_NE(personalise({}).id, personalise({}).id) << "random identifiers";
}

TEST(ProStateJson, RoundTripOlderPlainPinsAndBrokenStates) {
    Personalisation p;
    p.model = Model::Pro42b;
    ProState s = personalise(p);
    s.lifeCycle = 0x20;
    s.assumeVerified = {0x01};
    s.faults.refuse.push_back({{0x00, 0xB0}, 0x6A82});
    s.faults.truncate.push_back({{0x00, 0xCA, 0x01, 0x81}, 10});
    s.faults.muteAfter = 5;
    s.mf.children[0].children[0].data = fromHex("00 11 22");
    const std::string text = toJsonText(s);
    const ProState back = fromJsonText(text);
    EXPECT_EQ(toJsonText(back), text);
    EXPECT_EQ(back.model, Model::Pro42b);
    EXPECT_EQ(back.lifeCycle, 0x20);
    EXPECT_EQ(back.find({0x6666, 0x0001})->data, fromHex("00 11 22"));
    EXPECT_EQ(back.faults.refuse[0].status, 0x6A82);
    EXPECT_EQ(back.faults.truncate[0].keep, 10u);
    EXPECT_EQ(back.faults.muteAfter, 5u);

    // Older files name the PIN instead of its key: loading derives the key.
    for (bool fips : {false, true}) {
        Personalisation older;
        older.fips = fips;
        older.userPin = "older-pin";
        const std::string fresh = toJsonText(personalise(older));
        std::string plain = fresh;
        for (auto at = plain.find("\"key\": \""); at != std::string::npos;
             at = plain.find("\"key\": \"", at))
            plain.replace(at, plain.find('"', at + 8) + 1 - at, "\"pin\": \"older-pin\"");
        EXPECT_EQ(toJsonText(fromJsonText(plain)), fresh) << "FIPS " << fips;
    }

    const std::string good = toJsonText(personalise({}));
    const std::pair<std::string, std::string> faults[] = {
        {"\"pro42\"", "\"pro99\""},
        {"\"dialect\": \"pro\"", "\"dialect\": \"r2\""},
        {"\"id\": \"", "\"id\": \"0"},
        {"\"type\": \"file\"", "\"type\": \"link\""},
        {"\"0004\"", "\"0005\""},  // two children 0005
        {"\"key\": \"", "\"key\": \"00"},
        {"\"tries\": 15", "\"tries\": 16"},  // above max_tries
        {"\"max_tries\": 15", "\"max_tries\": 300"},
        {"\"fips\": false", "\"fips\": 0"},
    };
    for (const auto& [from, to] : faults) {
        std::string broken = good;
        ASSERT_NE(broken.find(from), std::string::npos) << from;
        broken.replace(broken.find(from), from.size(), to);
        EXPECT_THROW(fromJsonText(broken), std::invalid_argument) << to;
    }
    EXPECT_THROW(fromJsonText("{"), std::invalid_argument);
}

TEST(StoredToken, EveryChangeIsWrittenBackAndNothingElse) {
    char name[] = "/tmp/krfs-vtoken-state-XXXXXX";
    const std::filesystem::path dir = ::mkdtemp(name), path = dir / "token.json";
    Personalisation p;
    p.id = Bytes{1, 2, 3, 4};
    vtoken::writeNewState(path, toJsonText(personalise(p)), false);
    EXPECT_THROW(vtoken::writeNewState(path, "{}", false), std::runtime_error);
    {
        vtoken::StoredToken token(path);
        ASSERT_NE(token.pro(), nullptr);
        vtoken::ICard& card = token.card();
        card.process(fromHex("00 A4 08 00 04 66 66 00 01 00"));
        EXPECT_EQ(card.process(fromHex("00 D6 00 00 02 CA FE")), fromHex("90 00"));
        EXPECT_EQ(fromJsonText(vtoken::readTextFile(path)).find({0x6666, 0x0001})->data[1], 0xFE);
        // Reading writes nothing: with the file gone, it stays gone.
        std::filesystem::remove(path);
        card.process(fromHex("00 B0 00 00 02"));
        card.process(fromHex("00 CA 01 81 00"));
        EXPECT_TRUE(std::filesystem::is_empty(dir));
        card.process(fromHex("00 D6 00 00 01 00"));
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 1)
            << "no temporary left";
    }
    vtoken::StoredToken again(path);
    EXPECT_EQ(again.pro()->state().find({0x6666, 0x0001})->data[1], 0xFE);
    EXPECT_NE(again.describe().find("0001   file 16 bytes"), std::string::npos);

    vtoken::r2::R2State r2;
    r2.id = fromHex("0A 0B 0C 0D");
    r2.faults.vanishAt = 3;
    vtoken::writeNewState(dir / "r2.json", vtoken::r2::toJsonText(r2), false);
    vtoken::StoredToken stored(dir / "r2.json");
    ASSERT_NE(stored.r2(), nullptr);
    EXPECT_EQ(stored.faults().vanishAt, 3u);
    EXPECT_EQ(stored.card().process(fromHex("00 DA 00 00 01 00 00")).front(), 0x0A);
    vtoken::writeNewState(dir / "bad.json", "{\"dialect\": \"gost\"}", false);
    EXPECT_THROW(vtoken::StoredToken(dir / "bad.json"), std::invalid_argument);
    EXPECT_THROW(vtoken::StoredToken(dir / "none.json"), std::runtime_error);
    std::filesystem::remove_all(dir);
}

}  // namespace
