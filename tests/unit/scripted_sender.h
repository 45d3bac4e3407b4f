// A sender that plays a transcript: each exchange must be the next one
// expected, byte for byte ("??" matches any byte), and gets its canned answer.
// Also an applet whose driver slots a test fills, and sibling doubles.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "libapdu/applet.h"
#include "libapdu/exception.h"
#include "unit/oracle.h"

namespace krfs_test {

using namespace libapdu;

class ScriptedSender : public ISender {
public:
    ~ScriptedSender() override { EXPECT_TRUE(allConsumed()) << "stopped at exchange " << position; }
    ScriptedSender& expect(const std::string& command, const std::string& response) {
        steps.push_back({false, 0, command, hex(response)});
        return *this;
    }
    ScriptedSender& expectControl(unsigned code, const std::string& in, const std::string& out) {
        steps.push_back({true, code, in, hex(out)});
        return *this;
    }
    void setAtr(const std::string& text) { atr_ = hex(text); }
    void send(const TBytes& command, TBytes& response) override {
        answer(next(false, 0, command), response);
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
        if (s.control != control || s.code != code || !matches(s.expected, got))
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

// Pro file control data with 90 00: a file of `size` bytes (both size tags,
// for CFSPro and CFSPro4), and a directory.
inline std::string fileFcp(unsigned size) {
    char b[64];
    std::snprintf(b, sizeof b, "6F 0B 82 01 01 81 02 %02X %02X 80 02 %02X %02X 90 00", size >> 8,
                  size & 0xFF, size >> 8, size & 0xFF);
    return b;
}
inline const std::string kDirFcp = "6F 03 82 01 38 90 00";

}  // namespace krfs_test
