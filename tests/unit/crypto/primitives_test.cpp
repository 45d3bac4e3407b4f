// Published vectors for DES (FIPS 46-3, NIST SP 800-17), MD5 (RFC 1321) and
// SHA-1 (FIPS 180), and the context rules of the primitives.
#include "crypto/primitives.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "unit/oracle.h"

namespace {

using krfs_test::hex;
using namespace libapdu;

TEST(Des, KnownAnswersBothWaysWhateverTheParityBitsAndDesxWhitening) {
    const char* vectors[][3] = {{"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
                                {"0123456789ABCDEF", "4E6F772069732074", "3FA40E8A984D4815"},
                                {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
                                {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
                                {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"}};
    for (const auto& v : vectors) {
        for (int flip = -1; flip < 8; ++flip) {
            TBytes key = hex(v[0]), block = hex(v[1]);
            if (flip >= 0) key[flip] ^= 0x01;
            tagDesContext ctx;
            des_initialize(key.data(), &ctx);
            des_encrypt(&ctx, block.data());
            EXPECT_EQ(block, hex(v[2])) << v[0] << " parity of byte " << flip;
            des_decrypt(&ctx, block.data());
            EXPECT_EQ(block, hex(v[1])) << v[0];
            des_finalize(&ctx);
        }
    }
    const TBytes key = oracle::random(16), plain = oracle::random(8);
    TBytes block = plain, whitened = plain;  // K2 xor DES(K1, P xor K2)
    tagDesxContext ctx;
    desx_initialize(key.data(), &ctx);
    desx_encrypt(&ctx, block.data());
    for (int i = 0; i < 8; ++i) whitened[i] ^= key[8 + i];
    TBytes expected =
        oracle::evp("DES-ECB", TBytes(key.begin(), key.begin() + 8), {}, whitened, true);
    for (int i = 0; i < 8; ++i) expected[i] ^= key[8 + i];
    EXPECT_EQ(block, expected);
    desx_decrypt(&ctx, block.data());
    EXPECT_EQ(block, plain);
    desx_finalize(&ctx);
}

// The digest of `m` given in two updates, cut at `cut`.
TBytes digest(bool sha, const std::string& m, size_t cut) {
    TBytes bytes(m.begin(), m.end()), out(sha ? 20 : 16);
    libapdu::SHAstate_st s;
    MD5_CTX md;
    sha ? SHA1_Init(&s) : MD5Init(&md);
    for (auto [at, n] : {std::pair{size_t{0}, cut}, std::pair{cut, bytes.size() - cut}})
        sha ? SHA1_Update(&s, bytes.data() + at, n) : MD5Update(&md, bytes.data() + at, n);
    sha ? SHA1_Final(out.data(), &s) : MD5Final(out.data(), &md);
    return out;
}

TEST(Hashes, PublishedVectorsSplitAtEveryByte) {
    const struct {
        bool sha;
        std::string message;
        const char* digest;
    } vectors[] = {
        {false, "", "d41d8cd98f00b204e9800998ecf8427e"},
        {false, "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {false, "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {true, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {true, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    };
    for (const auto& v : vectors)
        for (size_t cut = 0; cut <= v.message.size(); ++cut)
            EXPECT_EQ(digest(v.sha, v.message, cut), hex(v.digest)) << v.message << " cut " << cut;
}

TEST(Hashes, AMillionAInUnevenPiecesAndTheContextsAfterwards) {
    libapdu::SHAstate_st sha;
    SHA1_Init(&sha);
    MD5_CTX md;
    MD5Init(&md);
    TBytes a(1000, 'a'), out(20);
    size_t left = 1000000, piece = 1, fed = 0;  // MD5 gets the first 5000 bytes or so
    for (; left > 0; piece = piece * 3 % 997 + 1) {
        const size_t n = std::min(piece, left);
        SHA1_Update(&sha, a.data(), n);
        if (fed < 5000) MD5Update(&md, a.data(), static_cast<unsigned>(n)), fed += n;
        left -= n;
    }
    SHA1_Final(out.data(), &sha);
    EXPECT_EQ(out, hex("34aa973cd4c4daa4f61eeb2bdbad27316534016f"));
    EXPECT_EQ(sha.Nl, 8000000u) << "SHA1_Final leaves the counters";
    MD5Final(out.data(), &md);
    EXPECT_EQ(TBytes(out.begin(), out.begin() + 16), oracle::digest("MD5", TBytes(fed, 'a')));
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&md);
    EXPECT_TRUE(std::all_of(raw, raw + sizeof md, [](unsigned char c) { return c == 0; }))
        << "MD5Final wipes its context";
}

}  // namespace
