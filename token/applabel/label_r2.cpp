#include "token/applabel/label_r2.h"

#include <algorithm>

#include "libapdu/exception.h"
#include "token/appfs/fs_common.h"

namespace libapdu {

namespace {

const TPath kLabelDir = {0x8000};
const TPath kLabelFile = {0x8000, 0xAAAA};
constexpr long kNotFound = 0x86E06A82L;

}  // namespace

TBytes CLabelR2::read() {
    adapter.fs->select(kLabelFile);
    return FileRead(adapter);
}

void CLabelR2::write(const TBytes& label) {
    if (label.size() > kSize) APDU_RAISE(0x6B00);
    if (std::find(label.begin(), label.end(), 0) != label.end()) APDU_RAISE(0x6B00);

    // A token without a label yet has nothing to remove.
    try {
        adapter.fs->select(kLabelFile);
        adapter.fs->remove();
    } catch (const IException& e) {
        if (e.code() != kNotFound) throw;
    }
    // The directory is usually there already; any failure shows in the next step.
    try {
        FileCreatePath(adapter, kLabelDir, FileMakeDirInfo(adapter));
    } catch (const IException&) {
    }
    FileCreateAndWrite(adapter, kLabelFile,
                       FileMakeFileInfo(adapter, static_cast<WORD>(label.size()), false), label);
}

}  // namespace libapdu
