// The shared pointer with a settable target, and text conversion.
#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "conv.h"
#include "sh_ptr.h"
#include "src/krfs/barrier.h"

namespace {

TEST(Support, SharedPointerSetMovesAllCopies) {
    static int alive = 0;
    struct Counted {
        Counted() { ++alive; }
        ~Counted() { --alive; }
    };
    Counted* first = new Counted;
    {
        sh_ptr<Counted> a(first), b(nullptr);
        b = a;
        a.set(new Counted);
        EXPECT_EQ(b.use_count(), 2);
        EXPECT_NE(b.get(), first) << "set reaches every copy";
        EXPECT_EQ(alive, 2) << "and leaves the old target to its owner";
    }
    EXPECT_EQ(alive, 1) << "the last copy deletes the current target";
    delete first;
}

using libapdu::IConv;
using libapdu::IConvert;

TEST(Conv, LocaleTextAndTokenBytesByEncoding) {
    IConv::init();  // must not override the locale set here
    const std::string saved = std::setlocale(LC_ALL, nullptr);
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    const std::string raw("\xE9t\xE9\x00x", 5);  // encoding 2, the locale's: unchanged
    EXPECT_EQ(IConvert::string_to_bytes(raw, 2), TBytes(raw.begin(), raw.end()));
    // Encoding 3, UTF-8: each char goes to mbtowc alone, so only ASCII passes...
    EXPECT_EQ(IConvert::string_to_bytes("Tk 1", 3), (TBytes{'T', 'k', ' ', '1'}));
    EXPECT_EQ(krfs::Guard([] { IConvert::string_to_bytes("\xC3\xA9", 3); }), 0x86E06281L);
    EXPECT_EQ(IConvert::string_to_bytes("Tk 2", 3), (TBytes{'T', 'k', ' ', '2'}))
        << "a failed lead byte leaves nothing behind";
    // ...while UTF-8 from a token comes back whole, up to the first zero.
    const TBytes label{0xC3, 0xA9, 't', 0, 'x'};
    EXPECT_EQ(IConvert::bytes_to_string(label, 3), "\xC3\xA9t");
    EXPECT_EQ(IConvert::bytes_to_wstring(label, 3), (std::wstring{0xE9, L't'}));
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({0xFF, 0xFE}, 3); }), 0x86E06281L);
    EXPECT_EQ(krfs::Guard([] { IConv::wchar2utf8(std::wstring{0xD800}); }), 0x86E06281L);
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_string({'x'}, 4); }), 0x86E0FACEL);
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({'a', 0xE9}, 2); }), 0x86E06281L);

    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    EXPECT_EQ(IConvert::bytes_to_wstring({'a', 'b', 0, 'c', 0}, 2), L"ab");
    EXPECT_EQ(krfs::Guard([] { IConv::wchar2char(std::wstring{L'a', 0x20AC}); }), 0x86E06281L);
    std::setlocale(LC_ALL, saved.c_str());

    EXPECT_EQ(libapdu::base64_encode({'f', 'o', 0xFB, 0xFF, 0xBF}), "Zm/7/78=");
    EXPECT_EQ(libapdu::base64_decode("Zm/7/78=\nYmFy"), (TBytes{'f', 'o', 0xFB, 0xFF, 0xBF}));
}

}  // namespace
