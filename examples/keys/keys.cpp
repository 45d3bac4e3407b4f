// Lists the key containers of the token in READER and decrypts one block with
// the first private key, through the library's C++ interface.
// Usage: keys READER [PIN]
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "SCardSender.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"

namespace {

// The applets that keep keys: Pro, Java, IDProtect, Joker.
const unsigned short kApplets[] = {0x1002, 0x2001, 0x2101, 0x2204};

std::string hex(const TBytes& bytes) {
    std::string s;
    char two[3];
    for (unsigned char b : bytes) {
        std::snprintf(two, sizeof(two), "%02x", b);
        s += two;
    }
    return s;
}

std::string pathText(const TPath& path) {
    std::string s;
    char four[5];
    for (unsigned short id : path) {
        std::snprintf(four, sizeof(four), "%04X", id);
        s += (s.empty() ? "" : "/") + std::string(four);
    }
    return s;
}

int run(const std::string& reader, const char* pin) {
    // T=0 or T=1, user scope; the token owns the sender from here on.
    std::unique_ptr<libapdu::ISender> sender(new CSCardSender(reader, 3, 0));
    std::unique_ptr<libapdu::IToken> token = libapdu::IToken::create(sender);

    unsigned short applet = 0;
    for (unsigned short a : kApplets) {
        try {
            token->selectApplet(a);
            applet = a;
            break;
        } catch (const libapdu::IException&) {
            // Not on this token.
        }
    }
    if (applet == 0) {
        std::printf("no applet that keeps keys\n");
        return 1;
    }
    std::printf("applet %04X\n", applet);

    if (pin != nullptr) {
        libapdu::IAppPin* p = token->pin();
        p->select(p->pathUser());
        const std::string text(pin);
        p->login(TBytes(text.begin(), text.end()));
    }

    libapdu::IAppCrypto* crypto = token->crypto();
    TPath chosen;
    unsigned short size = 0;
    for (const TPath& path : crypto->list(0x1001)) {
        crypto->select(path);
        const libapdu::CCryptoInfo info = crypto->info();
        const bool hasKey = !info.privateKey.empty();
        std::printf("container %s id %s size %u private key %s certificate %zu bytes\n",
                    pathText(path).c_str(), hex(info.id).c_str(), info.size, hasKey ? "yes" : "no",
                    info.certificate.size());
        if (hasKey && chosen.empty()) {
            chosen = path;
            size = info.size;
        }
    }
    if (chosen.empty()) {
        std::printf("no private key\n");
        return 1;
    }

    // 00 01 02 ...: the key's length, and below any modulus of that length.
    TBytes block(size);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned char>(i);
    crypto->select(chosen);
    const TBytes result = crypto->decrypt(block);  // raw RSA: unpadding is the caller's
    std::printf("decrypted with %s: %s\n", pathText(chosen).c_str(), hex(result).c_str());
    if (pin != nullptr) token->pin()->logout();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: keys READER [PIN]\n");
        return 2;
    }
    try {
        return run(argv[1], argc == 3 ? argv[2] : nullptr);
    } catch (const libapdu::IException& e) {
        std::fprintf(stderr, "keys: failed: 0x%08lX\n", static_cast<unsigned long>(e.code()));
    } catch (const CAException& e) {  // PC/SC failures of the sender
        std::fprintf(stderr, "keys: PC/SC failed: 0x%08lX\n", static_cast<unsigned long>(e.Code()));
    }
    return 1;
}
