// The label of the Java applet, a UTF-8 file 0002 in the home directory that
// is exactly as long as the label, from the same driver as the Joker
// applet's, which differs only in its instruction bytes.
#pragma once

#include "token/appfs/fs_javafamily.h"
#include "token/applabel/label_common.h"

namespace libapdu {

// The label file of both applets, one class per table of commands:
// CLabelJava and CLabelJoker.
template <const JavaFamilyCommands& Commands>
class CLabelJavaFamily : public CLabelCommon {
public:
    static constexpr std::size_t kSize = 32;

    explicit CLabelJavaFamily(IApplet* owner) : CLabelCommon(owner) {}

    TBytes read() override;
    // At most 32 bytes, else 0x6B00 before any exchange. The file is resized
    // to the label first, so no tail of a longer one survives.
    void write(const TBytes& label) override;
    unsigned int encoding() override { return 3; }
    // Stamps the card's change marker.
    void volatile_update();
};

extern template class CLabelJavaFamily<kJavaCommands>;
extern template class CLabelJavaFamily<kJokerCommands>;

using CLabelJava = CLabelJavaFamily<kJavaCommands>;

}  // namespace libapdu
