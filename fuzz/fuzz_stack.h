// The whole-stack fuzz harness: an in-process card whose answers come from the
// fuzz input, bound through libapdu, then worked as an application would.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"

namespace fuzz_stack {

using namespace libapdu;

// Each answer is a length byte and that many bytes of the input; once the
// input runs out the card answers nothing at all.
class InputCard : public ISender {
public:
    InputCard(TBytes atr, const uint8_t* data, size_t size) : atr_(std::move(atr)) {
        for (size_t at = 0; at < size;) {
            const size_t n = data[at++];
            const size_t take = n < size - at ? n : size - at;
            answers_.emplace_back(data + at, data + at + take);
            at += take;
        }
    }
    void send(const TBytes&, TBytes& response) override {
        AnswerSender::give(next_ < answers_.size() ? answers_[next_++] : TBytes(), response);
    }
    TBytes atr() override { return atr_; }

private:
    TBytes atr_;
    std::vector<TBytes> answers_;
    size_t next_ = 0;
};

// Runs one step; a failure the library reports is an answer, not a finding.
template <class F>
void step(F&& f) {
    try {
        f();
    } catch (const IException&) {
    } catch (const CAException&) {
    }
}

// Reads every file and lists every directory below `path`, within limits that
// keep one input's work small.
inline void walk(IToken& token, TPath path, int depth, int& budget) {
    if (depth > 3 || --budget < 0) return;
    step([&] {
        token.fs()->select(path);
        const CFileInfo info = token.fs()->info();
        FUZZ_CHECK(info.type <= 2);
        if (info.type != 2) {
            TBytes data(info.size < 1024 ? info.size : 1024);
            token.fs()->read(data, 0);
            FUZZ_CHECK(data.size() == (info.size < 1024 ? info.size : 1024));
            return;
        }
        // Both lists before any descent: a visit below selects another node.
        TPath children = token.fs()->list(2);
        const TPath files = token.fs()->list(1);
        children.insert(children.end(), files.begin(), files.end());
        for (WORD id : children) {
            path.push_back(id);
            walk(token, path, depth + 1, budget);
            path.pop_back();
        }
    });
}

// Binds to `applet` on `card`, then the identifier, the label, a login, the
// tree and a PIN change. A `fileSystem` other than 0 is switched to after
// binding, as the session does.
inline void work(std::unique_ptr<ISender> card, unsigned short applet,
                 unsigned short fileSystem = 0) {
    std::unique_ptr<IToken> token = IToken::create(card);
    step([&] { token->selectApplet(applet); });
    if (fileSystem != 0) step([&] { token->switchToFileSystem(fileSystem); });
    const TBytes pin{'1', '2', '3', '4', '5', '6'};
    step([&] { token->info()->id(1); });
    step([&] { token->label()->read(); });
    step([&] { token->pin()->select(token->pin()->pathUser()); });
    step([&] { token->pin()->login(pin); });
    int budget = 64;
    walk(*token, {}, 0, budget);
    step([&] { token->label()->write({'f', 'u', 'z', 'z'}); });
    step([&] { token->pin()->change(pin); });
    step([&] { token->pin()->logout(); });
}

// The same on a card with `atr` answering from the input.
inline void run(const TBytes& atr, unsigned short applet, const uint8_t* data, size_t size,
                unsigned short fileSystem = 0) {
    work(std::unique_ptr<ISender>(new InputCard(atr, data, size)), applet, fileSystem);
}

}  // namespace fuzz_stack
