// A sender that plays a transcript: each exchange the driver makes must be the
// next one expected, byte for byte, and gets its canned answer. Also an applet
// that lets a test install the drivers it needs around such a sender.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "libapdu/applet.h"
#include "libapdu/exception.h"
#include "libapdu/sender.h"

namespace krfs_test {

using libapdu::IApplet;

// "00 A4 08 00" -> bytes. Spaces are ignored.
inline TBytes hex(const std::string& text) {
    TBytes out;
    std::string digits;
    for (char c : text)
        if (c != ' ') digits += c;
    if (digits.size() % 2 != 0) throw std::invalid_argument("odd hex: " + text);
    for (std::size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

inline std::string toHex(const TBytes& bytes) {
    std::string out;
    char b[4];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(b, sizeof b, i ? " %02X" : "%02X", bytes[i]);
        out += b;
    }
    return out;
}

// Thrown when the driver strays from the transcript, so that it stops there.
// Deliberately no IException: a driver's own catch must not swallow it.
struct ScriptBroken : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class ScriptedSender : public libapdu::ISender {
public:
    // `command` may hold "??" for a byte that the test doesn't pin (random data).
    ScriptedSender& expect(const std::string& command, const std::string& response) {
        steps.push_back({Step::Send, 0, pattern(command), hex(response)});
        return *this;
    }
    ScriptedSender& expectControl(unsigned int code, const std::string& input,
                                  const std::string& output) {
        steps.push_back({Step::Control, code, pattern(input), hex(output)});
        return *this;
    }
    // A reader driver that refuses the control code: the exchange raises `sw`.
    ScriptedSender& expectControlRaise(unsigned int code, const std::string& input,
                                       unsigned short sw) {
        steps.push_back({Step::Control, code, pattern(input), {}, sw});
        return *this;
    }
    void setAtr(const std::string& text) { atr_ = hex(text); }

    void send(const TBytes& command, TBytes& response) override {
        const Step& s = next(Step::Send, 0, command);
        offered_.push_back(response.size());
        if (s.answer.size() > response.size())
            fail("answer of " + std::to_string(s.answer.size()) + " bytes exceeds the buffer of " +
                 std::to_string(response.size()) + " for " + toHex(command));
        response = s.answer;
    }

    void control(unsigned int code, const TBytes& input, TBytes& output) override {
        const Step& s = next(Step::Control, code, input);
        offered_.push_back(output.size());
        if (s.raise != 0) APDU_RAISE(s.raise);
        if (s.answer.size() > output.size())
            fail("control answer exceeds the buffer of " + std::to_string(output.size()));
        output = s.answer;
    }

    TBytes atr() override { return atr_; }

    bool allConsumed() const { return position == steps.size(); }
    std::size_t exchanges() const { return position; }
    // The response buffer size the driver offered at each exchange.
    const std::vector<std::size_t>& offered() const { return offered_; }

private:
    struct Step {
        enum Kind { Send, Control } kind;
        unsigned int code;
        std::vector<int> expected;  // -1: any byte
        TBytes answer;
        unsigned short raise = 0;
    };

    static std::vector<int> pattern(const std::string& text) {
        std::vector<int> out;
        std::string digits;
        for (char c : text)
            if (c != ' ') digits += c;
        for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
            const std::string b = digits.substr(i, 2);
            out.push_back(b == "??" ? -1 : static_cast<int>(std::stoul(b, nullptr, 16)));
        }
        return out;
    }

    static bool matches(const std::vector<int>& expected, const TBytes& got) {
        if (expected.size() != got.size()) return false;
        for (std::size_t i = 0; i < got.size(); ++i)
            if (expected[i] >= 0 && expected[i] != got[i]) return false;
        return true;
    }

    static std::string show(const std::vector<int>& expected) {
        std::string out;
        char b[4];
        for (std::size_t i = 0; i < expected.size(); ++i) {
            if (expected[i] < 0)
                out += i ? " ??" : "??";
            else {
                std::snprintf(b, sizeof b, i ? " %02X" : "%02X", expected[i]);
                out += b;
            }
        }
        return out;
    }

    [[noreturn]] void fail(const std::string& what) {
        ADD_FAILURE() << "exchange " << position << ": " << what;
        throw ScriptBroken(what);
    }

    const Step& next(Step::Kind kind, unsigned int code, const TBytes& got) {
        if (position >= steps.size()) fail("unexpected extra exchange " + toHex(got));
        const Step& s = steps[position];
        if (s.kind != kind || s.code != code)
            fail(std::string("expected a ") + (s.kind == Step::Send ? "command" : "control") +
                 " exchange, got " + toHex(got));
        if (!matches(s.expected, got))
            fail("expected " + show(s.expected) + "\n got " + toHex(got));
        ++position;
        return s;
    }

    std::vector<Step> steps;
    std::size_t position = 0;
    std::vector<std::size_t> offered_;
    TBytes atr_;
};

// Raises every status word but 0x9000 unchanged, so tests see a driver's own
// folding apart from the dialect tables.
class RawError : public libapdu::IAppError {
public:
    void raiseSW(unsigned short sw) override {
        if (sw != 0x9000) APDU_RAISE(sw);
    }
};

// An applet whose slots a test fills as it needs.
class ScriptedApplet : public IApplet {
public:
    explicit ScriptedApplet(libapdu::ISender* s) : IApplet(s) { error_.reset(new RawError); }

    template <class T, class... A>
    T* installFs(A&&... args) {
        T* d = new T(this, std::forward<A>(args)...);
        fs_.reset(d);
        return d;
    }
    template <class T, class... A>
    T* installPin(A&&... args) {
        T* d = new T(this, std::forward<A>(args)...);
        pin_.reset(d);
        return d;
    }
    template <class T, class... A>
    T* installInfo(A&&... args) {
        T* d = new T(this, std::forward<A>(args)...);
        info_.reset(d);
        return d;
    }
    void setError(libapdu::IAppError* e) { error_.reset(e); }
};

// Sibling doubles for drivers that only ask isFips() or pathUser().
class FixedInfo : public libapdu::IAppInfo {
public:
    FixedInfo(IApplet*, bool fips) : fips(fips) {}
    bool isFips() override {
        ++asked;
        return fips;
    }
    bool fips;
    int asked = 0;
};

class FixedPin : public libapdu::IAppPin {
public:
    FixedPin(IApplet*, TPath user) : user(std::move(user)) {}
    const TPath& pathUser() override { return user; }
    TPath user;
};

// The 0x86E0xxxx code of a libapdu failure, or 0 when `f` returns normally.
template <class F>
long failureCode(F&& f) {
    try {
        f();
    } catch (const libapdu::IException& e) {
        return e.code();
    }
    return 0;
}

constexpr long code(unsigned short sw) { return static_cast<long>(0x86E00000UL | sw); }

}  // namespace krfs_test
