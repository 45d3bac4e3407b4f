// A Java card: one chip that carries several applets, each reached by SELECT
// with its AID. The platform owns the routing and the contact events; what
// an applet does with a command is the applet's business, and no dialect
// code lives here.
#pragma once

#include "core/apdu.h"
#include "core/card.h"
#include "core/faults.h"
#include "core/rsa_key.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vtoken::javacard {

// The ATR of the Java 1.0 token, which the Java-card dialects carry unless a
// state file says otherwise.
const Bytes& defaultAtr();

class Applet {
public:
    virtual ~Applet();

    // Its name in the state file: "gost", "datastore", ...
    virtual std::string kind() const = 0;
    virtual const Bytes& aid() const = 0;

    // SELECT named this applet, which is now current: the answer, status
    // word included.
    virtual Bytes select() { return respond(sw::kOk); }
    // A command while the applet is current, as it came (a SELECT by AID
    // never gets here). Raw bytes: some dialects use length forms that a
    // short APDU parser refuses.
    virtual Bytes process(const Bytes& apdu) = 0;
    // Power-up, power-off, reset, or another applet selected: the volatile
    // state (login, session) goes.
    virtual void deselect() {}

    // `krfs-vtoken add-key`: stores the key and its certificate in the
    // applet's own layout under the container name `id`. An applet that
    // keeps no keys throws std::invalid_argument.
    virtual void addKey(const RsaKey& key, const std::string& id);

    // What the state file keeps, and the developer's view of it.
    virtual nlohmann::ordered_json save() const = 0;
    virtual std::string describe() const = 0;

    // Whether a command since the last call changed what save() gives.
    bool takeChanged() {
        bool c = changed_;
        changed_ = false;
        return c;
    }

protected:
    void markChanged() { changed_ = true; }

private:
    bool changed_ = false;
};

class JavaCard : public ICard {
public:
    JavaCard(Bytes atr, std::vector<std::unique_ptr<Applet>> applets);

    Bytes atr() const override { return atr_; }
    Bytes process(const Bytes& command) override;
    void powerOn() override { endSession(); }
    void powerOff() override { endSession(); }
    void reset() override { endSession(); }

    // Null before the first successful SELECT of a session.
    Applet* current() const { return current_; }
    const std::vector<std::unique_ptr<Applet>>& applets() const { return applets_; }
    // The first applet of type T, or null; for tests and tooling.
    template <class T>
    T* find() const {
        for (const auto& a : applets_)
            if (auto* t = dynamic_cast<T*>(a.get())) return t;
        return nullptr;
    }

    // The knobs kept with the card's state; the card itself ignores them.
    Faults& faults() { return faults_; }
    const Faults& faults() const { return faults_; }

    // Called after each command that changed an applet's persistent state.
    void setOnChange(std::function<void(const JavaCard&)> onChange) {
        onChange_ = std::move(onChange);
    }

private:
    void endSession();
    Bytes selectByAid(const Command& c);

    Bytes atr_;
    std::vector<std::unique_ptr<Applet>> applets_;
    Applet* current_ = nullptr;
    Faults faults_;
    std::function<void(const JavaCard&)> onChange_;
};

// Makes an applet of `kind` from its saved state; throws
// std::invalid_argument for an unknown kind or a bad state.
using AppletLoader =
    std::function<std::unique_ptr<Applet>(const std::string& kind, const nlohmann::ordered_json&)>;

// The stored form: dialect, ATR, fault knobs and each applet's state in
// order. fromJsonText throws std::invalid_argument naming the fault.
std::string toJsonText(const JavaCard& card, const std::string& dialect);
std::unique_ptr<JavaCard> fromJsonText(std::string_view text, const std::string& dialect,
                                       const AppletLoader& load);

// ATR, then each applet's own view.
std::string describe(const JavaCard& card);

}  // namespace vtoken::javacard
