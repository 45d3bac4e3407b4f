#include "token/applabel/label_pro.h"

#include "conv.h"
#include "crypto/token_crypto.h"
#include "libapdu/exception.h"
#include "token/appfs/fs_common.h"

namespace libapdu {

namespace {

const TPath kUtf8File = {0x3F00, 0x6666, 0x1000, 0x0005};
const TPath kLegacyFile = {0x3F00, 0x6666, 0x1000, 0x0002};
const TPath kFipsFile = {0x3F00, 0x6666, 0x5000, 0x0002};
const TPath kMarkerFile = {0x3F00, 0x6666, 0x0001};
constexpr std::size_t kMarkerSize = 16;

}  // namespace

TBytes CLabelPro::read() {
    if (isFips()) {
        adapter.fs->select(kFipsFile);
        return FileRead(adapter);
    }
    try {
        adapter.fs->select(kUtf8File);
        return FileRead(adapter);
    } catch (const IException&) {
        // Older tokens have only the single-byte file.
    }
    adapter.fs->select(kLegacyFile);
    const TBytes legacy = FileRead(adapter);
    return IConv::str2bytes(IConv::wchar2utf8(IConv::char2wchar(IConv::bytes2str(legacy))));
}

void CLabelPro::write(const TBytes& label) {
    TBytes single = IConv::str2bytes(IConv::wchar2char(IConv::utf82wchar(IConv::bytes2str(label))));
    if (label.size() > kSize) APDU_RAISE(0x6B00);
    if (single.size() > kSize) APDU_RAISE(0x6B00);

    TBytes utf8 = label;
    utf8.resize(kSize, 0);
    // The legacy file always ends in a zero: a 32-byte label loses its last
    // byte there, and keeps it in the UTF-8 file.
    single.resize(kSize - 1, 0);
    single.push_back(0);

    if (isFips()) {
        adapter.fs->select(kFipsFile);
        adapter.fs->write(utf8, 0);
    } else {
        adapter.fs->select(kUtf8File);
        adapter.fs->write(utf8, 0);
        adapter.fs->select(kLegacyFile);
        adapter.fs->write(single, 0);
    }
    volatile_update();
}

void CLabelPro::volatile_update() {
    TBytes marker(kMarkerSize);
    crypto_random(marker.data(), marker.size());
    adapter.fs->select(kMarkerFile);
    adapter.fs->write(marker, 0);
}

}  // namespace libapdu
