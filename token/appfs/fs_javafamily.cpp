#include "token/appfs/fs_javafamily.h"

#include "crypto/token_crypto.h"
#include "libapdu/exception.h"

namespace libapdu {

// select, create, remove, list, read, write, marker, setSize, random, query,
// keyQuery, decipher
const JavaFamilyCommands kJavaCommands = {
    {{0x00, 0xA4}}, {{0x80, 0x16}}, {{0x00, 0xE4}}, {{0x80, 0x01}}, {{0x80, 0x18}}, {{0x80, 0x15}},
    {{0x80, 0x1B}}, {{0x80, 0x1A}}, {{0x80, 0x17}}, {{0x00, 0xCA}}, {{0x80, 0x07}}, {{0x80, 0x0C}},
};
const JavaFamilyCommands kJokerCommands = {
    {{0x80, 0x03}}, {{0x80, 0x09}}, {{0x80, 0x01}}, {{0x80, 0x0D}}, {{0x80, 0x1C}}, {{0x80, 0x1B}},
    {{0x80, 0x1D}}, {{0x80, 0x17}}, {{0x80, 0x12}}, {{0x80, 0x02}}, {{0x80, 0x14}}, {{0x80, 0x19}},
};

namespace {

constexpr WORD kMasterFile = 0x3F00;
const TPath kHome = {0x6666, 0x5000};
constexpr std::size_t kLongAnswer = 258;
constexpr std::size_t kMarkerSize = 16;
constexpr std::size_t kMaxDepth = 30;
constexpr WORD kLargestSize = 0x7FFF;
// The card's "not found", which means a refusal where it creates or deletes.
constexpr WORD kSwRefused = 0x6707;

// Tags of a node description.
constexpr unsigned char kTagType = 0x01;
constexpr unsigned char kTagId = 0x02;
constexpr unsigned char kTagSize = 0x03;
constexpr unsigned char kTagAccess = 0x04;
constexpr unsigned char kTypeDirectory = 1;
constexpr unsigned char kTypeFile = 2;
constexpr std::size_t kAccessBytes = 5;

// Tags of a list answer and of data access.
constexpr unsigned char kTagIds = 0x0A;
constexpr unsigned char kTagMore = 0x0B;
constexpr unsigned char kTagFirst = 0x09;
constexpr unsigned char kTagOffset = 0x0E;
constexpr unsigned char kTagData = 0x10;
constexpr unsigned kListPage = 100;
constexpr unsigned kLastListOffset = 0xFF9A;
constexpr unsigned char kListAnswer = 0xCD;

// The four header bytes of a command of the dialect.
TBytes header(const JavaFamilyCommands::Header& h, unsigned char p1, unsigned char p2) {
    return TBytes{h[0], h[1], p1, p2};
}

CTLV answerData(const TBytes& response) {
    return CTLV(response.data(), response.size() >= 2 ? response.size() - 2 : 0);
}

// A node description from the card: each reading stands alone, and one that
// meets a missing or short tag leaves its fields as they were.
CFileInfo parseDescription(const TBytes& response) {
    CFileInfo info;
    const CTLV all = answerData(response);
    try {
        info.size = static_cast<WORD>(all.getChild(kTagSize).asNumber());
    } catch (int) {
    }
    try {
        info.type = all.getChild(kTagType).asNumber() == kTypeDirectory ? 2 : 1;
    } catch (int) {
    }
    try {
        const CTLV access = all.getChild(kTagAccess);
        const unsigned char* b = access.begin();
        if (info.type == 2) {
            if (access.size() < 1) throw 0;
            info.read = 0;
            info.write = b[0];
        } else {
            if (access.size() < 2) throw 0;
            info.read = b[0];
            info.write = b[1];
        }
    } catch (int) {
    }
    return info;
}

}  // namespace

void JavaFamilyChangeMarker(IApplet& applet, const JavaFamilyCommands& commands) {
    TBytes value(kMarkerSize);
    crypto_random(value.data(), value.size());
    value[0] |= 0x01;
    TBytes command{commands.marker[0], commands.marker[1], 0x00, 0x00, kMarkerSize + 2};
    IAPDUDefinitions::add_tag1(command, kTagData, value);
    TBytes response(2);
    applet.send(command, response);
    applet.checkSW(response);
}

template <const JavaFamilyCommands& Commands>
void CFSJavaFamily<Commands>::select(TPath path) {
    if (!path.empty() && path.front() == kMasterFile)
        path.erase(path.begin());
    else
        path.insert(path.begin(), kHome.begin(), kHome.end());

    TBytes command;
    if (path.empty()) {
        command = header(Commands.select, 0x00, 0x04);
        command << 0x00;
    } else {
        // Lc is one byte: two per identifier.
        if (path.size() > 127) APDU_RAISE(0x6B00);
        command = header(Commands.select, 0x08, 0x04);
        command << static_cast<unsigned char>(2 * path.size());
        for (WORD id : path) add_w(command, id);
        command << 0x00;
    }
    TBytes response(kLongAnswer);
    send(command, response);
    checkSW(response);

    info_ = parseDescription(response);
    path.insert(path.begin(), kMasterFile);
    path_ = path;
}

template <const JavaFamilyCommands& Commands>
void CFSJavaFamily<Commands>::create(WORD id, CFileInfo info) {
    valid_name(id);
    if (info.size > kLargestSize || path_.size() > kMaxDepth) APDU_RAISE(0x6400);

    TBytes body;
    if (info.type == 1) {
        body = {kTagType, 1, kTypeFile};
        add_tagw(body, kTagId, id);
        add_tagw(body, kTagSize, info.size);
        TBytes access(kAccessBytes, info.write);
        access[0] = info.read;
        add_tag1(body, kTagAccess, access);
    } else if (info.type == 2) {
        body = {kTagType, 1, kTypeDirectory};
        add_tagw(body, kTagId, id);
        add_tagw(body, kTagSize, 0);
        add_tag1(body, kTagAccess, TBytes(kAccessBytes, info.write));
    } else {
        APDU_RAISE(0xFACE);
    }
    TBytes command = header(Commands.create, 0x01, 0x00);
    add_1(command, body);
    changeTree(command, kLongAnswer);
}

template <const JavaFamilyCommands& Commands>
void CFSJavaFamily<Commands>::remove() {
    // Nothing selected yet, or the master file: neither has a parent to
    // delete it from.
    if (path_.size() < 2) APDU_RAISE(0x6900);
    TPath parent = path_;
    const WORD id = parent.back();
    parent.pop_back();
    select(parent);

    TBytes command = header(Commands.remove, 0x00, 0x00);
    command << 0x02;
    add_w(command, id);
    changeTree(command, 2);
}

template <const JavaFamilyCommands& Commands>
void CFSJavaFamily<Commands>::changeTree(const TBytes& command, std::size_t answer) {
    TBytes response(answer);
    send(command, response);
    WORD sw = extractSW(response);
    if (sw == kSwRefused) sw = 0x6900;
    raiseSW(sw);
    volatile_update();
}

template <const JavaFamilyCommands& Commands>
TPath CFSJavaFamily<Commands>::list(unsigned char kind) {
    if (info_.type != 2) APDU_RAISE(0x6283);
    if (kind != 1 && kind != 2) APDU_RAISE(0xFACE);
    // The card numbers directories 1 and files 2, the other way round.
    const unsigned char which = kind == 1 ? 2 : 1;
    TPath found;
    for (unsigned offset = 0; offset <= kLastListOffset; offset += kListPage) {
        TBytes command = header(Commands.list, which, 0x00);
        command << 0x04;
        add_tagw(command, kTagFirst, static_cast<WORD>(offset));
        command << kListAnswer;
        TBytes response(kLongAnswer);
        send(command, response);
        checkSW(response);

        unsigned long more = 0;
        try {
            const CTLV all = answerData(response);
            const CTLV ids = all.getChild(kTagIds);
            for (const unsigned char* p = ids.begin(); p + 1 < ids.end(); p += 2)
                found.push_back(static_cast<WORD>(p[0] << 8 | p[1]));
            more = all.getChild(kTagMore).asNumber();
        } catch (int) {
            APDU_RAISE(0x6281);
        }
        if (more == 0) break;
    }
    return found;
}

template <const JavaFamilyCommands& Commands>
void CFSJavaFamily<Commands>::read_bit(TBytes& data, WORD offset) {
    FileCheckRange(offset, data.size(), info_.size, 0x6282);
    const unsigned char length = static_cast<unsigned char>(data.size() & 0xFF);
    TBytes command = header(Commands.read, 0x00, 0x00);
    command << 0x04;
    add_tagw(command, kTagOffset, offset);
    command << length;
    TBytes response(length + 2u);
    send(command, response);
    checkSW(response);
    if (response.size() != data.size() + 2) APDU_RAISE(0x6282);
    data.assign(response.begin(), response.end() - 2);
}

template <const JavaFamilyCommands& Commands>
void CFSJavaFamily<Commands>::write_bit(const TBytes& data, WORD offset) {
    FileCheckRange(offset, data.size(), info_.size, 0x6A84);
    // Lc is one byte, with six bytes of tags; the chunk loop never asks for
    // more than bit_size().
    if (data.size() > 0xFF - 6) APDU_RAISE(0x6B00);
    TBytes body;
    add_tagw(body, kTagOffset, offset);
    add_tag1(body, kTagData, data);
    TBytes command = header(Commands.write, 0x00, 0x00);
    add_1(command, body);
    TBytes response(2);
    send(command, response);
    checkSW(response);
}

template <const JavaFamilyCommands& Commands>
void CFSJavaFamily<Commands>::volatile_update() {
    JavaFamilyChangeMarker(*applet, Commands);
}

template class CFSJavaFamily<kJavaCommands>;
template class CFSJavaFamily<kJokerCommands>;

}  // namespace libapdu
