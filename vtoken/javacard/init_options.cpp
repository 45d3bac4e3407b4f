#include "javacard/init_options.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace vtoken::javacard {

void InitOptions::add(std::string name, std::string value) {
    options_.push_back({std::move(name), std::move(value), false});
}

std::optional<std::string> InitOptions::take(const std::string& name) {
    std::optional<std::string> value;
    for (auto& o : options_)
        if (o.name == name) {
            o.used = true;
            value = o.value;
        }
    return value;
}

std::vector<std::string> InitOptions::takeAll(const std::string& name) {
    std::vector<std::string> values;
    for (auto& o : options_)
        if (o.name == name) {
            o.used = true;
            values.push_back(o.value);
        }
    return values;
}

std::optional<unsigned long> InitOptions::takeNumber(const std::string& name, unsigned long max) {
    auto text = take(name);
    if (!text) return std::nullopt;
    return parseNumber(*text, max, name);
}

void InitOptions::requireAllUsed(const std::string& dialect) const {
    for (const auto& o : options_)
        if (!o.used) throw std::invalid_argument("a " + dialect + " token takes no " + o.name);
}

unsigned long parseNumber(const std::string& text, unsigned long max, const std::string& what) {
    char* end = nullptr;
    errno = 0;
    unsigned long n = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || n > max || text[0] == '-')
        throw std::invalid_argument("bad " + what + ": " + text);
    return n;
}

}  // namespace vtoken::javacard
