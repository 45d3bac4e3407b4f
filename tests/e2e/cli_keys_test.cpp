// krfs keys and krfs decrypt end to end: RSA keys and a certificate alone put
// on each dialect's virtual token, listed, and used with blocks OpenSSL sealed
// to their certificates.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <map>
#include <memory>
#include <string>

#include "e2e/api_session.h"
#include "harness/harness.h"

namespace {

using namespace krfs::harness;
using krfs::e2e::krfsTool;
using json = nlohmann::json;

struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Ctx = std::unique_ptr<EVP_PKEY_CTX, CtxFree>;

std::string fromHex(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

Pkey publicKey(const std::string& certificateHex) {
    const std::string der = fromHex(certificateHex);
    const auto* p = reinterpret_cast<const unsigned char*>(der.data());
    X509* cert = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
    EXPECT_NE(cert, nullptr);
    Pkey key(cert != nullptr ? X509_get_pubkey(cert) : nullptr);
    X509_free(cert);
    return key;
}

// The public-key side: sealing with a padding, or undoing a raw result.
std::string publicOp(EVP_PKEY* key, bool recover, int padding, const std::string& in) {
    Ctx ctx(EVP_PKEY_CTX_new(key, nullptr));
    EXPECT_EQ(recover ? EVP_PKEY_verify_recover_init(ctx.get()) : EVP_PKEY_encrypt_init(ctx.get()),
              1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding), 1);
    auto op = recover ? EVP_PKEY_verify_recover : EVP_PKEY_encrypt;
    const auto* data = reinterpret_cast<const unsigned char*>(in.data());
    std::size_t n = 0;
    EXPECT_EQ(op(ctx.get(), nullptr, &n, data, in.size()), 1);
    std::string out(n, '\0');
    EXPECT_EQ(op(ctx.get(), reinterpret_cast<unsigned char*>(out.data()), &n, data, in.size()), 1);
    out.resize(n);
    return out;
}

struct Dialect {
    const char* dialect;
    bool fips;
};

// Each dialect's token: none listed before keys are added; then two keys
// with certificates (sizes are the moduli's, on the FIPS Pro too) and one
// certificate alone, decrypted raw, with PKCS#1 padding removed, with the
// block and the PIN on standard input, and refused for wrong PINs, lengths,
// values, paddings and paths.
TEST(CliKeys, ListAndDecryptOnEachDialect) {
    const Dialect dialects[] = {
        {"pro", false}, {"pro", true}, {"java", false}, {"joker", false}, {"idprotect", false}};
    Pcscd pcscd;
    for (const Dialect& d : dialects) {
        SCOPED_TRACE(std::string(d.dialect) + (d.fips ? " fips" : ""));
        TempDir dir("krfs-cli-keys");
        const std::string state = dir.file("t.json");
        TokenInit init;
        init.dialect = d.dialect;
        init.fips = d.fips;
        init.userPin = "12345678";
        initToken(state, init);
        VTokenOptions o;
        o.stateFile = state;
        {
            VToken bare(pcscd, 0, o);
            EXPECT_EQ(krfsTool({"keys", 0, ""}), "");
            EXPECT_EQ(krfsTool({"keys --json", 0, ""}), "[]\n");
        }
        const auto addKey = [&](std::vector<std::string> args) {
            args.insert(args.begin(), {"add-key", "--state", state});
            vtokenCommand(args);
        };
        addKey({"--bits", "1024", "--cn", "key one", "--id", "01"});
        addKey({"--bits", "2048", "--cn", "key two", "--id", "02"});
        addKey({"--bits", "1024", "--cn", "lone certificate", "--id", "03", "--cert-only"});
        VToken card(pcscd, 0, o);

        const std::string said = krfsTool({"keys --json", 0, "\"privateKey\""});
        const json listed = json::parse(said, nullptr, false);
        ASSERT_TRUE(listed.is_array() && listed.size() == 3) << said;
        std::map<std::string, json> bySubject;
        for (const json& c : listed)
            if (c["subject"].is_string()) bySubject[c["subject"]] = c;
        ASSERT_EQ(bySubject.size(), 3u) << said;
        const std::pair<const char*, int> keys[] = {{"CN=key one", 128}, {"CN=key two", 256}};
        for (const auto& [subject, size] : keys) {
            SCOPED_TRACE(subject);
            ASSERT_EQ(bySubject.count(subject), 1u) << said;
            const json& c = bySubject[subject];
            EXPECT_EQ(c["size"], size);
            EXPECT_EQ(c["privateKey"], true);
            EXPECT_FALSE(c["serial"].get<std::string>().empty());
            EXPECT_FALSE(c["id"].get<std::string>().empty());
        }
        ASSERT_EQ(bySubject.count("CN=lone certificate"), 1u) << said;
        const json& lone = bySubject["CN=lone certificate"];
        EXPECT_EQ(lone["privateKey"], false);
        EXPECT_EQ(lone["size"], 128);
        krfsTool({"keys", 0, " private=yes serial="});
        krfsTool({"keys", 0, " private=no serial="});

        for (const auto& [subject, size] : keys) {
            SCOPED_TRACE(subject);
            const json& c = bySubject[subject];
            const std::string path = c["path"], pin = "PIN=12345678";
            Pkey pub = publicKey(c["certificate"]);
            ASSERT_TRUE(pub);
            const std::string message = std::string("sealed for ") + subject + "\n";
            writeFile(dir.file("sealed"), publicOp(pub.get(), false, RSA_PKCS1_PADDING, message));
            krfsTool({"decrypt --pkcs1 --pin-env PIN --in " + dir.file("sealed") + " " + path, 0,
                      message, "", pin});
            krfsTool({"decrypt --pkcs1 --pin-stdin " + path, 0, message,
                      "12345678\n" + readFile(dir.file("sealed"))});

            std::string block(static_cast<std::size_t>(size), '\0');
            for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i);
            writeFile(dir.file("block"), block);
            krfsTool({"decrypt --pin-env PIN --in " + dir.file("block") + " --out " +
                          dir.file("raw") + " " + path,
                      0, "", "", pin});
            EXPECT_EQ(publicOp(pub.get(), true, RSA_NO_PADDING, readFile(dir.file("raw"))), block);
        }

        const std::string first = bySubject["CN=key one"]["path"];
        const std::string in = " --in " + dir.file("bad") + " ";
        Pkey pub = publicKey(bySubject["CN=key one"]["certificate"]);
        // 00 01 FF.. 00 M: a signature block, sealed raw.
        std::string type1 = std::string("\x00\x01", 2) + std::string(100, '\xFF');
        type1 += std::string(1, '\0') + std::string(128 - type1.size() - 1, 'm');
        const struct {
            std::string block;
            std::string args;
            std::string says;
        } refusals[] = {
            {std::string(128, 'a'), "--pin-env WRONG decrypt" + in + first, "logging in: 0x86E0"},
            {std::string(127, 'a'), "--pin-env PIN decrypt" + in + first,
             "the block is 127 bytes, the key 128"},
            {std::string(128, '\xFF'), "--pin-env PIN decrypt" + in + first,
             "krfs: decrypting: 0x86E0"},
            {publicOp(pub.get(), false, RSA_NO_PADDING, type1),
             "--pin-env PIN decrypt --pkcs1" + in + first, "does not start 00 02"},
            {std::string(128, 'a'), "--pin-env PIN decrypt" + in + lone["path"].get<std::string>(),
             "holds no private key"},
            {std::string(128, 'a'), "--pin-env PIN decrypt" + in + "3F00/7777",
             "krfs: selecting 3F00/7777: 0x86E0"},
        };
        for (const auto& r : refusals) {
            writeFile(dir.file("bad"), r.block);
            krfsTool({r.args, 1, r.says, "", "PIN=12345678 WRONG=87654321"});
        }
        krfsTool({"decrypt 3F00/zz", 2, "no 16-bit hexadecimal identifier"});
        krfsTool({"decrypt --help", 0, "Usage:"});
        krfsTool({"keys --help", 0, "Usage:"});
    }
}

}  // namespace
