#include "token/applabel/label_java.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

const TPath kLabelFile = {0x0002};
constexpr std::size_t kSizeAnswer = 256;
constexpr unsigned char kTagSize = 0x03;

}  // namespace

template <const JavaFamilyCommands& Commands>
TBytes CLabelJavaFamily<Commands>::read() {
    adapter.fs->select(kLabelFile);
    return FileRead(adapter);
}

template <const JavaFamilyCommands& Commands>
void CLabelJavaFamily<Commands>::write(const TBytes& label) {
    if (label.size() > kSize) APDU_RAISE(0x6B00);
    adapter.fs->select(kLabelFile);

    TBytes command{Commands.setSize[0], Commands.setSize[1], 0x00, 0x00, 0x04};
    add_tagw(command, kTagSize, static_cast<WORD>(label.size()));
    command << 0x00;
    TBytes response(kSizeAnswer);
    send(command, response);
    checkSW(response);

    adapter.fs->select(kLabelFile);
    adapter.fs->write(label, 0);
    volatile_update();
}

template <const JavaFamilyCommands& Commands>
void CLabelJavaFamily<Commands>::volatile_update() {
    JavaFamilyChangeMarker(*applet, Commands);
}

template class CLabelJavaFamily<kJavaCommands>;
template class CLabelJavaFamily<kJokerCommands>;

}  // namespace libapdu
