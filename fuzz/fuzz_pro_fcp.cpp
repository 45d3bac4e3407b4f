// The Pro file system's reading of file control data. The first input byte
// picks CFSPro or CFSPro4; the rest is the card's answer to SELECT, given a
// good status word. select must never fail on it, and what it reports must
// be a coherent node.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/applet.h"
#include "libapdu/error.h"
#include "token/appfs/fs_pro.h"

namespace {

using namespace libapdu;

class FuzzApplet : public IApplet {
public:
    FuzzApplet(ISender* s, bool pro4) : IApplet(s) {
        error_.reset(new CErrorPro);
        fs_.reset(pro4 ? new CFSPro4(this) : new CFSPro(this));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 257) return 0;
    AnswerSender sender;
    sender.answer.assign(data + 1, data + size);
    sender.answer.push_back(0x90);
    sender.answer.push_back(0x00);
    FuzzApplet applet(&sender, data[0] & 1);

    // An absolute path: no FIPS question, which this applet can't answer.
    applet.fs()->select({0x3F00, 0x1234});
    const CFileInfo info = applet.fs()->info();
    FUZZ_CHECK(info.type <= 2);
    if (info.type == 2) {
        FUZZ_CHECK(info.size == 0);
        FUZZ_CHECK(info.read == 0 || info.read == 0xFF);
    }
    if (info.type == 0) FUZZ_CHECK(info.size == 0);
    return 0;
}
