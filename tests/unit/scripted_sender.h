// A sender that plays a transcript: each exchange must be the next one
// expected, byte for byte ("??" matches any byte), and gets its canned answer.
// Also an applet whose driver slots a test fills, and sibling doubles.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "libapdu/applet.h"
#include "libapdu/exception.h"
#include "token/appfs/fs_pro.h"
#include "unit/oracle.h"

namespace krfs_test {

using namespace libapdu;

class ScriptedSender : public ISender {
public:
    ~ScriptedSender() override { EXPECT_TRUE(allConsumed()) << "stopped at exchange " << position; }
    ScriptedSender& expect(const std::string& command, const std::string& response) {
        steps.push_back({false, 0, command, hex(response), {}});
        return *this;
    }
    // Command, answer, command, answer...
    ScriptedSender& play(const std::vector<std::string>& exchange) {
        for (std::size_t k = 0; k + 1 < exchange.size(); k += 2)
            expect(exchange[k], exchange[k + 1]);
        return *this;
    }
    // An exchange whose answer the test's card computes from the command.
    ScriptedSender& respond(std::function<TBytes(const TBytes&)> card) {
        steps.push_back({false, 0, "", {}, std::move(card)});
        return *this;
    }
    ScriptedSender& expectControl(unsigned code, const std::string& in, const std::string& out) {
        steps.push_back({true, code, in, hex(out), {}});
        return *this;
    }
    void setAtr(const std::string& text) { atr_ = hex(text); }
    void send(const TBytes& command, TBytes& response) override {
        const Step& s = next(false, 0, command);
        answer(s.card ? Step{false, 0, "", s.card(command), {}} : s, response);
    }
    void control(unsigned code, const TBytes& input, TBytes& output) override {
        answer(next(true, code, input), output);
    }
    TBytes atr() override { return atr_; }
    bool allConsumed() const { return position == steps.size(); }
    std::vector<std::size_t> offered;  // the answer buffer the driver gave at each exchange

private:
    struct Step {
        bool control;
        unsigned code;
        std::string expected;
        TBytes answer;
        std::function<TBytes(const TBytes&)> card;
    };
    // Stops the driver there; not an IException, so no driver's catch hides it.
    [[noreturn]] void fail(const std::string& what) {
        ADD_FAILURE() << "exchange " << position << ": " << what;
        throw std::logic_error(what);
    }
    static bool matches(std::string expected, const TBytes& got) {
        std::string digits;
        for (char c : expected)
            if (c != ' ') digits += c;
        if (digits.size() != 2 * got.size()) return false;
        for (std::size_t i = 0; i < got.size(); ++i) {
            const std::string b = digits.substr(2 * i, 2);
            if (b != "??" && std::stoul(b, nullptr, 16) != got[i]) return false;
        }
        return true;
    }
    const Step& next(bool control, unsigned code, const TBytes& got) {
        if (position >= steps.size()) fail("unexpected exchange " + toHex(got));
        const Step& s = steps[position];
        if (s.control != control || s.code != code || (!s.card && !matches(s.expected, got)))
            fail("expected " + s.expected + "\n     got " + toHex(got));
        return ++position, s;
    }
    void answer(const Step& s, TBytes& buffer) {
        offered.push_back(buffer.size());
        if (s.answer.size() > buffer.size()) fail("answer exceeds the buffer");
        buffer = s.answer;
    }
    std::vector<Step> steps;
    std::size_t position = 0;
    TBytes atr_;
};

// Raises every word but 0x9000 as it is, so tests see a driver's own folding.
struct RawError : IAppError {
    void raiseSW(unsigned short sw) override {
        if (sw != 0x9000) APDU_RAISE(sw);
    }
};

// install(applet.fs_, ...) puts a driver made with this applet and `a` in a slot.
struct ScriptedApplet : IApplet {
    explicit ScriptedApplet(ISender* s) : IApplet(s) { error_.reset(new RawError); }
    template <class T, class Slot, class... A>
    T* install(std::unique_ptr<Slot>& slot, A... a) {
        T* d = new T(this, a...);
        slot.reset(d);
        return d;
    }
    using IApplet::fs_, IApplet::pin_, IApplet::info_, IApplet::pack_, IApplet::label_;
};

// A sibling for drivers that only ask isFips().
struct FixedInfo : IAppInfo {
    FixedInfo(IApplet*, bool fips) : fips(fips) {}
    bool isFips() override { return ++asked, fips; }
    bool fips;
    int asked = 0;
};

// The code of a libapdu failure of `f`, or 0 when it returns normally.
template <class F>
long failureCode(F&& f) {
    try {
        f();
    } catch (const IException& e) {
        return e.code();
    }
    return 0;
}

constexpr long code(unsigned short sw) { return static_cast<long>(0x86E00000UL | sw); }

// `n` bytes of a command that may be anything.
inline std::string anyBytes(int n) { return " " + std::string(2 * n, '?'); }
// `n` times the byte `b`, each followed by a space.
inline std::string bytes(std::size_t n, const std::string& b) {
    std::string out;
    while (n--) out += b + " ";
    return out;
}

inline std::vector<int> fields(const CFileInfo& i) { return {i.type, i.size, i.read, i.write}; }
inline std::vector<int> pinFields(const CPinInfo& i) {
    return {i.minLength, i.maxLength, i.attemptsLeft, i.attemptsTotal, i.loginState};
}

// A driver call, the exchanges it makes, the code it fails with (0: none), and
// for `run` with a PIN driver its attempts left and login state afterwards.
struct Call {
    std::function<void()> call;
    std::vector<std::string> exchange;
    long code;
    int left = -1, state = -1;
};
inline void run(ScriptedSender& card, const std::vector<Call>& calls, IAppPin* pin = nullptr) {
    for (const Call& c : calls) {
        const std::string what = c.exchange.empty() ? "" : c.exchange[0];
        card.play(c.exchange);
        EXPECT_EQ(failureCode(c.call), c.code) << what;
        if (pin == nullptr) continue;
        EXPECT_EQ(pin->info().attemptsLeft, c.left) << what;
        EXPECT_EQ(pin->info().loginState, c.state) << what;
    }
}

// Pro file control data with 90 00: a file of `size` bytes (both size tags,
// for CFSPro and CFSPro4), and a directory.
inline std::string fileFcp(unsigned size) {
    char b[64];
    std::snprintf(b, sizeof b, "6F 0B 82 01 01 81 02 %02X %02X 80 02 %02X %02X 90 00", size >> 8,
                  size & 0xFF, size >> 8, size & 0xFF);
    return b;
}
inline const std::string kDirFcp = "6F 03 82 01 38 90 00";

// Pro paths: the home (FIPS: 6666/5000) and the change marker; the PIN material.
inline const std::string kHome = "00 A4 08 00 02 66 66 00";
inline const std::string kFipsHome = "00 A4 08 00 04 66 66 50 00 00";
inline const std::string kMarkerSelect = "00 A4 08 00 04 66 66 00 01 00";
// The FIPS label file: a FIPS token is one that has it.
inline const std::string kFipsLabel = "00 A4 08 00 06 66 66 50 00 00 02 00";
inline const TBytes kPin = hex("313233343536"), kNewPin = hex("363534333231");
inline const TBytes kSalt = hex("0A0A0505 1122334455667788 99AABBCCDDEEFF00");
inline const TBytes kChallenge = hex("0123456789ABCDEF");

inline std::string apdu(const char* format, unsigned a, unsigned b = 0) {
    char s[40];
    std::snprintf(s, sizeof s, format, a, b);
    return s;
}

// The Pro PIN exchanges: the counter file holds two counter bytes per PIN and
// the salt at 0.
struct ProPinScript {
    std::string counterFile(bool fips) {
        return fips ? "00 A4 08 00 06 66 66 50 00 00 0F 00" : "00 A4 08 00 06 66 66 10 00 00 04 00";
    }
    // Empty `bytes`: no counter file.
    void counter(bool fips, unsigned offset, const std::string& bytes) {
        card.expect(counterFile(fips), bytes.empty() ? "6A 82" : fileFcp(0x40));
        if (!bytes.empty())
            card.expect(apdu("00 B0 %02X %02X 02", offset >> 8, offset & 0xFF), bytes + " 90 00");
    }
    void salt(bool fips) {
        card.expect(counterFile(fips), fileFcp(0x40));
        card.expect("00 B0 00 00 14", toHex(kSalt) + "90 00");
    }
    // The challenge, then its answer under `key` for the PIN object `p2`.
    void answer(bool fips, unsigned char p2, const TBytes& key, const std::string& sw) {
        card.expect("00 84 00 00 08", toHex(kChallenge) + "90 00");
        card.expect(fips ? kFipsHome : kHome, kDirFcp);
        card.expect(apdu("00 82 00 %02X 08 ", p2) + toHex(oracle::challengeMac(key, kChallenge)),
                    sw);
    }
    ScriptedSender& card;
};

// A Pro applet with its real file system and an information double.
struct ProApplet : ::testing::Test {
    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    FixedInfo* info = applet.install<FixedInfo>(applet.info_, false);
    CFSPro* fs = applet.install<CFSPro>(applet.fs_);
};

}  // namespace krfs_test
