// Exchange scripts for the virtual cards, the code a failure carries, and a
// state file in a folder of its own.
#pragma once

#include "core/bytes.h"
#include "core/card.h"
#include "core/rsa_key.h"
#include "libapdu/exception.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>

namespace krfs::component {

inline std::string send(vtoken::ICard& card, const std::string& command) {
    return vtoken::toHex(card.process(vtoken::fromHex(command)));
}

// Hex with "XX*N" standing for N bytes XX.
inline std::string expand(const std::string& text) {
    std::istringstream in(text);
    std::string out;
    for (std::string word; in >> word;) {
        const auto star = word.find('*');
        const int n = star == std::string::npos ? 1 : std::stoi(word.substr(star + 1));
        for (int i = 0; i < n; ++i) out += (out.empty() ? "" : " ") + word.substr(0, star);
    }
    return out;
}

// Plays "COMMAND -> ANSWER" exchanges, one a line: a line ending in '\' or
// followed by one beginning "->" goes on; '#' starts a comment; KEY stands
// for `key`. An answer "... SW1 SW2" checks only the status word.
inline void play(vtoken::ICard& card, const std::string& transcript,
                 const vtoken::Bytes& key = {}) {
    std::istringstream in(transcript);
    std::string exchange, line, next;
    bool more = static_cast<bool>(std::getline(in, next));
    while (more) {
        line = next.substr(0, next.find('#'));
        more = static_cast<bool>(std::getline(in, next));
        const auto last = line.find_last_not_of(" \t\r");
        const bool slash = last != std::string::npos && line[last] == '\\';
        const auto lead = next.find_first_not_of(" \t");
        exchange += line.substr(0, slash ? last : line.size()) + " ";
        if (slash || (more && lead != std::string::npos && next.compare(lead, 2, "->") == 0))
            continue;
        if (const auto at = exchange.find("KEY"); at != std::string::npos)
            exchange.replace(at, 3, vtoken::toHex(key));
        const auto arrow = exchange.find("->");
        if (arrow == std::string::npos) {
            EXPECT_EQ(exchange.find_first_not_of(" \t\r"), std::string::npos) << "no answer";
            exchange.clear();
            continue;
        }
        const std::string command = expand(exchange.substr(0, arrow));
        std::string expected = exchange.substr(arrow + 2), answer = send(card, command);
        exchange.clear();
        if (const auto dots = expected.find("..."); dots != std::string::npos) {
            expected.erase(0, dots + 3);
            answer.erase(0, answer.size() < 5 ? 0 : answer.size() - 5);
        }
        EXPECT_EQ(answer, vtoken::toHex(vtoken::fromHex(expand(expected))))
            << command.substr(0, 60);
    }
    EXPECT_EQ(exchange.find_first_not_of(" \t\r"), std::string::npos) << "no answer";
}

// One key pair of each size for the whole run: making them is slow.
inline const vtoken::RsaKey& testKey(int bits) {
    static std::map<int, vtoken::RsaKey> keys;
    auto at = keys.find(bits);
    if (at == keys.end())
        at = keys.emplace(bits, vtoken::makeRsaKey(bits, "krFS key " + std::to_string(bits))).first;
    return at->second;
}

// A block below every modulus of its size.
inline vtoken::Bytes plainBlock(std::size_t size) {
    vtoken::Bytes b(size);
    for (std::size_t i = 0; i < size; ++i) b[i] = static_cast<unsigned char>(i * 7 + 1);
    b[0] = 0x00;
    return b;
}

// `plain` under the certificate's public key by raw RSA, with OpenSSL: the
// block that the card's private key must turn back into `plain`.
inline vtoken::Bytes rsaPublicRaw(const vtoken::Bytes& certificate, const vtoken::Bytes& plain) {
    const unsigned char* p = certificate.data();
    std::unique_ptr<X509, decltype(&X509_free)> cert(
        d2i_X509(nullptr, &p, static_cast<long>(certificate.size())), X509_free);
    EVP_PKEY* key = cert ? X509_get0_pubkey(cert.get()) : nullptr;
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
        key ? EVP_PKEY_CTX_new(key, nullptr) : nullptr, EVP_PKEY_CTX_free);
    vtoken::Bytes out(plain.size());
    std::size_t size = out.size();
    if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_encrypt(ctx.get(), out.data(), &size, plain.data(), plain.size()) != 1) {
        ADD_FAILURE() << "OpenSSL refused the block";
        return {};
    }
    out.resize(size);
    return out;
}

// The result code a failure carries, 0 if there is none.
inline long codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const libapdu::IException& e) {
        return e.code();
    } catch (const CAException& e) {
        return e.Code();
    }
    return 0;
}

// A state file's path in a fresh folder; both go with the object.
struct StateFile {
    StateFile() : dir("/tmp/krfs-card-XXXXXX") {
        if (!::mkdtemp(dir.data())) ADD_FAILURE() << "no folder " << dir;
        path = dir + "/state.json";
    }
    ~StateFile() {
        ::unlink(path.c_str());
        ::rmdir(dir.c_str());
    }
    std::string dir, path;
};

}  // namespace krfs::component
