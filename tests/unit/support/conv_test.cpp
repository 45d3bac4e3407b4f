#include "conv.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "src/krfs/barrier.h"

namespace {

using libapdu::IConv;
using libapdu::IConvert;

// Runs the conversions under a chosen locale; init() must not override it.
class ConvTest : public ::testing::Test {
protected:
    void SetUp() override {
        IConv::init();
        saved = std::setlocale(LC_ALL, nullptr);
    }
    void TearDown() override { std::setlocale(LC_ALL, saved.c_str()); }
    bool use(const char* locale) { return std::setlocale(LC_ALL, locale) != nullptr; }
    std::string saved;
};

TEST_F(ConvTest, LocaleEncodingPassesCharsUnchanged) {
    ASSERT_TRUE(use("C.UTF-8"));
    const std::string raw("\xE9t\xE9\x00x", 5);
    EXPECT_EQ(IConvert::string_to_bytes(raw, 2), TBytes(raw.begin(), raw.end()));
}

TEST_F(ConvTest, Utf8RoundTripsUnderUtf8Locale) {
    ASSERT_TRUE(use("C.UTF-8"));
    // Each char goes to mbtowc alone, so only ASCII passes string_to_bytes(3)...
    EXPECT_EQ(IConvert::string_to_bytes("Token 1", 3), (TBytes{'T', 'o', 'k', 'e', 'n', ' ', '1'}));
    EXPECT_EQ(krfs::Guard([] { IConvert::string_to_bytes("\xC3\xA9", 3); }), 0x86E06281L)
        << "a multi-byte character fails char by char";
    // ...while UTF-8 bytes from a token come back whole.
    const TBytes label{0xC3, 0xA9, 't', 0xC3, 0xA9, 0, 0, 0};
    EXPECT_EQ(IConvert::bytes_to_string(label, 3), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(IConvert::bytes_to_wstring(label, 3), (std::wstring{0xE9, L't', 0xE9}));
    EXPECT_EQ(IConvert::wstring_to_bytes(std::wstring{0xE9, L'x'}, 3), (TBytes{0xC3, 0xA9, 'x'}));
}

TEST_F(ConvTest, LabelsStopAtTheFirstZero) {
    ASSERT_TRUE(use("C"));
    const TBytes padded{'a', 'b', 0, 'c', 0};
    EXPECT_EQ(IConvert::bytes_to_string(padded, 2), "ab");
    EXPECT_EQ(IConvert::bytes_to_string(padded, 3), "ab");
    EXPECT_EQ(IConvert::bytes_to_wstring(padded, 2), L"ab");
    EXPECT_EQ(IConvert::bytes_to_wstring(padded, 3), L"ab");
}

TEST_F(ConvTest, HighByteInLocaleEncodingFailsUnderUtf8) {
    ASSERT_TRUE(use("C.UTF-8"));
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({'a', 0xE9}, 2); }), 0x86E06281L);
}

TEST_F(ConvTest, BadUtf8FromTokenIsBadData) {
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({0xC3}, 3); }), 0x86E06281L);
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({0xFF, 0xFE}, 3); }), 0x86E06281L);
}

TEST_F(ConvTest, UnknownEncodingIsUnavailable) {
    for (unsigned char e : {0, 1, 4, 255}) {
        EXPECT_EQ(krfs::Guard([&] { IConvert::string_to_bytes("x", e); }), 0x86E0FACEL);
        EXPECT_EQ(krfs::Guard([&] { IConvert::wstring_to_bytes(L"x", e); }), 0x86E0FACEL);
        EXPECT_EQ(krfs::Guard([&] { IConvert::bytes_to_string({'x'}, e); }), 0x86E0FACEL);
        EXPECT_EQ(krfs::Guard([&] { IConvert::bytes_to_wstring({'x'}, e); }), 0x86E0FACEL);
    }
}

TEST_F(ConvTest, WideElementsAreCutTo16Bits) {
    // 0x10041 cut to 0x0041 'A'.
    EXPECT_EQ(IConv::wchar2utf8(std::wstring{static_cast<wchar_t>(0x10041)}), "A");
    // A surrogate pair in two elements is one code point in UTF-8.
    EXPECT_EQ(IConv::wchar2utf8(std::wstring{0xD83D, 0xDE00}), "\xF0\x9F\x98\x80");
    EXPECT_EQ(IConv::utf82wchar("\xF0\x9F\x98\x80"), (std::wstring{0xD83D, 0xDE00}));
    EXPECT_EQ(krfs::Guard([] { IConv::wchar2utf8(std::wstring{0xD800}); }), 0x86E06281L)
        << "a lone surrogate";
}

TEST_F(ConvTest, LocaleNarrowingFailsWithoutTheCatchWhenCalledDirectly) {
    ASSERT_TRUE(use("C"));
    std::wstring text{L'a', 0x20AC};
    std::string out;
    EXPECT_THROW(utf8::utf16toascii(text.begin(), text.end(), std::back_inserter(out)),
                 utf8::invalid_code_point);
    EXPECT_EQ(krfs::Guard([&] { IConv::wchar2char(text); }), 0x86E06281L);
}

TEST(Base64, EncodesPerRfc4648) {
    struct Case {
        std::string plain, encoded;
    } cases[] = {{"", ""},
                 {"f", "Zg=="},
                 {"fo", "Zm8="},
                 {"foo", "Zm9v"},
                 {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="},
                 {"foobar", "Zm9vYmFy"}};
    for (const Case& c : cases) {
        const TBytes plain(c.plain.begin(), c.plain.end());
        EXPECT_EQ(libapdu::base64_encode(plain), c.encoded);
        EXPECT_EQ(libapdu::base64_decode(c.encoded), plain) << c.encoded;
    }
    EXPECT_EQ(libapdu::base64_encode({0xFB, 0xFF, 0xBF}), "+/+/");
    EXPECT_EQ(libapdu::base64_decode("+/+/"), (TBytes{0xFB, 0xFF, 0xBF}));
}

TEST(Base64, DecoderStopsQuietlyAtTheFirstForeignChar) {
    EXPECT_EQ(libapdu::base64_decode("QUI="), (TBytes{0x41, 0x42}));
    EXPECT_EQ(libapdu::base64_decode("QU!I"), (TBytes{0x41}));
    EXPECT_EQ(libapdu::base64_decode("Zm9v\nYmFy"), (TBytes{'f', 'o', 'o'}));
    EXPECT_EQ(libapdu::base64_decode("Q"), TBytes{}) << "one char makes no byte";
    EXPECT_EQ(libapdu::base64_decode("=Zm9v"), TBytes{});
}

}  // namespace
