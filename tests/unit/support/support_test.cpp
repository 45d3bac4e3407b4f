// The support code: free-list allocators, the shared pointer with a settable
// target, and text conversion.
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <set>
#include <string>
#include <vector>

#include "alloc.h"
#include "conv.h"
#include "sh_ptr.h"
#include "src/krfs/barrier.h"

namespace {

TEST(Alloc, SizedListsReuseSmallBlocksAndLargeOnesBypassThem) {
    void* p = sized_alloc::alloc(120);
    ASSERT_NE(p, nullptr);
    sized_alloc::free(p, 120);
    EXPECT_EQ(sized_alloc::heads[15], p) << "a freed block goes to the front of its list";
    EXPECT_EQ(sized_alloc::alloc(113), p) << "113..120 bytes share list 15";
    sized_alloc::free(p, 113);

    void* before[sized_alloc::lists];
    std::copy(sized_alloc::heads, sized_alloc::heads + sized_alloc::lists, before);
    sized_alloc::free(sized_alloc::alloc(121), 121);
    EXPECT_TRUE(std::equal(before, before + sized_alloc::lists, sized_alloc::heads));
}

TEST(Alloc, FixedBlocksAreDistinctAlignedAndRecycled) {
    struct Obj {
        char bytes[24];
    };
    std::set<void*> seen;
    std::vector<void*> blocks;
    for (int i = 0; i < 400; ++i) {  // more than one 4096-byte chunk's worth
        blocks.push_back(fixed_alloc<Obj>::alloc());
        EXPECT_TRUE(seen.insert(blocks.back()).second);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % alignof(void*), 0u);
    }
    for (void* p : blocks) fixed_alloc<Obj>::free(p);
    EXPECT_EQ(fixed_alloc<Obj>::alloc(), blocks.back()) << "the last freed block comes first";
}

struct Counted {
    static int alive;
    Counted() { ++alive; }
    ~Counted() { --alive; }
};
int Counted::alive = 0;

TEST(ShPtr, SetReachesEveryCopyAndOnlyTheLastCopyDeletesTheCurrentTarget) {
    Counted* first = new Counted;
    {
        sh_ptr<Counted> a(first), b(nullptr);
        sh_ptr<Counted>& alias = b;
        b = a;
        b = alias;
        EXPECT_EQ(b.use_count(), 2);
        a.set(new Counted);
        EXPECT_NE(b.get(), first);
        EXPECT_EQ(Counted::alive, 2) << "set does not delete the old target";
        { sh_ptr<Counted> c(a); }
        EXPECT_EQ(Counted::alive, 2);
    }
    EXPECT_EQ(Counted::alive, 1);
    delete first;
}

using libapdu::IConv;
using libapdu::IConvert;

// Runs the conversions under a chosen locale; init() must not override it.
class Conv : public ::testing::Test {
protected:
    void SetUp() override {
        IConv::init();
        saved = std::setlocale(LC_ALL, nullptr);
    }
    void TearDown() override { std::setlocale(LC_ALL, saved.c_str()); }
    bool use(const char* locale) { return std::setlocale(LC_ALL, locale) != nullptr; }
    std::string saved;
};

TEST_F(Conv, LocaleTextAndTokenBytesByEncoding) {
    ASSERT_TRUE(use("C.UTF-8"));
    const std::string raw("\xE9t\xE9\x00x", 5);  // encoding 2, the locale's: unchanged
    EXPECT_EQ(IConvert::string_to_bytes(raw, 2), TBytes(raw.begin(), raw.end()));
    // Encoding 3, UTF-8: each char goes to mbtowc alone, so only ASCII passes...
    EXPECT_EQ(IConvert::string_to_bytes("Token 1", 3), (TBytes{'T', 'o', 'k', 'e', 'n', ' ', '1'}));
    EXPECT_EQ(krfs::Guard([] { IConvert::string_to_bytes("\xC3\xA9", 3); }), 0x86E06281L);
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({'a', 0xE9}, 2); }), 0x86E06281L);
    // ...while UTF-8 bytes from a token come back whole, up to the first zero.
    const TBytes label{0xC3, 0xA9, 't', 0xC3, 0xA9, 0, 0, 0};
    EXPECT_EQ(IConvert::bytes_to_string(label, 3), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(IConvert::bytes_to_wstring(label, 3), (std::wstring{0xE9, L't', 0xE9}));
    EXPECT_EQ(IConvert::wstring_to_bytes(std::wstring{0xE9, L'x'}, 3), (TBytes{0xC3, 0xA9, 'x'}));
    for (const TBytes& bad : {TBytes{0xC3}, TBytes{0xFF, 0xFE}})
        EXPECT_EQ(krfs::Guard([&] { IConvert::bytes_to_wstring(bad, 3); }), 0x86E06281L);
    for (unsigned char e : {0, 1, 4, 255}) {
        EXPECT_EQ(krfs::Guard([&] { IConvert::string_to_bytes("x", e); }), 0x86E0FACEL);
        EXPECT_EQ(krfs::Guard([&] { IConvert::wstring_to_bytes(L"x", e); }), 0x86E0FACEL);
        EXPECT_EQ(krfs::Guard([&] { IConvert::bytes_to_string({'x'}, e); }), 0x86E0FACEL);
        EXPECT_EQ(krfs::Guard([&] { IConvert::bytes_to_wstring({'x'}, e); }), 0x86E0FACEL);
    }

    ASSERT_TRUE(use("C"));
    for (unsigned char e : {2, 3}) {
        EXPECT_EQ(IConvert::bytes_to_string({'a', 'b', 0, 'c', 0}, e), "ab");
        EXPECT_EQ(IConvert::bytes_to_wstring({'a', 'b', 0, 'c', 0}, e), L"ab");
    }
    // Narrowing to the locale fails without the catch when called directly.
    const std::wstring euro{L'a', 0x20AC};
    std::string out;
    EXPECT_THROW(utf8::utf16toascii(euro.begin(), euro.end(), std::back_inserter(out)),
                 utf8::invalid_code_point);
    EXPECT_EQ(krfs::Guard([&] { IConv::wchar2char(euro); }), 0x86E06281L);
}

TEST_F(Conv, WideElementsAreSixteenBitUnits) {
    EXPECT_EQ(IConv::wchar2utf8(std::wstring{static_cast<wchar_t>(0x10041)}), "A");
    EXPECT_EQ(IConv::wchar2utf8(std::wstring{0xD83D, 0xDE00}), "\xF0\x9F\x98\x80");
    EXPECT_EQ(IConv::utf82wchar("\xF0\x9F\x98\x80"), (std::wstring{0xD83D, 0xDE00}));
    EXPECT_EQ(krfs::Guard([] { IConv::wchar2utf8(std::wstring{0xD800}); }), 0x86E06281L)
        << "a lone surrogate";
}

TEST(Base64, EncodesPerRfc4648AndTheDecoderStopsQuietlyAtAForeignChar) {
    const std::pair<std::string, std::string> both[] = {{"", ""},
                                                        {"f", "Zg=="},
                                                        {"fo", "Zm8="},
                                                        {"foo", "Zm9v"},
                                                        {"foob", "Zm9vYg=="},
                                                        {"fooba", "Zm9vYmE="},
                                                        {"foobar", "Zm9vYmFy"},
                                                        {"\xFB\xFF\xBF", "+/+/"}};
    for (const auto& [plain, encoded] : both) {
        EXPECT_EQ(libapdu::base64_encode(TBytes(plain.begin(), plain.end())), encoded);
        EXPECT_EQ(libapdu::base64_decode(encoded), TBytes(plain.begin(), plain.end())) << encoded;
    }
    const std::pair<std::string, std::string> decoded[] = {
        {"QUI=", "AB"}, {"QU!I", "A"}, {"Zm9v\nYmFy", "foo"}, {"Q", ""}, {"=Zm9v", ""}};
    for (const auto& [encoded, plain] : decoded)
        EXPECT_EQ(libapdu::base64_decode(encoded), TBytes(plain.begin(), plain.end())) << encoded;
}

}  // namespace
