#include "core/faults.h"

#include "core/apdu.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace vtoken {

namespace {

bool startsWith(const Bytes& command, const Bytes& prefix) {
    return command.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), command.begin());
}

// "PREFIX=VALUE" with a hex prefix of at least two bytes.
std::pair<Bytes, std::string_view> splitRule(std::string_view text) {
    auto eq = text.find('=');
    if (eq == std::string_view::npos) throw std::invalid_argument("expected PREFIX=VALUE");
    Bytes prefix = fromHex(text.substr(0, eq));
    if (prefix.size() < 2) throw std::invalid_argument("a prefix holds at least CLA and INS");
    return {prefix, text.substr(eq + 1)};
}

}  // namespace

Faults::Refusal Faults::parseRefusal(std::string_view text) {
    auto [prefix, value] = splitRule(text);
    Bytes status = fromHex(value);
    if (status.size() != 2) throw std::invalid_argument("a status word has two bytes");
    return {prefix, static_cast<std::uint16_t>(status[0] << 8 | status[1])};
}

Faults::Truncation Faults::parseTruncation(std::string_view text) {
    auto [prefix, value] = splitRule(text);
    std::string number(value);
    std::size_t used = 0;
    unsigned long keep = 0;
    try {
        keep = std::stoul(number, &used, 10);
    } catch (const std::exception&) {
        used = 0;
    }
    if (number.empty() || used != number.size() || keep > 0xFFFF)
        throw std::invalid_argument("the bytes kept are a decimal number");
    return {prefix, keep};
}

Bytes FaultyCard::process(const Bytes& command) {
    ++seen_;
    if (faults_.vanishAt && seen_ == *faults_.vanishAt) {
        if (onVanish_) onVanish_();
        throw NoAnswer(NoAnswer::Why::Gone);
    }
    if (faults_.muteAfter && sincePowerUp_ >= *faults_.muteAfter)
        throw NoAnswer(NoAnswer::Why::Mute);
    ++sincePowerUp_;
    for (const auto& r : faults_.refuse)
        if (startsWith(command, r.prefix)) {
            Bytes answer = respond(r.status);
            if (card_.statusLowByteFirst()) std::swap(answer[0], answer[1]);
            return answer;
        }
    Bytes answer = card_.process(command);
    for (const auto& t : faults_.truncate)
        if (startsWith(command, t.prefix) && answer.size() > t.keep) answer.resize(t.keep);
    return answer;
}

void FaultyCard::powerOn() {
    sincePowerUp_ = 0;
    card_.powerOn();
}

void FaultyCard::reset() {
    sincePowerUp_ = 0;
    card_.reset();
}

}  // namespace vtoken
