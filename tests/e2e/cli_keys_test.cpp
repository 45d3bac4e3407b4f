// krfs keys and krfs decrypt end to end: RSA keys and a certificate alone put
// on each dialect's virtual token, listed, and used with blocks OpenSSL sealed
// to their certificates.
#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <tuple>
#include <string>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "e2e/rsa_public.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;
using json = nlohmann::json;

std::string fromHex(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

struct Dialect {
    const char* dialect;
    bool fips;
};

// Each dialect's token: none listed before keys are added; then a key with
// its certificate and a certificate alone, decrypted with PKCS#1 padding
// removed and raw with the block and the PIN on standard input; on the first
// dialect, refused for wrong PINs, lengths, values, paddings and paths.
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
            EXPECT_EQ(krfsTool({"keys --json", 0, ""}), "[]\n");
        }
        vtokenCommand({"add-key", "--state", state, "--bits", "1024", "--cn", "key one"});
        vtokenCommand(
            {"add-key", "--state", state, "--bits", "1024", "--cn", "lone", "--cert-only"});
        VToken card(pcscd, 0, o);

        const std::string said = krfsTool({"keys --json", 0, "\"privateKey\""});
        const json listed = json::parse(said, nullptr, false);
        ASSERT_TRUE(listed.is_array() && listed.size() == 2) << said;
        const json &key = listed[0], &lone = listed[1];
        EXPECT_EQ(key["subject"], "CN=key one");
        EXPECT_EQ(std::make_tuple(key["size"], key["privateKey"]),
                  std::make_tuple(json(128), json(true)));
        EXPECT_EQ(std::make_tuple(lone["subject"], lone["privateKey"]),
                  std::make_tuple(json("CN=lone"), json(false)));
        EXPECT_FALSE(key["serial"].get<std::string>().empty());
        krfsTool({"keys", 0, " private=no serial="});

        const std::string path = key["path"], pin = "PIN=12345678";
        Pkey pub = publicKeyOf(fromHex(key["certificate"]));
        ASSERT_TRUE(pub);
        const std::string message = "sealed for key one\n";
        writeFile(dir.file("sealed"), publicOp(pub.get(), false, RSA_PKCS1_PADDING, message));
        krfsTool({"decrypt --pkcs1 --pin-env PIN --in " + dir.file("sealed") + " " + path, 0,
                  message, "", pin});
        std::string block(128, '\0');
        for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i);
        krfsTool({"decrypt --pin-stdin --out " + dir.file("raw") + " " + path, 0, "",
                  "12345678\n" + block});
        EXPECT_EQ(publicOp(pub.get(), true, RSA_NO_PADDING, readFile(dir.file("raw"))), block);
        if (&d != &dialects[0]) continue;

        const std::string in = " --in " + dir.file("bad") + " ";
        // 00 01 FF.. 00 M: a signature block, sealed raw.
        std::string type1 = std::string("\x00\x01", 2) + std::string(100, '\xFF');
        type1 += std::string(1, '\0') + std::string(128 - type1.size() - 1, 'm');
        const struct {
            std::string block;
            std::string args;
            std::string says;
        } refusals[] = {
            {block, "--pin-env WRONG decrypt" + in + path, "logging in: 0x86E0"},
            {std::string(127, 'a'), "--pin-env PIN decrypt" + in + path,
             "the block is 127 bytes, the key 128"},
            {std::string(128, '\xFF'), "--pin-env PIN decrypt" + in + path,
             "krfs: decrypting: 0x86E0"},
            {publicOp(pub.get(), false, RSA_NO_PADDING, type1),
             "--pin-env PIN decrypt --pkcs1" + in + path, "does not start 00 02"},
            {block, "--pin-env PIN decrypt" + in + lone["path"].get<std::string>(),
             "holds no private key"},
            {block, "--pin-env PIN decrypt" + in + "3F00/7777",
             "krfs: selecting 3F00/7777: 0x86E0"},
        };
        for (const auto& r : refusals) {
            writeFile(dir.file("bad"), r.block);
            krfsTool({r.args, 1, r.says, "", "PIN=12345678 WRONG=87654321"});
        }
        krfsTool({"decrypt 3F00/zz", 2, "no 16-bit hexadecimal identifier"});
    }
}

}  // namespace
