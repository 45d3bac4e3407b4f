// A DataStore applet on a scripted card, and the bytes of its record commands.
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>

#include "token/applet_datastore.h"
#include "unit/scripted_sender.h"

namespace krfs_test {

inline const std::string kOk = "90 00";
inline const std::string kSelectAid = "00 A4 04 00 08 A0 00 00 04 48 00 03 01 00";
inline const std::string kStatus = "80 30 30 00 1E";

template <class... A>
std::string fmt(const char* format, A... a) {
    char s[200];
    std::snprintf(s, sizeof s, format, a...);
    return s;
}

inline std::string bytes(std::size_t n, const std::string& b) {
    std::string out;
    while (n--) out += b + " ";
    return out;
}

// One record of a list answer: number, label, flags, size.
inline std::string rec(unsigned id, unsigned label, unsigned flags, unsigned size) {
    return fmt("%02X %02X %02X %02X %02X %02X %02X ", id >> 8, id & 0xFF, label >> 8, label & 0xFF,
               flags, size >> 8, size & 0xFF);
}
inline std::string listFrom(unsigned next) {
    return fmt("80 20 60 00 02 %02X %02X 00", next >> 8, next & 0xFF);
}
inline std::string begin(unsigned size) {
    return fmt("80 20 10 00 02 %02X %02X 00", size >> 8, size & 0xFF);
}
inline std::string finishNew(unsigned flag, unsigned label) {
    return fmt("80 20 50 00 04 01 %02X %02X %02X 00", flag, label >> 8, label & 0xFF);
}
inline std::string finishOver(unsigned r) {
    return fmt("80 20 50 00 03 00 %02X %02X 00", r >> 8, r & 0xFF);
}
inline std::string numbered(unsigned r) { return fmt("%02X %02X 90 00", r >> 8, r & 0xFF); }
inline std::string readRec(unsigned r, unsigned at, unsigned n) {
    return fmt("80 20 30 00 06 %02X %02X %02X %02X %02X %02X 00", r >> 8, r & 0xFF, at >> 8,
               at & 0xFF, n >> 8, n & 0xFF);
}
inline std::string deleteRec(unsigned r) {
    return fmt("80 20 20 00 02 %02X %02X 00", r >> 8, r & 0xFF);
}
// The write to the update buffer of `data` at `at`.
inline std::string writeBuf(unsigned at, const TBytes& data) {
    const unsigned n = static_cast<unsigned>(data.size());
    return fmt("80 20 40 00 %02X %02X %02X %02X %02X ", n + 4, at >> 8, at & 0xFF, n >> 8,
               n & 0xFF) +
           toHex(data) + "00";
}

// The status record: version 01 02 03, free memory `free`, PIN columns
// (logged in, wrong, total, min, max): 1 (0,1,10,4,8), 2 (FF,0,10,6,16),
// 3 (0,5,5,8,32); identifier 11..88.
inline std::string status(unsigned free = 0x1000) {
    return fmt("01 02 03 00 00 %02X %02X 00 FF 00 01 00 05 0A 0A 05 04 06 08 08 10 20 ", free >> 8,
               free & 0xFF) +
           "11 22 33 44 55 66 77 88 90 00";
}

// Slot `slot` of a table image: parent and name, little-endian.
inline void setSlot(TBytes& table, unsigned slot, unsigned parent, unsigned name) {
    const TBytes s{static_cast<unsigned char>(parent), static_cast<unsigned char>(parent >> 8),
                   static_cast<unsigned char>(name), static_cast<unsigned char>(name >> 8)};
    std::copy(s.begin(), s.end(), table.begin() + 4 * slot);
}

// A fresh applet, its AID selection already played.
struct Card {
    ScriptedSender sender;
    CAppletDataStore applet{&sender.expect(kSelectAid, kOk)};

    // Plays the exchanges of `steps`: command, answer, command, answer...
    void play(std::initializer_list<std::string> steps) {
        for (auto s = steps.begin(); s != steps.end(); s += 2) sender.expect(*s, *(s + 1));
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
