// A virtual Pro or R2 card behind the library's own token object, for tests
// of the drivers against the card model.
#pragma once

#include "core/card_sender.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"
#include "pro/pro_card.h"
#include "r2/r2_card.h"

#include <functional>
#include <memory>

namespace krfs::component {

using vtoken::pro::Model;
using vtoken::pro::Path;

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

// Makes the library's token over a card and selects an applet on it.
inline std::unique_ptr<libapdu::IToken> bindToken(vtoken::ICard& card, unsigned short applet) {
    std::unique_ptr<libapdu::ISender> sender(new vtoken::CardSender(card));
    auto token = libapdu::IToken::create(sender);
    token->selectApplet(applet);
    return token;
}

// A personalised Pro card (identifier 12 34 56 78, colour 9) bound as a Pro.
struct ProToken {
    explicit ProToken(const vtoken::pro::Personalisation& p)
        : card(vtoken::pro::personalise(p)), token(bindToken(card, 0x1002)) {}
    ProToken(Model model, bool fips) : ProToken(personalisation(model, fips)) {}
    static vtoken::pro::Personalisation personalisation(Model model, bool fips) {
        vtoken::pro::Personalisation p;
        p.model = model;
        p.fips = fips;
        p.id = vtoken::Bytes{0x12, 0x34, 0x56, 0x78};
        p.colour = 9;
        return p;
    }

    libapdu::IAppFS* fs() { return token->fs(); }
    libapdu::IAppInfo* info() { return token->info(); }
    // The home directory of the layout, and a path below it.
    Path home(Path below = {}) const {
        Path p = card.state().home();
        p.insert(p.end(), below.begin(), below.end());
        return p;
    }
    const vtoken::pro::Node* node(const Path& path) const { return card.state().find(path); }

    vtoken::pro::ProCard card;
    std::unique_ptr<libapdu::IToken> token;
};

}  // namespace krfs::component
