// krfs keys and krfs decrypt: the token's key containers through the C++
// interface an application uses, on a connection of their own.
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>

#include "SCardSender.h"
#include "commands.h"
#include "keyparts.h"
#include "krfs.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"

namespace krfstool {

namespace {

using json = nlohmann::json;

// PC/SC: T=0 or T=1, the user scope.
constexpr unsigned long kProtocols = 3;
constexpr unsigned long kScope = 0;
// The binding order's applets that keep keys (Pro, Java, IDProtect), then
// Joker, which binding never picks by itself.
constexpr unsigned short kKeyApplets[] = {0x1002, 0x2001, 0x2101, 0x2204};
// Any provider number lists every container.
constexpr unsigned short kProvider = 0x1001;

// Runs `step`, turning the library's failures into a Failure saying `what`.
template <typename Step>
auto attempt(const std::string& what, Step step) -> decltype(step()) {
    try {
        return step();
    } catch (const libapdu::IException& e) {
        throw Failure(e.code(), what);
    } catch (const CAException& e) {  // PC/SC failures of the sender
        throw Failure(e.Code(), what);
    } catch (int) {  // an answer whose TLV does not parse, as the exported calls count it
        throw Failure(0x80004005L, what);
    }
}

// A token connection with an applet that keeps keys selected, under a PC/SC
// transaction, logged in when asked; logged out and released at the end.
class KeyToken {
public:
    KeyToken(const Common& c, bool login) {
        if (!c.options.log.empty()) KREnableLogging(c.options.log.c_str());
        const std::string reader = chooseReader(c.options);
        auto sender = attempt("connecting to '" + reader + "'", [&] {
            return std::make_unique<CSCardSender>(reader, kProtocols, kScope);
        });
        sender_ = sender.get();
        std::unique_ptr<libapdu::ISender> owned(std::move(sender));
        token_ = libapdu::IToken::create(owned);
        attempt("locking the token", [&] { sender_->lock(); });
        transaction_.sender = sender_;
        selectApplet(c.options.applet);
        if (login) {
            const std::string pin = readPin(c.pin, "PIN: ");
            attempt("logging in", [&] {
                libapdu::IAppPin* p = token_->pin();
                p->select(p->pathUser());
                p->login(TBytes(pin.begin(), pin.end()));
            });
            loggedIn_ = true;
        }
    }
    ~KeyToken() {
        // Some tokens keep a login until they lose power: leave none behind.
        try {
            if (loggedIn_) token_->pin()->logout();
        } catch (...) {
        }
    }
    KeyToken(const KeyToken&) = delete;
    KeyToken& operator=(const KeyToken&) = delete;

    libapdu::IAppCrypto* crypto() {
        return attempt("reaching the keys", [&] { return token_->crypto(); });
    }

private:
    void selectApplet(long applet) {
        if (applet >= 0) {
            attempt("selecting the applet",
                    [&] { token_->selectApplet(static_cast<unsigned short>(applet)); });
            return;
        }
        for (unsigned short number : kKeyApplets) {
            try {
                token_->selectApplet(number);
                return;
            } catch (...) {
                // Not on this token: the next one.
            }
        }
        throw Failure(0x86E0FACEL, "finding an applet that keeps keys");
    }

    // Ends the PC/SC transaction, also when the constructor fails after it.
    struct Transaction {
        CSCardSender* sender = nullptr;
        ~Transaction() {
            if (sender != nullptr) sender->unlock();
        }
    };

    CSCardSender* sender_ = nullptr;  // owned by the token
    std::unique_ptr<libapdu::IToken> token_;
    Transaction transaction_;  // after the token: ends before the connection does
    bool loggedIn_ = false;
};

// The key's length in bytes: the certificate's modulus when there is one, as
// the FIPS Pro lists every key at 128 bytes whatever its modulus.
std::size_t keyLength(const libapdu::CCryptoInfo& info) {
    return info.publicKey.empty() ? info.size : info.publicKey.size();
}

TBytes readBlock(std::istream& in) {
    return TBytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TBytes readBlock(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw std::invalid_argument("cannot read " + file);
    return readBlock(in);
}

void writeResult(const std::string& file, const TBytes& data) {
    if (file.empty()) {
        std::cout.write(reinterpret_cast<const char*>(data.data()),
                        static_cast<std::streamsize>(data.size()));
        std::cout.flush();
        return;
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
    if (!out.flush()) throw std::invalid_argument("cannot write " + file);
}

}  // namespace

int cmdKeys(const Common& c) {
    KeyToken token(c, c.login);
    libapdu::IAppCrypto* crypto = token.crypto();
    const std::vector<TPath> paths =
        attempt("listing the keys", [&] { return crypto->list(kProvider); });
    json all = json::array();
    for (const TPath& path : paths) {
        const std::string where = formatKeyPath(path);
        const libapdu::CCryptoInfo info = attempt("selecting " + where, [&] {
            crypto->select(path);
            return crypto->info();
        });
        const auto cert = certificateFields(info.certificate);
        const bool hasKey = !info.privateKey.empty();
        if (c.json) {
            json j = {{"path", where},         {"id", hexText(info.id)}, {"size", keyLength(info)},
                      {"privateKey", hasKey},  {"subject", nullptr},     {"serial", nullptr},
                      {"certificate", nullptr}};
            if (cert) j["subject"] = cert->subject, j["serial"] = cert->serial;
            if (!info.certificate.empty()) j["certificate"] = hexText(info.certificate);
            all.push_back(j);
            continue;
        }
        std::cout << where << " id=" << (info.id.empty() ? "-" : hexText(info.id))
                  << " size=" << keyLength(info) << " private=" << (hasKey ? "yes" : "no")
                  << " serial=" << (cert ? cert->serial : "-")
                  << " subject=" << (cert ? cert->subject : "-") << "\n";
    }
    if (c.json) std::cout << all.dump(2) << "\n";
    return 0;
}

int cmdDecrypt(const Common& c, const std::string& keyPath, const std::string& in,
               const std::string& out, bool pkcs1) {
    const TPath path = parseKeyPath(keyPath);
    TBytes block;
    if (!in.empty()) block = readBlock(in);
    KeyToken token(c, true);
    // On standard input a PIN read from there is the line before the block.
    if (in.empty()) block = readBlock(std::cin);
    libapdu::IAppCrypto* crypto = token.crypto();
    const libapdu::CCryptoInfo info = attempt("selecting " + keyPath, [&] {
        crypto->select(path);
        return crypto->info();
    });
    TBytes result;
    try {
        if (info.privateKey.empty())
            throw std::invalid_argument(formatKeyPath(path) + " holds no private key");
        if (block.size() != keyLength(info))
            throw std::invalid_argument("the block is " + std::to_string(block.size()) +
                                        " bytes, the key " + std::to_string(keyLength(info)));
        result = attempt("decrypting", [&] { return crypto->decrypt(block); });
        if (pkcs1) result = unpadPkcs1Type2(result);
    } catch (const std::invalid_argument& e) {
        // Data that does not fit the key is no usage error.
        std::cerr << "krfs: " << e.what() << "\n";
        return 1;
    }
    writeResult(out, result);
    return 0;
}

}  // namespace krfstool
