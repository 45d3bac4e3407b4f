// Exchange scripts for the virtual cards, the code a failure carries, and a
// state file in a folder of its own.
#pragma once

#include "core/bytes.h"
#include "core/card.h"
#include "core/rsa_key.h"
#include "libapdu/exception.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <utility>

namespace krfs::component {

inline std::string send(vtoken::ICard& card, const std::string& command) {
    return vtoken::toHex(card.process(vtoken::fromHex(command)));
}

// Hex with "XX*N" standing for N bytes XX.
inline std::string expand(const std::string& text) {
    std::istringstream in(text);
    std::string out;
    for (std::string word; in >> word;) {
        const auto star = word.find('*');
        const int n = star == std::string::npos ? 1 : std::stoi(word.substr(star + 1));
        for (int i = 0; i < n; ++i) out += (out.empty() ? "" : " ") + word.substr(0, star);
    }
    return out;
}

// Plays "COMMAND -> ANSWER" exchanges, one a line: a line ending in '\' or
// followed by one beginning "->" goes on; '#' starts a comment; KEY stands
// for `key`. An answer "... SW1 SW2" checks only the status word.
inline void play(vtoken::ICard& card, const std::string& transcript,
                 const vtoken::Bytes& key = {}) {
    std::istringstream in(transcript);
    std::string exchange, line, next;
    bool more = static_cast<bool>(std::getline(in, next));
    while (more) {
        line = next.substr(0, next.find('#'));
        more = static_cast<bool>(std::getline(in, next));
        const auto last = line.find_last_not_of(" \t\r");
        const bool slash = last != std::string::npos && line[last] == '\\';
        const auto lead = next.find_first_not_of(" \t");
        exchange += line.substr(0, slash ? last : line.size()) + " ";
        if (slash || (more && lead != std::string::npos && next.compare(lead, 2, "->") == 0))
            continue;
        if (const auto at = exchange.find("KEY"); at != std::string::npos)
            exchange.replace(at, 3, vtoken::toHex(key));
        const auto arrow = exchange.find("->");
        if (arrow == std::string::npos) {
            EXPECT_EQ(exchange.find_first_not_of(" \t\r"), std::string::npos) << "no answer";
            exchange.clear();
            continue;
        }
        const std::string command = expand(exchange.substr(0, arrow));
        std::string expected = exchange.substr(arrow + 2), answer = send(card, command);
        exchange.clear();
        if (const auto dots = expected.find("..."); dots != std::string::npos) {
            expected.erase(0, dots + 3);
            answer.erase(0, answer.size() < 5 ? 0 : answer.size() - 5);
        }
        EXPECT_EQ(answer, vtoken::toHex(vtoken::fromHex(expand(expected))))
            << command.substr(0, 60);
    }
    EXPECT_EQ(exchange.find_first_not_of(" \t\r"), std::string::npos) << "no answer";
}

// One key pair of each size for the whole run: making them is slow.
inline const vtoken::RsaKey& testKey(int bits) {
    static const vtoken::RsaKey k1024 = vtoken::makeRsaKey(1024, "krFS key 1024"),
                                k2048 = vtoken::makeRsaKey(2048, "krFS key 2048");
    return bits == 1024 ? k1024 : k2048;
}

// A block below the modulus and its raw RSA, the operation behind every card.
inline std::pair<vtoken::Bytes, vtoken::Bytes> blockAndResult(const vtoken::RsaKey& key) {
    vtoken::Bytes block(key.bytes(), 0x5A);
    block[0] = 0x00;
    return {block, vtoken::rsaPrivateRaw(key.privateKey, block).value()};
}

// The result code a failure carries, 0 if there is none.
inline long codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const libapdu::IException& e) {
        return e.code();
    } catch (const CAException& e) {
        return e.Code();
    }
    return 0;
}

// A state file's path in a fresh folder; both go with the object.
struct StateFile {
    StateFile() : dir("/tmp/krfs-card-XXXXXX") {
        if (!::mkdtemp(dir.data())) ADD_FAILURE() << "no folder " << dir;
        path = dir + "/state.json";
    }
    ~StateFile() {
        ::unlink(path.c_str());
        ::rmdir(dir.c_str());
    }
    std::string dir, path;
};

}  // namespace krfs::component
