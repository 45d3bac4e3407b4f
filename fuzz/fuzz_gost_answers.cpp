// The GOST drivers' parsers: the object list, the attribute lists, attribute
// values, the status record and the label. The input is a series of answers,
// each a two-byte big-endian length and that many bytes, given in turn with
// a good status word; the AID selection is always accepted, and the card
// answers with the status word alone once the answers run out.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_stack.h"
#include "token/appfs/fs_gost.h"
#include "token/applet_gost.h"

using namespace libapdu;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using fuzz_stack::step;
    AnswerQueue card(data, size);
    CAppletGost applet(&card);
    auto* fs = static_cast<CFSGost*>(applet.fs());

    step([&] { fs->select({}); });
    const std::vector<CFSGost::CFileInfoEx> table = fs->table();
    if (!table.empty()) {
        // The two fixed directories are always there, and every node has a path.
        size_t fixed = 0;
        for (const CFSGost::CFileInfoEx& e : table) {
            FUZZ_CHECK(!e.path.empty());
            FUZZ_CHECK(e.type == 1 || e.type == 2);
            if (e.type == 2 && e.path.size() <= 2 && e.path[0] == 0x3F00 && e.object == 0) ++fixed;
        }
        FUZZ_CHECK(fixed >= 2);
    }
    int budget = 8;
    for (const CFSGost::CFileInfoEx& e : table) {
        if (e.type != 1 || --budget < 0) continue;
        step([&] {
            fs->select(e.path);
            TBytes content(std::min<size_t>(e.size, 1024));
            fs->read(content, 0);
            FUZZ_CHECK(content.size() == std::min<size_t>(e.size, 1024));
        });
    }
    step([&] { applet.pin()->select(applet.pin()->pathUser()); });
    step([&] { FUZZ_CHECK(applet.info()->version(0).size() == 4); });
    step([&] { FUZZ_CHECK(applet.info()->id(0).size() == 8); });
    step([&] { applet.info()->memoryFree(); });
    step([&] { FUZZ_CHECK(applet.label()->read().size() < 258); });
    return 0;
}
