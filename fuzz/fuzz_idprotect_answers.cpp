// The IDProtect drivers' parsers: the BER answers of both selects, directory
// names, the list answers, the PIN object and verified-PIN list, and the group
// of the key agreement. The input is a series of answers, each a two-byte
// big-endian length and that many bytes, given in turn with a good status
// word; the AID selection is always accepted, and the card answers with the
// status word alone once the answers run out.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_stack.h"
#include "token/applet_idprotect.h"

using namespace libapdu;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using fuzz_stack::step;
    AnswerQueue card(data, size);
    CAppletIdprotect applet(&card);
    IAppFS* fs = applet.fs();

    step([&] {
        fs->select({0x3F00, 0x3000, 0xC000});
        const CFileInfo info = fs->info();
        FUZZ_CHECK(info.type <= 2);
        FUZZ_CHECK(info.type != 2 || info.size == 0);
    });
    step([&] { fs->select({0x1234, 0x0001}); });
    step([&] {
        fs->select({0x1234});
        const TPath dirs = fs->list(2);
        FUZZ_CHECK(dirs.size() < 1024);
    });
    step([&] { fs->list(1); });
    step([&] {
        TBytes content(std::min<size_t>(fs->info().size, 1024));
        fs->read(content, 0);
    });
    step([&] { applet.pin()->select(applet.pin()->pathUser()); });
    step([&] {
        TBytes response;
        applet.pack()->sm({0x80, 0x24, 0x00, 0x00, 0x02, 0x31, 0x32}, response);
        FUZZ_CHECK(response.size() == 2);
    });
    step([&] { FUZZ_CHECK(applet.label()->read().size() <= 32); });
    step([&] { FUZZ_CHECK(applet.info()->version(0).size() == 4); });
    step([&] { applet.info()->memoryFree(); });
    return 0;
}
