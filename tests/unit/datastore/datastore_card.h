// A DataStore applet on a scripted card, and the bytes of its record commands.
#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "token/applet_datastore.h"
#include "unit/scripted_sender.h"

namespace krfs_test {

inline const std::string kOk = "90 00";
inline const std::string kSelectAid = "00 A4 04 00 08 A0 00 00 04 48 00 03 01 00";
inline const std::string kStatus = "80 30 30 00 1E";

// One byte, and a 16-bit number, as they go on the wire.
inline std::string b(unsigned v) {
    char s[4];
    return std::snprintf(s, sizeof s, "%02X ", v & 0xFF), s;
}
inline std::string w(unsigned v) { return b(v >> 8) + b(v); }

// One record of a list answer: number, label, flags, size.
inline std::string rec(unsigned id, unsigned label, unsigned flags, unsigned size) {
    return w(id) + w(label) + b(flags) + w(size);
}
inline std::string listFrom(unsigned next) { return "80 20 60 00 02 " + w(next) + "00"; }
inline std::string begin(unsigned size) { return "80 20 10 00 02 " + w(size) + "00"; }
inline std::string finishNew(unsigned flag, unsigned label) {
    return "80 20 50 00 04 01 " + b(flag) + w(label) + "00";
}
inline std::string finishOver(unsigned r) { return "80 20 50 00 03 00 " + w(r) + "00"; }
inline std::string numbered(unsigned r) { return w(r) + "90 00"; }
inline std::string readRec(unsigned r, unsigned at, unsigned n) {
    return "80 20 30 00 06 " + w(r) + w(at) + w(n) + "00";
}
inline std::string deleteRec(unsigned r) { return "80 20 20 00 02 " + w(r) + "00"; }
// The write to the update buffer of `data` at `at`.
inline std::string writeBuf(unsigned at, const TBytes& data) {
    const unsigned n = static_cast<unsigned>(data.size());
    return "80 20 40 00 " + b(n + 4) + w(at) + w(n) + toHex(data) + "00";
}

// The status record: version 01 02 03, free memory `free`, PIN columns
// (logged in, wrong, total, min, max): 1 (0,1,10,4,8), 2 (FF,0,10,6,16),
// 3 (0,5,5,8,32); identifier 11..88.
inline std::string status(unsigned free = 0x1000) {
    return "01 02 03 00 00 " + w(free) + "00 FF 00 01 00 05 0A 0A 05 04 06 08 08 10 20 " +
           "11 22 33 44 55 66 77 88 90 00";
}

// A table image with the slots {slot, parent, name}, little-endian.
inline TBytes tableOf(std::initializer_list<std::array<unsigned, 3>> slots) {
    TBytes t(2048);
    for (const auto& s : slots)
        for (unsigned i = 0; i < 4; ++i) t[4 * s[0] + i] = (i < 2 ? s[1] : s[2]) >> (i % 2 * 8);
    return t;
}

// A fresh applet, its AID selection already played.
struct Card {
    ScriptedSender sender;
    CAppletDataStore applet{&sender.expect(kSelectAid, kOk)};

    // Plays the exchanges of `steps`: command, answer, command, answer...
    void play(const std::vector<std::string>& steps) {
        for (std::size_t i = 0; i + 1 < steps.size(); i += 2) sender.expect(steps[i], steps[i + 1]);
    }
    // Whole content of `data` in 240-byte blocks through the update buffer.
    void blocks(const TBytes& data) {
        for (std::size_t at = 0; at < data.size(); at += 240) {
            const std::size_t n = std::min<std::size_t>(240, data.size() - at);
            sender.expect(writeBuf(at, TBytes(data.begin() + at, data.begin() + at + n)), kOk);
        }
    }
};

// The table of record `r` read in 240-byte blocks: 9 reads, the last of 128.
inline void playTableRead(Card& c, unsigned r, const TBytes& table) {
    for (unsigned at = 0; at < 2048; at += 240) {
        const unsigned n = std::min(240u, 2048 - at);
        c.sender.expect(readRec(r, at, n),
                        toHex(TBytes(table.begin() + at, table.begin() + at + n)) + kOk);
    }
}

// The whole table written: begin 0x800, 9 blocks, then `finish`.
inline void playTableWrite(Card& c, const TBytes& table, const std::string& finish,
                           const std::string& answer) {
    c.sender.expect(begin(0x800), kOk);
    c.blocks(table);
    c.sender.expect(finish, answer);
}

}  // namespace krfs_test
