// The virtual R2 card byte by byte: its little-endian commands and status
// words, its access rules, its PIN counter and its state file.
#include "r2/r2_card.h"

#include "component/vtoken/card_script.h"
#include "core/state_json.h"
#include "persist/token_file.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using vtoken::toHex;
using namespace vtoken::r2;

R2Card makeCard() {
    Personalisation p;
    p.userPin = "1234";
    p.maxTries = 3;
    p.label = "R2";
    p.id = fromHex("0A 0B 0C 0D");
    p.memoryTotal = 0x1000;
    return R2Card(personalise(p));
}

const char* kLogin = "00 20 00 00 05 04 31 32 33 34";
const char* kWrongPin = "00 20 00 00 05 04 31 31 31 31";
const char* kSelectRoot = "00 A4 00 00 04 00 01 00 3F 08";
const char* kSelectLabel = "00 A4 00 00 08 00 03 00 3F 00 80 AA AA 08";

// The answers the library's tests don't reach: the card's refusals and its
// memory figure. The host's side of the same commands runs end to end.
TEST(R2Card, CommandSetSpeaksLittleEndianFromTheCardsSide) {
    R2Card card = makeCard();
    play(card, R"(
        # free: 4096 less an eighth, less 16 per node and the label's 2 bytes
        00 DA 00 00 01 00 00 -> 0A 0B 0C 0D 02 01 00 10 00*8 DE 0D 00 00 00 90
        00 A4 00 00 08 00 03 00 3F 00 80 AA AA 08 -> AA AA 01 00 02 00 00 00 00 90  # the label
        00 B0 00 00 04 01 00 02 00 00 -> 00 6B               # past the end
        00 A4 00 00 04 00 01 00 80 08 -> 07 64               # a path starts at the root
        00 A4 00 00 04 00 02 00 3F 08 -> 00 67               # the count says two
        00 D2 00 00 03 00 04 02 00 -> 06 64                  # a file has no list
        00 E0 00 00 06 02 00 00 00 00 50 00 -> 82 69         # no login
        00 20 00 00 05 04 31 32 33 34 -> 00 90
        00 E0 00 00 06 02 00 00 00 00 50 00 -> 06 64         # nothing is created in a file
        00 D0 00 00 05 03 00 01 00 52 -> 00 6B               # starting past the end
        00 D0 00 00 06 01 00 02 00 52 52 -> 84 6A            # running past the end
        00 D0 00 00 08 00 00 05 00 DE AD BE EF -> 00 67      # Lc is the length plus 4
        00 E2 00 00 01 02 -> 06 64                           # a file is no directory
        00 A4 00 00 04 00 01 00 3F 08 -> ... 00 90
        00 E0 00 00 06 01 01 50 01 23 01 00 -> 00 90         # private 0123 of 0x150 bytes
        00 E0 00 00 06 01 00 04 00 23 01 00 -> 08 64         # 0123 exists
        00 E0 00 00 06 02 00 00 00 00 3F 00 -> 80 6A         # 3F00 is the root's
        00 E0 00 00 06 01 00 FF FF 00 50 00 -> 84 6A         # no room for 64 KB
        00 E2 00 00 01 02 -> 06 64                           # never the root
        00 A4 00 00 06 00 02 00 3F 00 80 08 -> 00 80 02 00 00 00 00 00 00 90
        00 E2 00 00 01 02 -> 06 64                           # nor a directory with a file
        00 A4 00 00 08 00 03 00 3F 00 80 AA AA 08 -> ... 00 90
        00 E2 00 00 01 01 -> 00 90                           # the label file
        00 D2 00 00 03 00 04 01 00 -> 00 00 00 90            # 8000 is selected, and empty
        00 E2 00 00 01 02 -> 00 90                           # so it goes too
        # the new file's 16 + 0x150 bytes taken, the 34 of the label given back
        00 DA 00 00 01 00 00 -> 0A 0B 0C 0D 02 01 00 10 00*8 A0 0C 00 00 00 90
        00 12 00 00 -> 00 6D
        00 D4 00 00 04 03 39 38 37 -> 80 6A                  # a new PIN of three bytes
        00 D4 00 00 12 11 31*17 -> 80 6A                     # or seventeen
        00 D4 00 00 04 05 39 38 37 -> 00 67
    )");
    const Node* file = card.state().find({0x0123});
    ASSERT_NE(file, nullptr) << "identifiers travel low byte first";
    EXPECT_TRUE(file->isPrivate);
}

TEST(R2Card, AccessNeedsTheUserPinVerifiedInThisSession) {
    R2Card card = makeCard();
    card.state().root.children.push_back(Node::file(0x0001, true, fromHex("11 22")));
    // Select, command, answer when allowed; each leaves the tree as it found it.
    const char* guarded[][3] = {
        {"00 A4 00 00 06 00 02 00 3F 01 00 08", "00 B0 00 00 04 00 00 02 00 00", "11 22 00 90"},
        {kSelectLabel, "00 D0 00 00 05 00 00 01 00 52", "00 90"},
        {kSelectRoot, "00 E0 00 00 06 02 00 00 00 00 50 00", "00 90"},
        {"00 A4 00 00 06 00 02 00 3F 00 50 08", "00 E2 00 00 01 02", "00 90"},
        {kSelectRoot, "00 D4 00 00 05 04 31 32 33 34", "00 90"},
    };
    auto phase = [&](const char* name, bool allowed) {
        for (const auto& g : guarded) {
            send(card, g[0]);
            EXPECT_EQ(send(card, g[1]), allowed ? g[2] : "82 69") << name << ": " << g[1];
        }
    };
    phase("before login", false);
    send(card, kLogin);
    phase("logged in", true);
    EXPECT_EQ(send(card, "00 DC 00 00 01 00"), "00 90");
    phase("after logout", false);
    // A power-up follows each power-off.
    for (auto event : {&R2Card::reset, &R2Card::powerOn}) {
        send(card, kLogin);
        send(card, kSelectLabel);
        (card.*event)();
        EXPECT_TRUE(card.session().selected.empty()) << "the root is selected";
        phase("after a power event", false);
    }
}

TEST(R2Card, WrongPinsCountDownToBlocked) {
    R2Card card = makeCard();
    const struct {
        const char* command;
        const char* answer;
        unsigned tries;
    } tries[] = {
        {"00 20 00 00 05 03 31 32 33 34", "00 67", 3},  // the length byte disagrees
        {kWrongPin, "16 64", 2},
        {kWrongPin, "16 64", 1},
        {kLogin, "00 90", 3},
        {kWrongPin, "16 64", 2},
        {kSelectLabel, "AA AA 01 00 02 00 00 00 00 90", 2},
        {"00 D0 00 00 05 00 00 01 00 52", "82 69", 2},  // a wrong PIN ends the login
        {kWrongPin, "16 64", 1},
        {kWrongPin, "16 64", 0},
        {kLogin, "83 69", 0},
        {kWrongPin, "83 69", 0},
    };
    for (const auto& t : tries) {
        EXPECT_EQ(send(card, t.command), t.answer) << t.command;
        EXPECT_EQ(card.state().pin.tries, t.tries) << t.command;
    }
}

TEST(R2Card, EveryChangeReachesTheStateFileAndTheSavedStateBehavesAlike) {
    StateFile file;
    vtoken::writeNewState(file.path, toJsonText(makeCard().state()), false);
    vtoken::StoredToken token(file.path);
    R2Card& card = *token.r2();
    play(card, R"(
        00 20 00 00 05 04 31 32 33 34 -> 00 90
        00 A4 00 00 04 00 01 00 3F 08 -> ... 00 90
        00 E0 00 00 06 01 01 04 00 23 01 00 -> 00 90
        00 A4 00 00 06 00 02 00 3F 23 01 08 -> 23 01 01 01 04 00 00 00 00 90
        00 D0 00 00 06 00 00 02 00 AB CD -> 00 90
        00 20 00 00 05 04 31 31 31 31 -> 16 64
    )");
    const std::string saved = vtoken::readTextFile(file.path);
    EXPECT_EQ(saved, toJsonText(card.state())) << "the last change is on file";

    R2Card again(fromJsonText(saved));
    EXPECT_EQ(toJsonText(again.state()), saved);
    for (const char* command :
         {kLogin, "00 A4 00 00 06 00 02 00 3F 23 01 08", "00 B0 00 00 04 00 00 04 00 00",
          "00 DA 00 00 01 00 00", kSelectRoot, "00 D2 00 00 03 00 04 01 00"})
        EXPECT_EQ(send(again, command), send(card, command)) << command;

    const std::string head =
        R"({"dialect": "r2", "id": "01 02 03 04", "version": "02 01", "memory_total": 4096,)"
        R"( "memory_free": 3000, "colour": 5)";
    R2Card old(fromJsonText(head + "}"));
    play(old, R"(
        00 D2 00 00 03 00 04 02 00 -> 00 00 00 90                      # an older file: no nodes
        00 20 00 00 0B 0A 31 32 33 34 35 36 37 38 39 30 -> 00 90       # and the default PIN
    )");
    for (const char* bad : {
             R"(, "root": {"id": "3F00", "type": "dir", "children": [)"
             R"({"id": "0001", "type": "dir"}, {"id": "0001", "type": "file"}]}})",
             R"(, "user_pin": {"pin": "31 32 33", "tries": 1, "max_tries": 3}})",
             R"(, "user_pin": {"pin": "31 32 33 34", "tries": 4, "max_tries": 3}})",
         })
        EXPECT_THROW(fromJsonText(head + bad), std::invalid_argument) << bad;
}

TEST(R2Card, PersonaliseRefusesWhatTheCardCouldNotHold) {
    const std::vector<std::function<void(Personalisation&)>> faults = {
        [](Personalisation& p) { p.userPin = "123"; },
        [](Personalisation& p) { p.label = std::string(33, 'x'); },
        [](Personalisation& p) { p.label = std::string("a\0b", 3); },
        [](Personalisation& p) { p.memoryTotal = 37; },  // 4 for the system, 34 for the label
    };
    for (std::size_t i = 0; i < faults.size(); ++i) {
        Personalisation p;
        p.label = "R2";
        faults[i](p);
        EXPECT_THROW(personalise(p), std::invalid_argument) << "fault " << i;
    }
    const std::string shown = describe(makeCard().state());
    for (const char* text : {"AAAA   file 2 bytes  public", "label       \"R2\"", "tries 3/3"})
        EXPECT_NE(shown.find(text), std::string::npos) << text << " in\n" << shown;
}

}  // namespace
}  // namespace krfs::component
