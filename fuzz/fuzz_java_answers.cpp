// The Java-family drivers' parsers: node descriptions, list pages, the
// information block, the FIPS file, random bytes, the card manager's answers
// and the PIN status. The input is a series of answers as AnswerQueue takes them.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_stack.h"
#include "token/applet_java.h"
#include "token/applet_javamanager.h"

using namespace libapdu;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using fuzz_stack::step;
    AnswerQueue card(data, size);
    CAppletJava applet(&card);
    IAppFS* fs = applet.fs();
    IAppInfo* info = applet.info();

    step([&] {
        fs->select({});
        FUZZ_CHECK(fs->info().type <= 2);
    });
    // A page holds at most 127 identifiers, and there are at most 655 pages.
    step([&] { FUZZ_CHECK(fs->list(1).size() <= 655 * 127); });
    step([&] { FUZZ_CHECK(fs->list(2).size() <= 655 * 127); });
    step([&] {
        fs->select({0x0002});
        TBytes content(std::min<size_t>(fs->info().size, 1024));
        fs->read(content, 0);
        FUZZ_CHECK(content.size() == std::min<size_t>(fs->info().size, 1024));
    });
    step([&] { info->isFips(); });
    step([&] { FUZZ_CHECK(info->rnd(40).size() == 40); });
    step([&] { FUZZ_CHECK(info->id(1).size() < 256); });
    step([&] { info->color(); });
    step([&] { FUZZ_CHECK(info->value(1).size() < 256); });
    step([&] { FUZZ_CHECK(info->version(0).size() < 256); });
    step([&] { info->memoryTotal(); });
    step([&] { FUZZ_CHECK(applet.label()->read().size() <= 0xFFFF); });

    CAppletJavaManager manager(&card);
    step([&] { FUZZ_CHECK(manager.info()->version(0).size() == 2); });
    step([&] { FUZZ_CHECK(manager.info()->id(0).size() < 256); });
    step([&] { FUZZ_CHECK(manager.info()->value(2).size() < 256); });
    step([&] {
        applet.pin()->select(applet.pin()->pathUser());
        const unsigned total = applet.pin()->info().attemptsTotal;
        FUZZ_CHECK(total <= 15 || total == 0x7F);
    });
    return 0;
}
