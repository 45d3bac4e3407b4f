// Java/Joker and IDProtect key objects and private-key answers. The first byte picks: 0 the Java
// finder's files, 1 an IDProtect certificate object, 2 the key query and decipher answers of both
// drivers. Every failure must be an IException; reads stay inside the data (ASan).
#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/exception.h"
#include "token/appcry/cry_idprotect.h"
#include "token/appcry/cry_java.h"
#include "token/appcry/finder_java.h"
#include "tests/unit/memory_fs.h"

using namespace libapdu;

namespace {

struct PlainInfo : IAppInfo {
    bool isFips() override { return false; }
};
// Chaining reduced to one exchange: the answer is the card's as it stands.
struct OneShotPack : IAppPack {
    explicit OneShotPack(IApplet* owner) : owner(owner) {}
    void chain(const TBytes& apdu, TBytes& response) override { owner->send(apdu, response); }
    IApplet* owner;
};
struct Applet : IApplet {
    explicit Applet(ISender* s) : IApplet(s) {
        fs_.reset(fs = new memory_fs::MemoryFS), pin_.reset(new memory_fs::UserPin);
        info_.reset(new PlainInfo), pack_.reset(new OneShotPack(this));
    }
    memory_fs::MemoryFS* fs;
};

const TBytes kCertificate = {0x30, 0x24, 0x30, 0x22, 0xA0, 0x03, 0x02, 0x01, 0x02, 0x02,
                             0x01, 0x01, 0x30, 0x00, 0x30, 0x00, 0x30, 0x00, 0x30, 0x00,
                             0x30, 0x10, 0x30, 0x00, 0x03, 0x0C, 0x00, 0x30, 0x09, 0x02,
                             0x04, 0x00, 0xC1, 0x12, 0x23, 0x02, 0x01, 0x03};
const TBytes kBlock = {0x00, 0x11, 0x22};

template <class F>
void guarded(F&& f) try {
    f();
} catch (const IException&) {
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const TBytes input(data + 1, data + size);
    AnswerSender card;
    card.answer = input;
    Applet applet(&card);
    if (data[0] % 3 == 0) {
        for (WORD f : {1, 2}) applet.fs->put({0x3F00, 0x6666, 0x5000, 0x0220, 0x1001, f}, input);
        applet.fs->put({0x3F00, 0x6666, 0x5000, 0x0220, 0x3001, 1}, input);
        guarded([&] {
            for (const CCryptoInfo& c : CJavaFinder(AppletToAdapter(&applet)).containers())
                FUZZ_CHECK(c.privateKey.empty() && c.publicKey.size() <= c.certificate.size());
        });
    } else if (data[0] % 3 == 1) {
        guarded([&] { FUZZ_CHECK(IdprotectCertificate(input).size() + 127 <= input.size()); });
    } else {
        applet.fs->put({0x3F00, 0x6666, 0x5000, 0x0220, 0x3001, 1}, {});
        CCryJava java(&applet);
        guarded([&] { java.select({0x3F00, 0x6666, 0x5000, 0x0220, 0x3001}); });
        guarded([&] { FUZZ_CHECK(java.decrypt(kBlock).size() < input.size()); });

        TBytes object(125, 0);
        object << 0x00 << static_cast<unsigned char>(kCertificate.size()) << kCertificate;
        applet.fs->put({0x3F00, 0x3000, 0x3001, 0x8401}, object);
        // Key 0201, and its companion 0042 whose size makes the key as long as the block.
        for (WORD id : {0x0201, 0x0042}) applet.fs->put({0x3F00, 0x3000, 0x3002, id}, kBlock);
        CCryIdprotect idprotect(&applet);
        idprotect.select({0x3F00, 0x3000, 0x3002, 0x0201});
        guarded([&] { FUZZ_CHECK(idprotect.decrypt(kBlock).size() < input.size()); });
    }
    return 0;
}
