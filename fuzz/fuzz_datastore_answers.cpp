// The DataStore parsers: record lists, the table file, the status record and
// the label, fed to the drivers. The first byte picks the layout (odd: the
// table). The rest is a series of answers, each a length byte and that many
// bytes; each gets a good status word, and the card answers with nothing once
// they run out.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/applet.h"
#include "libapdu/error.h"
#include "libapdu/exception.h"
#include "token/appfs/fs_datastore.h"
#include "token/appfs/fs_datastore_v2.h"
#include "token/appinfo/info_datastore.h"
#include "token/applabel/label_datastore.h"
#include "token/apppin/pin_datastore.h"

namespace {

using namespace libapdu;

class AnswersSender : public ISender {
public:
    std::vector<TBytes> answers;
    std::size_t next = 0;
    std::size_t listCommands = 0;

    void send(const TBytes& command, TBytes& response) override {
        if (command.size() > 2 && command[1] == 0x20 && command[2] == 0x60) ++listCommands;
        TBytes answer;
        if (next < answers.size()) answer = answers[next++];
        answer.push_back(0x90);
        answer.push_back(0x00);
        AnswerSender::give(answer, response);
    }
    TBytes atr() override { return {}; }
};

class FuzzApplet : public IApplet {
public:
    FuzzApplet(ISender* s, bool table) : IApplet(s) {
        error_.reset(new CErrorDataStore);
        info_.reset(new CInfoDataStore(this));
        label_.reset(new CLabelDataStore(this));
        pin_.reset(new CPinDataStore(this));
        if (table)
            fs_.reset(new CFSDataStore_v2(this));
        else
            fs_.reset(new CFSDataStore(this));
    }
};

template <class F>
void step(F&& f) {
    try {
        f();
    } catch (const IException&) {
    }
}

// Lists and reads one level below the root, as a file browser would.
void browse(IAppFS* fs) {
    step([&] {
        fs->select({});
        for (unsigned char kind : {1, 2}) {
            for (WORD id : fs->list(kind)) {
                step([&] {
                    fs->select({0x3F00, id});
                    const CFileInfo info = fs->info();
                    TBytes data(info.size < 512 ? info.size : 512);
                    if (info.type == 1) fs->read(data, 0);
                });
            }
        }
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const bool table = data[0] & 1;
    AnswersSender sender;
    for (size_t at = 1; at < size;) {
        const size_t n = data[at++];
        const size_t take = n < size - at ? n : size - at;
        sender.answers.emplace_back(data + at, data + at + take);
        at += take;
    }
    FuzzApplet applet(&sender, table);
    browse(applet.fs());

    // Each list round but the last takes at least one record, and each answer
    // feeds one round at most.
    FUZZ_CHECK(sender.listCommands <= sender.answers.size() + 1);
    if (table) {
        auto* v2 = static_cast<CFSDataStore_v2*>(applet.fs());
        FUZZ_CHECK(v2->tableImage().size() == CFSDataStore_v2::kTableSize);
        for (const CDataStoreEntryV2& e : v2->entries())
            FUZZ_CHECK(!e.path.empty() && e.path.front() == 0x3F00);
    }
    step([&] { FUZZ_CHECK(applet.info()->version(1).size() == 3); });
    step([&] { FUZZ_CHECK(applet.info()->id(1).size() == 8); });
    step([&] { applet.info()->memoryFree(); });
    for (WORD pin : {1, 2, 3})
        step([&] {
            applet.pin()->select({pin});
            FUZZ_CHECK(applet.pin()->info().attemptsLeft <= applet.pin()->info().attemptsTotal);
        });
    step([&] { FUZZ_CHECK(applet.label()->read().size() <= 256); });
    return 0;
}
