// The virtual DataStore applet byte by byte on the Java card: its record
// pool and update buffer, PIN counters, label, status record, session ends,
// fault knobs and stored state.
#include "datastore/datastore_card.h"

#include "component/vtoken/card_script.h"
#include "core/state_json.h"
#include "persist/token_file.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using vtoken::toHex;
using namespace vtoken::datastore;

const char* kSelect = "00 A4 04 00 08 A0 00 00 04 48 00 03 01 00";
const char* kLogin = "80 10 10 00 06 00 04 31 32 33 34";
const char* kStatus = "80 30 30 00 1E";

std::unique_ptr<vtoken::javacard::JavaCard> makeCard(std::size_t memory = 200) {
    Personalisation p;
    p.userPin = "1234";
    p.pinTries = 3;
    p.label = "DS";
    p.id = fromHex("01 02 03 04 05 06 07 08");
    p.memory = memory;
    std::vector<std::unique_ptr<vtoken::javacard::Applet>> applets;
    applets.push_back(std::make_unique<DataStoreApplet>(personalise(p)));
    auto card = std::make_unique<vtoken::javacard::JavaCard>(vtoken::javacard::defaultAtr(),
                                                             std::move(applets));
    EXPECT_EQ(send(*card, kSelect), "90 00");
    return card;
}

DataStoreApplet& applet(vtoken::javacard::JavaCard& card) { return *card.find<DataStoreApplet>(); }

TEST(DataStoreCard, RecordsLiveThroughTheUpdateBuffer) {
    auto card = makeCard();
    play(*card, R"(
        80 30 30 00 1E -> 01 00 00 00 C8 00 C8 00 00 00 00 00 00 03 03 03 04 04 04 10 10 10 \
          01 02 03 04 05 06 07 08 90 00
        80 20 60 00 02 00 00 00 -> 90 00                 # no records
        80 20 10 00 02 00 04 00 -> 67 09                 # begin needs the user PIN
        80 20 20 00 02 00 01 00 -> 67 09
        80 10 10 00 06 00 04 31 32 33 34 -> 90 00
        80 20 50 00 03 00 00 01 00 -> 67 0A              # finish with no buffer
        80 20 10 00 02 00 04 00 -> 90 00
        80 20 40 00 07 00 01 00 02 AA BB CC 00 -> 67 0A  # NN says 2, three bytes come
        80 20 40 00 07 00 02 00 03 AA BB CC 00 -> 67 0A  # past the buffer
        80 20 40 00 07 00 01 00 03 AA BB CC 00 -> 90 00
        80 20 50 00 04 01 01 3F 3F 00 -> 00 01 90 00     # private, label 3F3F
        80 20 50 00 04 01 00 01 C0 00 -> 67 0A           # finish closed the buffer
        80 20 10 00 02 00 00 00 -> 90 00
        80 20 50 00 04 01 00 01 C0 00 -> 00 02 90 00     # empty: the host takes it for a directory
        80 20 60 00 02 00 00 00 -> 00 01 3F 3F 01 00 04 00 02 01 C0 00 00 00 90 00
        80 20 30 00 06 00 01 00 00 00 04 00 -> 00 AA BB CC 90 00
        80 20 30 00 06 00 01 00 01 00 04 00 -> 67 0B     # one past the end
        80 20 30 00 06 00 07 00 00 00 00 00 -> 67 01
        80 20 10 00 02 00 02 00 -> 90 00
        80 20 40 00 06 00 00 00 02 DD EE 00 -> 90 00
        80 20 30 00 06 00 01 00 00 00 04 00 -> 00 AA BB CC 90 00  # old content until finish
        80 20 50 00 03 00 00 09 00 -> 67 01              # over a record that is not there
        80 20 50 00 03 00 00 01 00 -> 67 0A              # and that took the buffer
        80 20 10 00 02 00 02 00 -> 90 00
        80 20 40 00 06 00 00 00 02 DD EE 00 -> 90 00
        80 20 50 00 03 00 00 01 00 -> 90 00
        80 20 10 00 02 00 A7 00 -> 6F 00                 # 200 - 18 - 16 = 166 free
        80 20 10 00 02 00 A6 00 -> 90 00
        80 20 50 00 04 01 00 44 44 00 -> 67 02           # a new record takes 16 more
        80 20 20 00 02 00 01 00 -> 90 00
        80 20 20 00 02 00 01 00 -> 67 01
        80 20 10 00 02 00 00 00 -> 90 00
        80 20 50 00 04 01 00 33 33 00 -> 00 01 90 00     # the smallest free number again
        80 10 30 00 00 00 -> 90 00
        80 20 30 00 06 00 02 00 00 00 00 00 -> 90 00     # public without a login
        80 30 20 00 03 4E 65 77 02 -> 67 09
        80 10 10 00 06 00 04 31 32 33 34 -> 90 00
        80 30 20 00 21 41*33 02 -> 67 0A
        80 30 20 00 03 4E 65 77 -> 67 0A                 # without its trailing 02
        80 30 20 00 03 4E 65 77 02 -> 90 00
        80 40 00 00 00 -> 6D 00
        80 20 70 00 02 00 00 00 -> 6D 00
        00 20 60 00 02 00 00 00 -> 6E 00
        80 20 60 01 02 00 00 00 -> 67 0A
        80 20 60 00 03 00 00 00 00 -> 67 0A
        80 20 60 00 02 00 00 -> 67 0A                    # Le missing
    )");
    EXPECT_EQ(send(*card, kStatus).substr(15, 5), "00 A8") << "two empty records left";
}

TEST(DataStoreCard, PinsCountWrongAttemptsUntilBlocked) {
    auto card = makeCard();
    struct Try {
        const char* command;
        const char* answer;
        unsigned wrongUser, wrongAdmin;
    };
    const Try tries[] = {
        {"80 10 10 00 06 00 04 31 31 31 31", "67 03", 1, 0},
        {"80 10 10 00 04 00 02 31 32", "67 03", 2, 0},  // too short: just wrong
        {kLogin, "90 00", 0, 0},
        {"80 10 10 00 06 00 03 31 32 33 34", "67 0A", 0, 0},  // n disagrees
        {"80 10 10 00 06 03 04 31 32 33 34", "67 0A", 0, 0},  // no PIN 4
        {"80 10 10 00 06 01 04 31 32 33 34", "67 03", 0, 1},  // the user's PIN as admin's
        {"80 10 10 00 0A 01 08 38 37 36 35 34 33 32 31", "90 00", 0, 0},
        {"80 10 10 00 06 00 04 31 31 31 31", "67 03", 1, 0},
        {"80 10 10 00 06 00 04 31 31 31 31", "67 03", 2, 0},
        {"80 10 10 00 06 00 04 31 31 31 31", "67 04", 3, 0},
        {kLogin, "67 04", 3, 0},
    };
    for (const auto& t : tries) {
        EXPECT_EQ(send(*card, t.command), t.answer) << t.command;
        const auto& pins = applet(*card).state().pins;
        EXPECT_EQ(pins[kUserPin].wrong, t.wrongUser) << t.command;
        EXPECT_EQ(pins[kAdminPin].wrong, t.wrongAdmin) << t.command;
    }
    // Login flags, then wrong attempts: a wrong PIN ended the user's login.
    EXPECT_EQ(send(*card, kStatus).substr(21, 17), "00 01 00 03 00 00");
    play(*card, R"(
        80 10 20 00 06 00 04 35 36 37 38 00 -> 67 09    # not verified
        80 10 20 00 04 01 02 35 36 00 -> 67 0A          # shorter than 4
        80 10 20 00 15 01 13 41*19 00 -> 67 0A
        80 10 20 00 06 01 04 35 36 37 38 00 -> 90 00
        80 10 30 00 00 00 -> 90 00
        80 30 30 00 1E -> 01 00 00 00 C8 00 C8 00 00 00 03 00 00 03 03 03 04 04 04 10 10 10 \
          01 02 03 04 05 06 07 08 90 00
        80 10 10 00 0A 01 08 38 37 36 35 34 33 32 31 -> 67 03
        80 10 10 00 06 01 04 35 36 37 38 -> 90 00
    )");
}

TEST(DataStoreCard, PowerEventsEndLoginAndBuffer) {
    auto card = makeCard();
    using Event = void (vtoken::javacard::JavaCard::*)();
    for (Event event : {&vtoken::javacard::JavaCard::reset, &vtoken::javacard::JavaCard::powerOn}) {
        play(*card, R"(
            80 10 10 00 06 00 04 31 32 33 34 -> 90 00
            80 20 10 00 02 00 01 00 -> 90 00
        )");
        ((*card).*event)();
        EXPECT_EQ(send(*card, kStatus), "69 99") << "no applet is current";
        EXPECT_EQ(send(*card, kSelect), "90 00");
        play(*card, R"(
            80 20 50 00 04 01 00 44 44 00 -> 67 09   # the login is gone
            80 10 10 00 06 00 04 31 32 33 34 -> 90 00
            80 20 50 00 04 01 00 44 44 00 -> 67 0A   # and so is the buffer
            80 10 30 00 00 00 -> 90 00
        )");
    }
    EXPECT_TRUE(applet(*card).state().records.empty());
}

TEST(DataStoreCard, FaultKnobsCountDownAndPersist) {
    auto card = makeCard();
    DataStoreState& s = applet(*card).state();
    s.refuseBegin = 2;
    s.cutPowerAfterFinish = 2;
    play(*card, R"(
        80 10 10 00 06 00 04 31 32 33 34 -> 90 00
        80 20 10 00 02 00 01 00 -> 6F 00
        80 20 10 00 02 00 01 00 -> 6F 00
        80 20 10 00 02 00 01 00 -> 90 00
        80 20 40 00 05 00 00 00 01 11 00 -> 90 00
        80 20 50 00 04 01 00 44 44 00 -> 00 01 90 00
        80 20 10 00 02 00 01 00 -> 90 00
        80 20 40 00 05 00 00 00 01 22 00 -> 90 00
        80 20 50 00 03 00 00 01 00 -> 90 00
    )");
    EXPECT_EQ(s.refuseBegin, 0u);
    EXPECT_TRUE(s.cutPowerPending);
    EXPECT_TRUE(applet(*card).save()["cut_power_pending"].get<bool>());
    try {
        send(*card, "80 20 30 00 06 00 01 00 00 00 01 00");
        ADD_FAILURE() << "the card answered after the cut";
    } catch (const vtoken::NoAnswer& e) {
        EXPECT_EQ(e.why(), vtoken::NoAnswer::Why::Gone);
    }
    card->powerOff();
    card->powerOn();
    play(*card, kSelect + std::string(" -> 90 00\n") + R"(
        80 20 30 00 06 00 01 00 00 00 01 00 -> 22 90 00   # the finish before the cut holds
        80 20 10 00 02 00 01 00 -> 67 09
    )");
    EXPECT_FALSE(s.cutPowerPending);
    EXPECT_EQ(s.cutPowerAfterFinish, 0u);
}

TEST(DataStoreCard, EveryChangeReachesTheStateFile) {
    StateFile file;
    const std::string& path = file.path;
    vtoken::writeNewState(path, vtoken::javacard::toJsonText(*makeCard(), "datastore"), false);
    vtoken::StoredToken token(path);
    vtoken::javacard::JavaCard& card = *token.java();
    play(card, kSelect + std::string(" -> 90 00\n") + kLogin + R"( -> 90 00
        80 20 10 00 02 00 02 00 -> 90 00
        80 20 40 00 06 00 00 00 02 AB CD 00 -> 90 00
        80 20 50 00 04 01 01 12 C0 00 -> 00 01 90 00
        80 10 10 00 06 01 04 30 30 30 30 -> 67 03
        80 10 10 00 0A 01 08 38 37 36 35 34 33 32 31 -> 90 00   # clears the counter
    )");
    const std::string saved = vtoken::readTextFile(path);
    EXPECT_EQ(saved, vtoken::javacard::toJsonText(card, "datastore"));

    vtoken::StoredToken again(path);
    play(*again.java(), kSelect + std::string(" -> 90 00\n") + kLogin + R"( -> 90 00
        80 20 30 00 06 00 01 00 00 00 02 00 -> AB CD 90 00
        80 30 30 00 1E -> 01 00 00 00 C8 00 B6 01 00 00 00 00 00 03 03 03 04 04 04 10 10 10 \
          01 02 03 04 05 06 07 08 90 00
    )");

    const nlohmann::ordered_json good = applet(card).save();
    const std::vector<std::pair<const char*, nlohmann::ordered_json>> bad = {
        {"/records/0/number", 0}, {"/records/0/label", "12"},        {"/pins/1/wrong", 4},
        {"/pins/0/max", 65},      {"/label", toHex(Bytes(33, 'x'))}, {"/id", "01 02"},
    };
    for (const auto& [pointer, value] : bad) {
        nlohmann::ordered_json j = good;
        j[nlohmann::ordered_json::json_pointer(pointer)] = value;
        EXPECT_THROW(fromJson(j), std::invalid_argument) << pointer;
    }
    nlohmann::ordered_json twice = good;
    twice["records"].push_back(twice["records"][0]);
    EXPECT_THROW(fromJson(twice), std::invalid_argument) << "a number twice";
}

}  // namespace
}  // namespace krfs::component
