// The card manager and CryptoPro applets that --applets adds beside a
// Java-card dialect's own: their answers, the option's refusals, the state.
#include "component/vtoken/card_script.h"
#include "core/state_json.h"
#include "gost/gost_applet.h"
#include "persist/java_dialects.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace krfs::component {
namespace {

using vtoken::javacard::JavaCard;
using Given = std::vector<std::pair<std::string, std::string>>;

// What `krfs-vtoken init --dialect gost` does with these options.
vtoken::JavaInstallation installGost(const Given& given) {
    vtoken::javacard::InitOptions options;
    for (const auto& [name, value] : given) options.add(name, value);
    auto installation = vtoken::gost::install(options);
    vtoken::addApplets(installation, options);
    options.requireAllUsed("gost");
    return installation;
}

const char* kManagerAnswers = R"(
    00 A4 04 00 07 A0 00 00 01 51 00 00 00 -> 90 00
    80 CA 9F 7F 00 -> 9F 7F 2A 4B 52 80 10 82 31 11 20 01 02 11 35 12 34 56 78 00 01 4B 52 \
                      11 40 00 00 11 42 00 00 00 00 00 00 00 00 00 00 11 50 00 00 00 00 90 00
    80 CA 00 46 00 -> 46 03 01 02 03 90 00
    00 CA 00 01 00 -> 01 0A 54 65 73 74 20 54 6F 6B 65 6E 90 00
)";

// The applets answer the same before and after their state is stored and loaded.
TEST(ManagerCard, AppletsBesideGostAndTheirState) {
    auto i = installGost({{"--applets", "manager,cryptopro"},
                          {"--model-name", "Test Token"},
                          {"--manager-id", "01 02 03"}});
    JavaCard card(i.atr, std::move(i.applets));
    play(card, kManagerAnswers);
    play(card, R"(
        00 CA 00 01 0C -> 01 0A 54 65 73 74 20 54 6F 6B 65 6E 90 00   # Le of the exact length
        00 CA 00 01 05 -> 6C 0C
        80 CA 00 46 -> 67 00
        80 CA 00 01 00 -> 6D 00      # the model under the other class
        00 CA 9F 7F 00 -> 6D 00
        84 CA 9F 7F 00 -> 6E 00
        00 A4 04 00 0A A0 00 00 04 48 01 02 01 02 02 00 -> 90 00
        80 CA 9F 7F 00 -> 6D 00      # CryptoPro current
    )");
    const std::string saved = vtoken::javacard::toJsonText(card, "gost");
    auto loaded = vtoken::javacard::fromJsonText(saved, "gost", &vtoken::loadApplet);
    play(*loaded, kManagerAnswers);
    EXPECT_EQ(vtoken::javacard::toJsonText(*loaded, "gost"), saved);

    auto j = nlohmann::ordered_json::parse(saved);
    for (const char* bad : {R"({"model": "", "id": "", "cplc": "00"})",
                            R"({"model": "", "id": "01", "cplc": "00"})", "[]"}) {
        j["applets"][1]["state"] = nlohmann::ordered_json::parse(bad);
        EXPECT_THROW(vtoken::javacard::fromJsonText(j.dump(), "gost", &vtoken::loadApplet),
                     std::invalid_argument)
            << bad;
    }
}

TEST(ManagerCard, AppletsOptionRefusals) {
    const std::string longest(64, 'M');
    EXPECT_NO_THROW(installGost({{"--applets", "manager"}, {"--model-name", longest}}));
    for (const Given& given : std::vector<Given>{
             {{"--applets", "nfc"}},
             {{"--applets", "manager,"}},
             {{"--applets", "cryptopro,manager,cryptopro"}},
             {{"--applets", "cryptopro"}, {"--model-name", "X"}},
             {{"--model-name", "X"}},
             {{"--applets", "manager"}, {"--model-name", longest + "M"}},
             {{"--applets", "manager"}, {"--manager-id", ""}},
         })
        EXPECT_THROW(installGost(given), std::invalid_argument) << given.front().second;
}

}  // namespace
}  // namespace krfs::component
