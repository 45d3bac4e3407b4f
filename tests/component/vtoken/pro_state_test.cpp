// What a fresh Pro token holds, and how its state is kept in a file.
#include "core/state_json.h"
#include "persist/token_file.h"
#include "pro/pro_crypto.h"
#include "pro/pro_state.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using namespace vtoken::pro;

// A private scratch directory, removed with its files.
class Scratch {
public:
    Scratch() {
        char name[] = "/tmp/krfs-vtoken-state-XXXXXX";
        path_ = ::mkdtemp(name);
    }
    ~Scratch() {
        for (const auto& f : files()) ::unlink((path_ + "/" + f).c_str());
        ::rmdir(path_.c_str());
    }
    std::string file(const char* name) const { return path_ + "/" + name; }
    std::vector<std::string> files() const {
        std::vector<std::string> out;
        if (DIR* d = ::opendir(path_.c_str())) {
            while (dirent* e = ::readdir(d))
                if (e->d_name[0] != '.') out.push_back(e->d_name);
            ::closedir(d);
        }
        return out;
    }

private:
    std::string path_;
};

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
    EXPECT_EQ(s.id.size(), 4u);
    EXPECT_EQ(s.home(), (Path{0x6666}));
    EXPECT_EQ(s.find({0x6666, 0x5000}), nullptr);

    const Node& home = at(s, {0x6666});
    ASSERT_EQ(home.pins.size(), 2u);
    EXPECT_EQ(home.pins[0].id, 0x01);
    EXPECT_EQ(home.pins[0].key, md5Key("user-pin")) << "the key, never the PIN";
    EXPECT_EQ(home.pins[1].id, 0x05);
    EXPECT_EQ(home.pins[1].key, md5Key("admin-pin"));
    EXPECT_EQ(home.pins[0].tries, 15);
    EXPECT_EQ(home.pins[0].maxTries, 15);
    EXPECT_EQ(home.right(right::kCreate), kUserPin);
    EXPECT_EQ(at(s, {0x6666, 0x0001}).data.size(), 16u);

    const Bytes counter = at(s, {0x6666, 0x1000, 0x0004}).data;
    ASSERT_EQ(counter.size(), 20u);
    EXPECT_EQ(Bytes(counter.begin(), counter.begin() + 4), fromHex("0F 0F 0F 0F"));
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0004}).right(right::kUpdate), right::kFree);

    Bytes utf8 = {'G', 'r', 0xC3, 0xBC, 0xC3, 0x9F, 'e'};
    utf8.resize(32);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0005}).data, utf8);
    Bytes legacy = {'G', 'r', '?', '?', 'e'};
    legacy.resize(32);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0002}).data, legacy);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0005}).right(right::kUpdate), kUserPin);
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0006}).data, Bytes{6});
    EXPECT_EQ(at(s, {0x6666, 0x1000, 0x0006}).right(right::kUpdate), right::kNever);
}

TEST(ProLayout, FipsTokenKeepsItsFilesAndKeyObjectsUnder5000) {
    Personalisation p;
    p.fips = true;
    p.label = "fips";
    p.colour = 2;
    const ProState s = personalise(p);
    EXPECT_EQ(s.home(), (Path{0x6666, 0x5000}));
    EXPECT_EQ(s.find({0x6666, 0x1000}), nullptr);
    EXPECT_NE(s.find({0x6666, 0x0001}), nullptr) << "the marker stays under 6666";

    const Node& home = at(s, {0x6666, 0x5000});
    std::vector<unsigned char> ids;
    for (const auto& pin : home.pins) ids.push_back(pin.id);
    EXPECT_EQ(ids, (std::vector<unsigned char>{0x11, 0x12, 0x13, 0x1A, 0x1B, 0x1C}));
    EXPECT_TRUE(at(s, {0x6666}).pins.empty());

    EXPECT_EQ(at(s, {0x6666, 0x5000, 0x0002}).data.size(), 32u);
    EXPECT_EQ(at(s, {0x6666, 0x5000, 0x0002}).right(right::kUpdate), kFipsUserPin);
    EXPECT_EQ(at(s, {0x6666, 0x5000, 0x000A}).data, fromHex("00 00 02"));
    const Bytes counter = at(s, {0x6666, 0x5000, 0x000F}).data;
    ASSERT_EQ(counter.size(), 43u);
    EXPECT_EQ(counter[41], 0x0F);
    EXPECT_EQ(counter[42], 0x0F);

    // Both sets hold the user PIN's keys salted by the counter file: the MAC
    // key in the PIN and signature objects, the cipher key in between.
    const Bytes salt(counter.begin(), counter.begin() + 20);
    const Bytes mac = saltedKey(1, p.userPin, salt);
    const Bytes enc = saltedKey(3, p.userPin, salt);
    EXPECT_NE(mac, enc);
    for (unsigned char id : {0x11, 0x13, 0x1A, 0x1C}) EXPECT_EQ(home.pin(id)->key, mac) << +id;
    for (unsigned char id : {0x12, 0x1B}) EXPECT_EQ(home.pin(id)->key, enc) << +id;
    EXPECT_EQ(s.salt(), salt);
}

TEST(ProStateJson, OlderFilesWithPlainPinsGetTheirKeysWhenLoaded) {
    for (bool fips : {false, true}) {
        Personalisation p;
        p.fips = fips;
        p.userPin = "older-pin";
        const ProState fresh = personalise(p);
        std::string text = toJsonText(fresh);
        // Each "key": "..." becomes "pin": "older-pin".
        for (std::size_t at = text.find("\"key\": \""); at != std::string::npos;
             at = text.find("\"key\": \"", at)) {
            const std::size_t end = text.find('"', at + 8);
            text.replace(at, end + 1 - at, "\"pin\": \"older-pin\"");
        }
        ASSERT_EQ(text.find("\"key\""), std::string::npos);
        const ProState back = fromJsonText(text);
        EXPECT_EQ(toJsonText(back), toJsonText(fresh)) << "FIPS " << fips;
    }
}

TEST(ProLayout, PersonalisationRefusesWhatNoTokenHolds) {
    Personalisation p;
    p.label = std::string(33, 'x');
    EXPECT_THROW(personalise(p), std::invalid_argument);
    p.label = std::string(32, 'x');
    EXPECT_NO_THROW(personalise(p));
    p.fips = true;
    p.adminPin = "1234";
    EXPECT_THROW(personalise(p), std::invalid_argument) << "no administrator on FIPS";
    p = Personalisation{};
    p.userPin.clear();
    EXPECT_THROW(personalise(p), std::invalid_argument);
    p = Personalisation{};
    p.id = Bytes{1, 2, 3};
    EXPECT_THROW(personalise(p), std::invalid_argument);
    EXPECT_NE(personalise({}).id, personalise({}).id) << "random identifiers";
}

TEST(ProStateJson, RoundTripKeepsEverything) {
    Personalisation p;
    p.model = Model::Pro42b;
    p.label = "round trip";
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
    EXPECT_EQ(back.id, s.id);
    EXPECT_EQ(back.find({0x6666, 0x0001})->data, fromHex("00 11 22"));
    EXPECT_EQ(back.find({0x6666})->pins.size(), 2u);
    ASSERT_EQ(back.faults.refuse.size(), 1u);
    EXPECT_EQ(back.faults.refuse[0].status, 0x6A82);
    EXPECT_EQ(back.faults.truncate[0].keep, 10u);
    EXPECT_EQ(back.faults.muteAfter, 5u);
    EXPECT_FALSE(back.faults.vanishAt);
}

TEST(ProStateJson, BrokenStatesAreRefusedWithTheirFault) {
    const std::string good = toJsonText(personalise({}));
    auto refused = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        auto at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        text.replace(at, from.size(), to);
        EXPECT_THROW(fromJsonText(text), std::invalid_argument) << to;
    };
    refused("\"pro42\"", "\"pro99\"");
    refused("\"dialect\": \"pro\"", "\"dialect\": \"r2\"");
    refused("\"id\": \"", "\"id\": \"0");
    refused("\"type\": \"file\"", "\"type\": \"link\"");
    refused("\"0004\"", "\"0005\"");  // two children 0005
    refused("\"key\": \"", "\"key\": \"00");
    refused("\"tries\": 15", "\"tries\": 16");  // above max_tries
    refused("\"max_tries\": 15", "\"max_tries\": 300");
    refused("\"fips\": false", "\"fips\": 0");
    EXPECT_THROW(fromJsonText("{"), std::invalid_argument);
}

TEST(StoredToken, EveryChangeIsWrittenBackAndNothingElse) {
    Scratch dir;
    const std::string path = dir.file("token.json");
    Personalisation p;
    p.id = Bytes{1, 2, 3, 4};
    vtoken::writeNewState(path, toJsonText(personalise(p)), false);
    EXPECT_THROW(vtoken::writeNewState(path, "{}", false), std::runtime_error);

    {
        vtoken::StoredToken token(path);
        ASSERT_NE(token.pro(), nullptr);
        EXPECT_EQ(token.dialect(), "pro");
        vtoken::ICard& card = token.card();
        card.process(fromHex("00 A4 08 00 04 66 66 00 01 00"));
        EXPECT_EQ(card.process(fromHex("00 D6 00 00 02 CA FE")), fromHex("90 00"));
        EXPECT_EQ(fromJsonText(vtoken::readTextFile(path)).find({0x6666, 0x0001})->data[1], 0xFE);

        // Reading writes nothing: with the file gone, it stays gone.
        ::unlink(path.c_str());
        card.process(fromHex("00 B0 00 00 02"));
        card.process(fromHex("00 CA 01 81 00"));
        EXPECT_TRUE(dir.files().empty());
        card.process(fromHex("00 D6 00 00 01 00"));
        EXPECT_EQ(dir.files(), std::vector<std::string>{"token.json"}) << "no temporary left";
    }
    vtoken::StoredToken again(path);
    EXPECT_EQ(again.pro()->state().find({0x6666, 0x0001})->data[0], 0x00);
    EXPECT_EQ(again.pro()->state().find({0x6666, 0x0001})->data[1], 0xFE);
    EXPECT_NE(again.describe().find("0001   file 16 bytes"), std::string::npos);
}

TEST(StoredToken, R2StateAndFaultsComeBackFromTheFile) {
    Scratch dir;
    const std::string path = dir.file("r2.json");
    vtoken::r2::R2State s;
    s.id = fromHex("0A 0B 0C 0D");
    s.colour = 7;
    s.faults.vanishAt = 3;
    vtoken::writeNewState(path, vtoken::r2::toJsonText(s), false);
    vtoken::StoredToken token(path);
    ASSERT_NE(token.r2(), nullptr);
    EXPECT_EQ(token.card().atr(), fromHex("3B 81 1F 00 CC 52"));
    EXPECT_EQ(token.faults().vanishAt, 3u);
    const Bytes answer = token.card().process(fromHex("00 DA 00 00 01 00 00"));
    EXPECT_EQ(answer, fromHex("0A 0B 0C 0D 02 01 00 80 00 00 00 00 00 00 00 00 00 70 07 00 00 90"));

    vtoken::writeNewState(dir.file("bad.json"), "{\"dialect\": \"gost\"}", false);
    EXPECT_THROW(vtoken::StoredToken(dir.file("bad.json")), std::invalid_argument);
    EXPECT_THROW(vtoken::StoredToken(dir.file("none.json")), std::runtime_error);
}

}  // namespace
