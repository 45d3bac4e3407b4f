// Published vectors for DES (FIPS 46-3, NIST SP 800-17), MD5 (RFC 1321) and
// SHA-1 (FIPS 180), and the context rules of the primitives.
#include "crypto/primitives.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "oracle.h"

using namespace libapdu;
using oracle::hex;

namespace {

struct DesVector {
    const char* key;
    const char* plain;
    const char* cipher;
};

// FIPS 46-3 worked example and NIST SP 800-17 known-answer entries.
const DesVector kDesVectors[] = {
    {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
    {"0123456789ABCDEF", "4E6F772069732074", "3FA40E8A984D4815"},
    {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
    {"0101010101010101", "4000000000000000", "DD7F121CA5015619"},
    {"0101010101010101", "2000000000000000", "2E8653104F3834EA"},
    {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
    {"4001010101010101", "0000000000000000", "0EEC1487DD8C26D5"},
    {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"},
};

TEST(Des, KnownAnswersBothWays) {
    for (const auto& v : kDesVectors) {
        tagDesContext ctx;
        des_initialize(hex(v.key).data(), &ctx);
        TBytes block = hex(v.plain);
        des_encrypt(&ctx, block.data());
        EXPECT_EQ(block, hex(v.cipher)) << v.key << " " << v.plain;
        des_decrypt(&ctx, block.data());
        EXPECT_EQ(block, hex(v.plain)) << v.key;
        des_finalize(&ctx);
    }
}

TEST(Des, ParityBitsAreIgnored) {
    const TBytes key = hex("133457799BBCDFF1");
    for (int byte = 0; byte < 8; ++byte) {
        TBytes flipped = key;
        flipped[static_cast<size_t>(byte)] ^= 0x01;
        tagDesContext ctx;
        des_initialize(flipped.data(), &ctx);
        TBytes block = hex("0123456789ABCDEF");
        des_encrypt(&ctx, block.data());
        EXPECT_EQ(block, hex("85E813540F0AB405")) << "parity of byte " << byte;
    }
}

TEST(Desx, ZeroWhiteningIsPlainDes) {
    TBytes key = hex("133457799BBCDFF10000000000000000");
    tagDesxContext ctx;
    desx_initialize(key.data(), &ctx);
    TBytes block = hex("0123456789ABCDEF");
    desx_encrypt(&ctx, block.data());
    EXPECT_EQ(block, hex("85E813540F0AB405"));
}

TEST(Desx, SameWhiteningBeforeAndAfter) {
    const TBytes key = oracle::random(16);
    const TBytes plain = oracle::random(8);
    tagDesxContext ctx;
    desx_initialize(key.data(), &ctx);
    TBytes block = plain;
    desx_encrypt(&ctx, block.data());

    // K2 xor DES(K1, P xor K2), from a separate single-DES context.
    TBytes expected = plain;
    for (int i = 0; i < 8; ++i) expected[i] ^= key[8 + i];
    tagDesContext des;
    des_initialize(key.data(), &des);
    des_encrypt(&des, expected.data());
    for (int i = 0; i < 8; ++i) expected[i] ^= key[8 + i];
    EXPECT_EQ(block, expected);

    desx_decrypt(&ctx, block.data());
    EXPECT_EQ(block, plain);
    desx_finalize(&ctx);
}

struct HashVector {
    std::string message;
    const char* digest;
};

const HashVector kMd5Vectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

TBytes md5Split(const std::string& m, size_t cut) {
    MD5_CTX ctx;
    MD5Init(&ctx);
    TBytes bytes(m.begin(), m.end());
    MD5Update(&ctx, bytes.data(), static_cast<unsigned>(cut));
    MD5Update(&ctx, bytes.data() + cut, static_cast<unsigned>(bytes.size() - cut));
    TBytes out(16);
    MD5Final(out.data(), &ctx);
    return out;
}

TEST(Md5, Rfc1321SuiteSplitAtEveryByte) {
    for (const auto& v : kMd5Vectors)
        for (size_t cut = 0; cut <= v.message.size(); ++cut)
            EXPECT_EQ(md5Split(v.message, cut), hex(v.digest))
                << '"' << v.message << "\" cut " << cut;
}

TEST(Md5, ByteAtATimeAcrossBlockBoundaries) {
    std::string m(200, 'x');
    for (size_t i = 0; i < m.size(); ++i) m[i] = static_cast<char>('a' + i % 26);
    MD5_CTX ctx;
    MD5Init(&ctx);
    for (char c : m) {
        unsigned char b = static_cast<unsigned char>(c);
        MD5Update(&ctx, &b, 1);
    }
    TBytes out(16);
    MD5Final(out.data(), &ctx);
    EXPECT_EQ(out, oracle::digest("MD5", TBytes(m.begin(), m.end())));
}

TEST(Md5, FinalWipesTheContext) {
    MD5_CTX ctx;
    MD5Init(&ctx);
    unsigned char abc[] = {'a', 'b', 'c'};
    MD5Update(&ctx, abc, 3);
    TBytes out(16);
    MD5Final(out.data(), &ctx);
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&ctx);
    for (size_t i = 0; i < sizeof ctx; ++i) ASSERT_EQ(raw[i], 0) << "byte " << i;
    // A stale context does not continue the old message.
    MD5Update(&ctx, abc, 3);
    TBytes again(16);
    MD5Final(again.data(), &ctx);
    EXPECT_NE(again, out);
}

const HashVector kSha1Vectors[] = {
    {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
};

TBytes sha1Split(const std::string& m, size_t cut) {
    SHAstate_st ctx;
    SHA1_Init(&ctx);
    TBytes bytes(m.begin(), m.end());
    SHA1_Update(&ctx, bytes.data(), cut);
    SHA1_Update(&ctx, bytes.data() + cut, bytes.size() - cut);
    TBytes out(20);
    SHA1_Final(out.data(), &ctx);
    return out;
}

TEST(Sha1, Fips180VectorsSplitAtEveryByte) {
    for (const auto& v : kSha1Vectors)
        for (size_t cut = 0; cut <= v.message.size(); ++cut)
            EXPECT_EQ(sha1Split(v.message, cut), hex(v.digest))
                << '"' << v.message << "\" cut " << cut;
}

TEST(Sha1, MillionAInUnevenPieces) {
    SHAstate_st ctx;
    SHA1_Init(&ctx);
    TBytes a(1000, 'a');
    size_t left = 1000000, piece = 1;
    while (left > 0) {
        size_t n = std::min({piece, left, a.size()});
        SHA1_Update(&ctx, a.data(), n);
        left -= n;
        piece = piece * 3 % 997 + 1;
    }
    TBytes out(20);
    SHA1_Final(out.data(), &ctx);
    EXPECT_EQ(out, hex("34aa973cd4c4daa4f61eeb2bdbad27316534016f"));
}

TEST(Sha1, CountersHoldTheMessageBits) {
    SHAstate_st ctx;
    SHA1_Init(&ctx);
    TBytes data(70, 1);
    SHA1_Update(&ctx, data.data(), data.size());
    EXPECT_EQ(ctx.Nl, 70u * 8);
    EXPECT_EQ(ctx.Nh, 0u);
    EXPECT_EQ(ctx.num, 6);
    // The incomplete block is kept as big-endian words.
    EXPECT_EQ(ctx.data[0], 0x01010101ul);
    EXPECT_EQ(ctx.data[1] & 0xFFFF0000ul, 0x01010000ul);
}

TEST(Sha1, ZeroLengthUpdateLeavesContextUntouched) {
    SHAstate_st ctx;
    SHA1_Init(&ctx);
    unsigned char abc[] = {'a', 'b', 'c'};
    SHA1_Update(&ctx, abc, 3);
    SHAstate_st before;
    std::memcpy(&before, &ctx, sizeof ctx);
    SHA1_Update(&ctx, nullptr, 0);
    EXPECT_EQ(std::memcmp(&before, &ctx, sizeof ctx), 0);
}

TEST(Sha1, TransformTouchesOnlyTheChainingValue) {
    SHAstate_st ctx;
    SHA1_Init(&ctx);
    unsigned char ab[] = {'a', 'b'};
    SHA1_Update(&ctx, ab, 2);
    const unsigned long nl = ctx.Nl, d0 = ctx.data[0];
    const int num = ctx.num;
    TBytes block(64, 0x5A);
    SHA1_Transform(&ctx, block.data());
    EXPECT_EQ(ctx.Nl, nl);
    EXPECT_EQ(ctx.data[0], d0);
    EXPECT_EQ(ctx.num, num);
    EXPECT_NE(ctx.h0, 0x67452301ul);

    // One block through Transform equals that block hashed as a message's
    // first 64 bytes.
    SHAstate_st a, b;
    SHA1_Init(&a);
    SHA1_Init(&b);
    SHA1_Transform(&a, block.data());
    SHA1_Update(&b, block.data(), 64);
    EXPECT_EQ(a.h0, b.h0);
    EXPECT_EQ(a.h4, b.h4);
}

TEST(Sha1, FinalResetsNumOnly) {
    SHAstate_st ctx;
    SHA1_Init(&ctx);
    unsigned char abc[] = {'a', 'b', 'c'};
    SHA1_Update(&ctx, abc, 3);
    TBytes out(20);
    SHA1_Final(out.data(), &ctx);
    EXPECT_EQ(ctx.num, 0);
    EXPECT_EQ(ctx.Nl, 24u) << "the rest of the context is not wiped";
    EXPECT_STREQ(SHA1_version, "SHA1 part of SSLeay 0.9.0b 29-Jun-1998");
}

}  // namespace
