// The key and certificate objects of the Java, Joker and IDProtect tokens and
// the answers of their private-key operations. The first byte picks: 0 the
// attribute and certificate files through the Java finder, 1 an IDProtect
// certificate object, 2 the key query and decipher answers of both drivers.
// Every failure must be an IException; reads stay inside the data (ASan).
#include <cstddef>
#include <cstdint>

#include "crypto/rsa_helpers.h"
#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/applet.h"
#include "libapdu/exception.h"
#include "token/appcry/cry_idprotect.h"
#include "token/appcry/cry_java.h"
#include "token/appcry/finder_java.h"
#include "tests/unit/memory_fs.h"

using namespace libapdu;

namespace {

TPath child(TPath p, WORD id) { return p.push_back(id), p; }

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
        fs_.reset(fs = new memory_fs::MemoryFS);
        pin_.reset(new memory_fs::UserPin);
        info_.reset(new PlainInfo);
        pack_.reset(new OneShotPack(this));
    }
    memory_fs::MemoryFS* fs;
};

const TPath kHome{0x3F00, 0x6666, 0x5000, 0x0220};
// A certificate skeleton around the modulus C1 12 23.
const TBytes kCertificate = {0x30, 0x24, 0x30, 0x22, 0xA0, 0x03, 0x02, 0x01, 0x02, 0x02,
                             0x01, 0x01, 0x30, 0x00, 0x30, 0x00, 0x30, 0x00, 0x30, 0x00,
                             0x30, 0x10, 0x30, 0x00, 0x03, 0x0C, 0x00, 0x30, 0x09, 0x02,
                             0x04, 0x00, 0xC1, 0x12, 0x23, 0x02, 0x01, 0x03};
const TBytes kBlock = {0x00, 0x11, 0x22};

// Splits the input into parts, each a length byte and that many bytes.
std::vector<TBytes> parts(const uint8_t* data, size_t size) {
    std::vector<TBytes> out;
    for (size_t at = 0; at < size;) {
        const size_t n = data[at++];
        const size_t take = n < size - at ? n : size - at;
        out.emplace_back(data + at, data + at + take);
        at += take;
    }
    out.resize(3);
    return out;
}

template <class F>
void guarded(F&& f) {
    try {
        f();
    } catch (const IException&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const TBytes input(data + 1, data + size);
    AnswerSender card;
    card.answer = input;
    Applet applet(&card);
    switch (data[0] % 3) {
        case 0: {
            const std::vector<TBytes> p = parts(data + 1, size - 1);
            applet.fs->put(child(child(kHome, 0x1001), 1), p[0]);
            applet.fs->put(child(child(kHome, 0x1001), 2), p[1]);
            applet.fs->put(child(child(kHome, 0x3001), 1), p[2]);
            guarded([&] {
                for (const CCryptoInfo& c : CJavaFinder(AppletToAdapter(&applet)).containers()) {
                    FUZZ_CHECK(c.privateKey.empty() && c.id.size() < 256);
                    FUZZ_CHECK(c.publicKey.size() <= c.certificate.size());
                }
            });
            break;
        }
        case 1:
            guarded([&] {
                const TBytes der = IdprotectCertificate(input);
                FUZZ_CHECK(der.size() + 127 <= input.size());
                FUZZ_CHECK(extractPublicKeyFromCert(der).size() <= der.size());
            });
            break;
        default: {
            applet.fs->put(child(child(kHome, 0x3001), 1), {});
            CCryJava java(&applet);
            guarded([&] { java.select(child(kHome, 0x3001)); });
            guarded([&] { FUZZ_CHECK(java.decrypt(kBlock).size() < input.size()); });

            const TPath keys{0x3F00, 0x3000, 0x3002};
            TBytes object(125, 0);
            object << 0x00 << static_cast<unsigned char>(kCertificate.size()) << kCertificate;
            applet.fs->put({0x3F00, 0x3000, 0x3001, 0x8401}, object);
            applet.fs->put(child(keys, 0x0201), {});
            applet.fs->put(child(keys, 0x0042), TBytes(kBlock.size()));
            CCryIdprotect idprotect(&applet);
            idprotect.select(child(keys, 0x0201));
            guarded([&] { FUZZ_CHECK(idprotect.decrypt(kBlock).size() < input.size()); });
            break;
        }
    }
    return 0;
}
