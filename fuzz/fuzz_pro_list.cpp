// The Pro file system's list loop. The input is a series of answers, each a
// length byte and that many bytes; each is given a good status word, and the
// card answers with nothing once they run out. The walk must stay within each
// answer and the loop must end.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/applet.h"
#include "libapdu/error.h"
#include "token/appfs/fs_pro.h"

namespace {

using namespace libapdu;

// Control data of a directory, for the select that precedes the list.
const TBytes kDirectory = {0x6F, 0x03, 0x82, 0x01, 0x38, 0x90, 0x00};

class ListSender : public ISender {
public:
    std::vector<TBytes> answers;
    std::size_t next = 0;
    std::size_t listCommands = 0;

    void send(const TBytes& command, TBytes& response) override {
        TBytes answer;
        if (command.size() > 1 && command[1] == 0xA4) {
            answer = kDirectory;
        } else {
            ++listCommands;
            if (next < answers.size()) answer = answers[next++];
            answer.push_back(0x90);
            answer.push_back(0x00);
        }
        AnswerSender::give(answer, response);
    }
    TBytes atr() override { return {}; }
};

class FuzzApplet : public IApplet {
public:
    explicit FuzzApplet(ISender* s) : IApplet(s) {
        error_.reset(new CErrorPro);
        fs_.reset(new CFSPro(this));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ListSender sender;
    for (size_t at = 0; at < size;) {
        const size_t n = data[at++];
        const size_t take = n < size - at ? n : size - at;
        sender.answers.emplace_back(data + at, data + at + take);
        at += take;
    }
    FuzzApplet applet(&sender);
    applet.fs()->select({0x3F00});
    const TPath found = applet.fs()->list(1);

    // One entry takes at least 5 bytes of an answer of at most 256 data bytes.
    FUZZ_CHECK(found.size() <= 0xFF + 256 / 5);
    // Every round but the last added something.
    FUZZ_CHECK(sender.listCommands <= found.size() + 1);
    return 0;
}
