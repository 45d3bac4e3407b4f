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

namespace krfs_test {

using namespace libapdu;

inline TBytes hex(const std::string& text) {
    TBytes out;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (text[i] != ' ') out.push_back(std::stoul(text.substr(i++, 2), nullptr, 16));
    return out;
}

inline std::string toHex(const TBytes& bytes) {
    std::string out;
    char b[4];
    for (unsigned char c : bytes) out += (std::snprintf(b, sizeof b, "%02X ", c), b);
    return out;
}

class ScriptedSender : public ISender {
public:
    ScriptedSender& expect(const std::string& command, const std::string& response) {
        steps.push_back({false, 0, command, hex(response), 0});
        return *this;
    }
    ScriptedSender& expectControl(unsigned code, const std::string& in, const std::string& out) {
        steps.push_back({true, code, in, hex(out), 0});
        return *this;
    }
    // A reader driver refusing the control code: the exchange raises `sw`.
    ScriptedSender& expectControlRaise(unsigned code, const std::string& in, unsigned short sw) {
        steps.push_back({true, code, in, {}, sw});
        return *this;
    }
    void setAtr(const std::string& text) { atr_ = hex(text); }

    void send(const TBytes& command, TBytes& response) override {
        answer(next(false, 0, command), response);
    }
    void control(unsigned code, const TBytes& input, TBytes& output) override {
        const Step& s = next(true, code, input);
        if (s.raise) APDU_RAISE(s.raise);
        answer(s, output);
    }
    TBytes atr() override { return atr_; }

    bool allConsumed() const { return position == steps.size(); }
    std::size_t exchanges() const { return position; }
    // The answer buffer size the driver offered at each exchange.
    std::vector<std::size_t> offered;

private:
    struct Step {
        bool control;
        unsigned code;
        std::string expected;
        TBytes answer;
        unsigned short raise;
    };

    // Stops the driver there; not an IException, so no driver's catch hides it.
    [[noreturn]] void fail(const std::string& what) {
        ADD_FAILURE() << "exchange " << position << ": " << what;
        throw std::logic_error(what);
    }

    static bool matches(const std::string& expected, const TBytes& got) {
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
        ++position;
        return s;
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
class RawError : public IAppError {
public:
    void raiseSW(unsigned short sw) override {
        if (sw != 0x9000) APDU_RAISE(sw);
    }
};

class ScriptedApplet : public IApplet {
public:
    explicit ScriptedApplet(ISender* s) : IApplet(s) { error_.reset(new RawError); }
    // installFs<CFSPro>(): the driver gets this applet and `a`.
    template <class T, class... A>
    T* installFs(A... a) {
        return put<T>(fs_, a...);
    }
    template <class T, class... A>
    T* installPin(A... a) {
        return put<T>(pin_, a...);
    }
    template <class T, class... A>
    T* installInfo(A... a) {
        return put<T>(info_, a...);
    }
    void setError(IAppError* e) { error_.reset(e); }

private:
    template <class T, class Slot, class... A>
    T* put(std::unique_ptr<Slot>& slot, A... a) {
        T* d = new T(this, a...);
        slot.reset(d);
        return d;
    }
};

// Siblings for drivers that only ask isFips() or pathUser().
struct FixedInfo : IAppInfo {
    FixedInfo(IApplet*, bool fips) : fips(fips) {}
    bool isFips() override { return ++asked, fips; }
    bool fips;
    int asked = 0;
};

struct FixedPin : IAppPin {
    FixedPin(IApplet*, TPath user) : user(user) {}
    const TPath& pathUser() override { return user; }
    TPath user;
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

}  // namespace krfs_test
