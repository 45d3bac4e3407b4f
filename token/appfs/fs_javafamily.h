// What the Java and Joker applets share: one dialect that differs only in the
// class and instruction bytes of its commands, and the file system both
// emulate in it.
#pragma once

#include <array>

#include "token/appfs/fs_common.h"

namespace libapdu {

// The first two bytes of each command in which the two applets differ.
struct JavaFamilyCommands {
    using Header = std::array<unsigned char, 2>;
    Header select, create, remove, list, read, write;
    Header marker;   // the change marker, also called refreshing the volatile state
    Header setSize;  // the size of the current file
    Header random;
    Header query;     // the information block
    Header keyQuery;  // the kind and length of the current key
    Header decipher;  // the private-key operation of the current key
};

extern const JavaFamilyCommands kJavaCommands;
extern const JavaFamilyCommands kJokerCommands;

// Stamps the card's change marker through `applet` with 16 fresh random
// bytes, the first one odd so that the value is never all zero.
void JavaFamilyChangeMarker(IApplet& applet, const JavaFamilyCommands& commands);

// The file system both applets emulate, one class per table of commands:
// CFSJava and CFSJoker. Relative paths begin at 3F00 6666 5000.
template <const JavaFamilyCommands& Commands>
class CFSJavaFamily : public CFSCommon {
public:
    explicit CFSJavaFamily(IApplet* owner) : CFSCommon(owner) {}

    void select(TPath path) override;
    void create(WORD id, CFileInfo info) override;
    void remove() override;
    CFileInfo info() override { return info_; }
    TPath list(unsigned char kind) override;
    void read_bit(TBytes& data, WORD offset) override;
    void write_bit(const TBytes& data, WORD offset) override;
    WORD bit_size() override { return 245; }
    // Stamps the card's change marker; the current node stays.
    void volatile_update();

private:
    // Sends a create or delete; the card's 0x6707 there is a refusal. Then
    // stamps the marker.
    void changeTree(const TBytes& command, std::size_t answer);

    TPath path_;  // the current node, absolute
    CFileInfo info_;
};

extern template class CFSJavaFamily<kJavaCommands>;
extern template class CFSJavaFamily<kJokerCommands>;

}  // namespace libapdu
