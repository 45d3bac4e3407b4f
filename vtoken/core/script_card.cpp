#include "core/script_card.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vtoken {

namespace {

std::string_view trim(std::string_view s) {
    const char* blanks = " \t\r";
    auto first = s.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    auto last = s.find_last_not_of(blanks);
    return s.substr(first, last - first + 1);
}

}  // namespace

Script Script::parse(std::string_view text) {
    Script script;
    std::size_t lineNo = 0;
    while (!text.empty()) {
        ++lineNo;
        auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);

        line = trim(line.substr(0, line.find('#')));
        if (line.empty()) continue;
        auto fail = [lineNo](const std::string& why) {
            throw std::invalid_argument("script line " + std::to_string(lineNo) + ": " + why);
        };

        if (line.substr(0, 5) == "order") {
            auto word = trim(line.substr(5));
            if (word == "keyed") {
                script.order = Order::Keyed;
            } else if (word == "ordered") {
                script.order = Order::Ordered;
            } else {
                fail("order is \"keyed\" or \"ordered\"");
            }
            continue;
        }

        auto arrow = line.find("->");
        if (arrow == std::string_view::npos) fail("expected COMMAND -> RESPONSE");
        Exchange exchange;
        try {
            exchange.command = fromHex(line.substr(0, arrow));
            exchange.response = fromHex(line.substr(arrow + 2));
        } catch (const std::invalid_argument& e) {
            fail(e.what());
        }
        if (exchange.command.size() < 4) fail("a command has at least a 4-byte header");
        if (exchange.response.size() < 2) fail("a response ends with a 2-byte status word");
        script.exchanges.push_back(std::move(exchange));
    }
    return script;
}

Script Script::load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read script " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return parse(text.str());
}

ScriptCard::ScriptCard(Bytes atr, Script script)
    : atr_(std::move(atr)), script_(std::move(script)) {}

Bytes ScriptCard::process(const Bytes& command) {
    const auto& list = script_.exchanges;
    if (script_.order == Script::Order::Ordered) {
        // A stray command does not advance the transcript, so the test that
        // sent it sees the 6D 00 and the rest of the script still lines up.
        if (next_ < list.size() && list[next_].command == command) return list[next_++].response;
        return statusWord(kUnknownCommand);
    }
    for (const auto& exchange : list)
        if (exchange.command == command) return exchange.response;
    return statusWord(kUnknownCommand);
}

}  // namespace vtoken
