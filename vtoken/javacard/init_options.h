// The options of `krfs-vtoken init` that belong to a Java-card dialect,
// handed to its applets as name and value pairs.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vtoken::javacard {

class InitOptions {
public:
    void add(std::string name, std::string value);

    // The last value given for `name`; the option counts as used.
    std::optional<std::string> take(const std::string& name);
    // Every value given for a repeatable option, in order; all count as used.
    std::vector<std::string> takeAll(const std::string& name);
    // A number (decimal, or hex with 0x) up to `max`; throws
    // std::invalid_argument for anything else.
    std::optional<unsigned long> takeNumber(const std::string& name, unsigned long max);

    // Throws std::invalid_argument naming the first option no applet used.
    void requireAllUsed(const std::string& dialect) const;

private:
    struct Option {
        std::string name;
        std::string value;
        bool used = false;
    };
    std::vector<Option> options_;
};

// Reads a number as `krfs-vtoken` options take them; throws
// std::invalid_argument naming `what`.
unsigned long parseNumber(const std::string& text, unsigned long max, const std::string& what);

}  // namespace vtoken::javacard
