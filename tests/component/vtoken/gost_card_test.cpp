// The virtual Gost applet byte by byte on the Java card: its object store,
// status record, PINs, label, memory accounting and state file.
#include "gost/gost_applet.h"

#include "component/vtoken/card_script.h"
#include "core/state_json.h"
#include "javacard/javacard.h"
#include "persist/java_dialects.h"
#include "persist/token_file.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using vtoken::toHex;
using namespace vtoken::gost;
using vtoken::javacard::JavaCard;

Personalisation smallToken() {
    Personalisation p;
    p.userPin = "123456";
    p.adminPin = "654321";
    p.triesTotal = 3;
    p.label = "GOST";
    p.id = fromHex("11 12 13 14 15 16 17 18");
    p.memory = 1000;
    return p;
}

std::unique_ptr<JavaCard> makeCard(const Personalisation& p = smallToken()) {
    std::vector<std::unique_ptr<vtoken::javacard::Applet>> applets;
    applets.push_back(std::make_unique<GostApplet>(personalise(p)));
    return std::make_unique<JavaCard>(vtoken::javacard::defaultAtr(), std::move(applets));
}

const char* kSelect = "00 A4 04 00 0A A0 00 00 04 48 01 01 01 06 02 00";
const char* kStatus = "80 15 10 00 01 01";
const char* kLogin = "80 10 20 00 08 01 06 31 32 33 34 35 36";

TEST(GostCard, ObjectStoreStory) {
    auto card = makeCard();
    play(*card, R"(
        80 15 10 00 01 01 -> 69 99                       # no applet selected yet
        00 A4 04 00 03 A0 00 00 00 -> 6A 82              # an AID the card lacks
        00 A4 04 00 0A A0 00 00 04 48 01 01 01 06 02 00 -> 90 00
        00 A4 04 00 03 A0 00 00 00 -> 6A 82              # which keeps the applet
        80 15 10 00 01 01                                # 1000 less three system objects
          -> 00 01 00 00 00 00 03 00 00 03 88 03 00 00 00 00 11 12 13 14 15 16 17 18 90 00
        80 12 10 00 01 01 -> 01 00 03 01 00 01 01 01 01 01 02 02 90 00  # two PINs, the label
        80 12 20 00 01 04 00 -> 6D 10                    # no login
        80 10 20 00 05 01 03 31 31 31 -> 6D A0
        80 10 20 00 08 01 06 31 32 33 34 35 36 -> 90 00
        80 12 20 00 01 04 00 -> 01 03 90 00
        80 12 20 00 01 04 00 -> 01 04 90 00
        80 13 30 00 09 01 04 02 00 00 00 00 01 01 00 -> 90 00           # 0104 private
        80 13 30 00 00 01 34 01 04 11 00 00 00 01 2C AB*300 00 -> 90 00  # a three-byte Lc
        80 13 30 00 0C 01 03 1E F1 00 80 00 04 00 3F 01 00 00 -> 90 00  # a path 3F00 0001
        # the id asked low byte first, answered big endian
        80 13 20 00 06 01 03 1E F1 00 80 00 -> 01 03 80 00 F1 1E 00 04 00 3F 01 00 90 00
        80 15 20 00 01 01 -> 90 00
        80 15 20 00 01 01 -> 6D 01                       # nobody is logged in
        80 13 20 00 06 01 04 11 00 00 00 00 -> 6D 82     # a private value
        80 13 20 00 06 01 04 02 00 00 00 00 -> 01 04 00 00 00 02 00 01 01 90 00
        80 13 20 00 06 01 04 99 00 00 00 00 -> 6D 12
        80 13 20 00 06 01 99 11 00 00 00 00 -> 6D 12
        80 10 20 00 08 01 06 31 32 33 34 35 36 -> 90 00
        80 13 20 00 06 01 04 11 00 00 00 00 -> 01 04 00 00 00 11 01 2C AB*300 90 00
        80 15 10 00 01 01                   # 1000 less 5 objects, 3 attributes, 305 value bytes
          -> 01 01 00 00 00 00 05 00 00 01 FF 03 00 00 00 00 11 12 13 14 15 16 17 18 90 00
        80 13 30 00 00 03 34 01 04 11 00 00 00 03 2C CD*812 00 -> 6D 06  # a byte more than free
        80 13 20 00 06 01 04 11 00 00 00 00 -> 01 04 00 00 00 11 01 2C AB*300 90 00  # as it was
        80 13 30 00 00 03 33 01 04 11 00 00 00 03 2B CD*811 00 -> 90 00  # exactly what is free
        80 15 10 00 01 01
          -> 01 01 00 00 00 00 05 00 00 00 00 03 00 00 00 00 11 12 13 14 15 16 17 18 90 00
        80 12 20 00 01 04 00 -> 6D 06
        80 12 30 00 02 01 00 00 -> 6D 10                 # a system object stays
        80 13 30 00 09 01 02 02 00 00 00 00 01 01 00 -> 6D 10
        80 12 30 00 02 01 99 00 -> 6D 12
        80 12 30 00 02 01 04 00 -> 90 00
        80 12 20 00 01 04 00 -> 01 04 90 00              # the smallest free handle again
        80 17 10 00 01 01 -> 04 47 4F 53 54 20*28 90 00
        80 17 20 00 03 41 42 43 02 -> 90 00
        80 17 10 00 01 01 -> 03 41 42 43 20*29 90 00
        80 14 40 00 02 00 00 00 -> 90 00                 # no random bytes asked
    )");
    const Bytes random = card->process(fromHex("80 14 40 00 02 00 20 00"));
    ASSERT_EQ(random.size(), 34u);
    EXPECT_NE(Bytes(random.begin(), random.end() - 2), Bytes(32, random[0]));

    card->reset();
    play(*card, R"(
        80 15 10 00 01 01 -> 69 99                       # a reset forgets the selection
        00 A4 04 00 0A A0 00 00 04 48 01 01 01 06 02 00 -> 90 00
        80 13 20 00 06 01 03 1E F1 00 80 00 -> 01 03 80 00 F1 1E 00 04 00 3F 01 00 90 00
        80 12 20 00 01 04 00 -> 6D 10                    # and the login
        80 15 20 00 01 01 -> 6D 01
    )");
}

TEST(GostCard, PinCountersBlockAndChange) {
    auto card = makeCard();
    send(*card, kSelect);
    const std::string change33 = expand("80 10 10 00 26 01 02 21 39 39 31*33");
    const struct {
        const char* command;
        const char* answer;
        const char* counters;  // status bytes 0 and 11 to 13
    } steps[] = {
        {"80 10 20 00 04 01 02 39 39", "6D A0", "00 03 01 00"},
        {"80 10 20 00 04 00 02 39 39", "6D A0", "00 03 01 01"},
        {kLogin, "90 00", "01 03 00 01"},
        {"80 10 10 00 09 01 06 00 31 32 33 34 35 36", "6D 63", "01 03 00 01"},
        {change33.c_str(), "6D 63", "01 03 00 01"},  // a new PIN of 33 bytes
        {"80 10 10 00 09 01 02 04 39 39 39 39 39 39", "6D A0", "00 03 01 01"},
        {"80 10 10 00 0D 01 06 04 31 32 33 34 35 36 39 39 39 39", "90 00", "00 03 00 01"},
        {kLogin, "6D A0", "00 03 01 01"},
        {"80 10 20 00 06 01 04 39 39 39 39", "90 00", "01 03 00 01"},
        {"80 10 20 00 04 00 02 39 39", "6D A0", "01 03 00 02"},
        {"80 10 20 00 04 00 02 39 39", "6D A4", "01 03 00 03"},
        {"80 10 20 00 08 00 06 36 35 34 33 32 31", "6D A4", "01 03 00 03"},
        {"80 10 10 00 09 00 06 00 36 35 34 33 32 31", "6D A4", "01 03 00 03"},
        {"80 10 20 00 05 01 06 31 32 33", "6D 13", "01 03 00 03"},
        {"80 10 20 00 04 02 02 39 39", "6D 13", "01 03 00 03"},
        {"80 15 20 00 01 01", "90 00", "00 03 00 03"},
    };
    for (const auto& s : steps) {
        EXPECT_EQ(send(*card, s.command), s.answer) << s.command;
        const Bytes status = card->process(fromHex(kStatus));
        ASSERT_EQ(status.size(), 26u);
        EXPECT_EQ(toHex({status[0], status[11], status[12], status[13]}), s.counters) << s.command;
    }
}

TEST(GostCard, RefusesCommandsOfAnotherShape) {
    auto card = makeCard();
    play(*card, R"(
        00 A4 04 00 0A A0 00 00 04 48 01 01 01 06 02 00 -> 90 00
        80 10 20 00 08 01 06 31 32 33 34 35 36 -> 90 00
        80 12 20 00 01 04 00 -> 01 03 90 00
        80 12 20 00 01 04 -> 6D 13                       # no Le
        80 12 20 00 01 03 00 -> 6D 13                    # only data objects
        80 12 20 01 01 04 00 -> 6D 13                    # P2
        80 12 10 00 01 01 00 -> 6D 13                    # the list has no Le
        80 12 10 00 01 02 -> 6D 13
        80 13 30 00 09 01 03 02 00 00 00 00 02 01 00 -> 6D 13        # LL LL says 2, one follows
        80 13 30 00 00 00 09 01 03 02 00 00 00 00 01 01 -> 6D 13     # no trailing 00
        80 13 30 00 00 00 09 01 03 02 00 00 00 00 01 01 00 -> 90 00  # a long Lc may be small
        80 13 30 00 00 00 09 01 03 00 -> 6D 13           # a long Lc of more than follows
        80 13 20 00 05 01 03 02 00 00 00 -> 6D 13
        80 17 20 00 02 41 42 -> 6D 13                    # a label ends in 02
        80 17 20 00 01 41 42 02 -> 6D 13                 # the length byte of a long label
        80 17 20 00 21 41*33 02 -> 6D 13                 # 33 bytes
        80 17 20 00 20 41*32 02 -> 90 00                 # 32 bytes
        80 14 40 00 02 40 01 00 -> 6D 13                 # more random bytes than one answer
        80 15 10 00 01 01 00 -> 6D 13
        00 12 10 00 01 01 -> 6D 00                       # CLA 00
        80 99 00 00 -> 6D 00
        80 12 40 00 01 01 -> 6D 00
        80 13 -> 6D 13
    )");
}

TEST(GostCard, StateFileFollowsEveryChangeButNotTheSession) {
    StateFile file;
    vtoken::writeNewState(file.path, vtoken::javacard::toJsonText(*makeCard(), "gost"), false);
    vtoken::StoredToken token(file.path);
    JavaCard& card = *token.java();
    play(card, R"(
        00 A4 04 00 0A A0 00 00 04 48 01 01 01 06 02 00 -> 90 00
        80 10 20 00 04 00 02 39 39 -> 6D A0
        80 10 20 00 08 01 06 31 32 33 34 35 36 -> 90 00
        80 12 20 00 01 04 00 -> 01 03 90 00
        80 13 30 00 0A 01 03 11 00 00 00 00 02 AB CD 00 -> 90 00
        80 17 20 00 01 5A 02 -> 90 00
    )");
    const std::string saved = vtoken::readTextFile(file.path);
    EXPECT_EQ(saved, vtoken::javacard::toJsonText(card, "gost")) << "the last change is on file";

    auto again = vtoken::javacard::fromJsonText(saved, "gost", &vtoken::loadApplet);
    EXPECT_EQ(vtoken::javacard::toJsonText(*again, "gost"), saved);
    // Logged out; 1000 - 4 * 32 - 8 - 2 free; one wrong administrator PIN.
    play(*again, R"(
        00 A4 04 00 0A A0 00 00 04 48 01 01 01 06 02 00 -> 90 00
        80 15 10 00 01 01
          -> 00 01 00 00 00 00 04 00 00 03 5E 03 00 01 00 00 11 12 13 14 15 16 17 18 90 00
        80 17 10 00 01 01 -> 01 5A 20*31 90 00
    )");

    const auto state = [&](const std::string& field) {
        auto j = nlohmann::ordered_json::parse(saved)["applets"][0]["state"];
        auto patch = nlohmann::ordered_json::parse("{" + field + "}");
        for (auto& [k, v] : patch.items()) j[k] = v;
        return j;
    };
    for (const std::string& bad : std::vector<std::string>{
             R"("objects": [{"handle": "0100", "type": 1}, {"handle": "0100", "type": 4}])",
             R"("objects": [{"handle": "0050", "type": 4}])",
             R"("objects": [{"handle": "0100", "type": 4, "attributes": [)"
             R"({"id": "00000011", "value": "01"}, {"id": "00000011", "value": "02"}]}])",
             R"("user_pin": {"pin": "31", "wrong": 4})",
             R"("admin_pin": {"pin": "", "wrong": 0})",
             R"("label": ")" + expand("41*33") + "\"",
             R"("id": "01 02")",
         })
        EXPECT_THROW(fromJson(state(bad)), std::invalid_argument) << bad;
}

TEST(GostCard, PersonaliseRefusesWhatTheCardCouldNotHold) {
    // 3 system objects, a private file's two, and its 5 attributes.
    const std::size_t fitsExactly = 5 * 32 + 5 * 8 + 2 + 4 + 2 + 1 + 2;
    const std::vector<std::function<void(Personalisation&)>> faults = {
        [](Personalisation& p) { p.triesTotal = 0; },
        [](Personalisation& p) { p.userPin = ""; },
        [](Personalisation& p) { p.adminPin = std::string(33, '1'); },
        [](Personalisation& p) { p.label = std::string(33, 'x'); },
        [](Personalisation& p) { p.id = Bytes(7, 0); },
        [](Personalisation& p) {
            p.files = {{{0x3F00}, {}, false}};
        },
        [](Personalisation& p) {
            p.files = {{{0x3F00, 1}, {}, false}, {{0x3F00, 1, 2}, {}, false}};
        },
        [](Personalisation& p) {
            p.files = {{{0x3F00, 1}, Bytes(0x4001, 0), false}};
        },
        [&](Personalisation& p) {
            p.memory = fitsExactly - 1;
            p.files = {{{0x3F00, 1}, Bytes(2, 0), true}};
        },
    };
    for (std::size_t i = 0; i < faults.size(); ++i) {
        Personalisation p = smallToken();
        faults[i](p);
        EXPECT_THROW(personalise(p), std::invalid_argument) << "fault " << i;
    }
    Personalisation fits = smallToken();
    fits.memory = fitsExactly;
    fits.files = {{{0x3F00, 1}, Bytes(2, 0), true}};
    EXPECT_EQ(personalise(fits).memoryFree(), 0u);
    // The host reads personalised files end to end; their cost shows here.
    fits.memory = 4000;
    fits.files = {{{0x3F00, 0x1000, 0x0001}, fromHex("DE AD BE EF"), true},
                  {{0x3F00, 0x0002}, {}, false}};
    const std::string shown = describe(personalise(fits));
    for (const char* text : {"3F00/1000/0001  4 bytes  private", "3F00/0002  0 bytes  public",
                             "memory      4000 bytes, 3722 free", "label       \"GOST\""})
        EXPECT_NE(shown.find(text), std::string::npos) << text << " in\n" << shown;
    EXPECT_EQ(parsePath("1000/a0B1"), (Path{0x3F00, 0x1000, 0xA0B1}));
    for (const char* bad : {"3F00//0001", "3F00/001", "", "3F00/1000/"})
        EXPECT_THROW(parsePath(bad), std::invalid_argument) << bad;
}

}  // namespace
}  // namespace krfs::component
