#include "token/appfs/fs_pro.h"

#include "crypto/token_crypto.h"
#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr WORD kMasterFile = 0x3F00;
constexpr WORD kHome = 0x6666;
constexpr WORD kFipsHome = 0x5000;
constexpr unsigned char kDirDescriptor = 0x38;
constexpr std::size_t kLongAnswer = 258;

constexpr unsigned char kTagFcp = 0x6F;
constexpr unsigned char kTagDescriptor = 0x82;
constexpr unsigned char kTagAccess = 0x86;

const TPath kMarkerFile = {kMasterFile, kHome, 0x0001};

std::size_t dataLength(const TBytes& response) {
    return response.size() >= 2 ? response.size() - 2 : 0;
}

// The first byte of tag 0x82 inside 0x6F. Throws 0 when absent or empty.
unsigned char descriptor(const CTLV& all) {
    const CTLV d = all.getChild(kTagFcp).getChild(kTagDescriptor);
    if (d.size() == 0) throw 0;
    return d.begin()[0];
}

// File control data come from the card: each of the three readings stands
// alone, and one that finds a missing or short tag leaves its fields as they
// were.
CFileInfo parseControlData(const TBytes& response, unsigned char sizeTag) {
    CFileInfo info;
    const CTLV all(response.data(), dataLength(response));
    try {
        if (descriptor(all) == kDirDescriptor) {
            info.size = 0;
        } else {
            const CTLV size = all.getChild(kTagFcp).getChild(sizeTag);
            if (size.size() == 0) throw 0;
            info.size = static_cast<WORD>(size.asNumber());
        }
    } catch (int) {
    }
    try {
        info.type = descriptor(all) == kDirDescriptor ? 2 : 1;
    } catch (int) {
    }
    try {
        const CTLV access = all.getChild(kTagFcp).getChild(kTagAccess);
        if (access.size() == 0) throw 0;
        const unsigned char* b = access.begin();
        if (info.type == 2) {
            info.read = 0;
            info.write = b[0];
        } else {
            info.read = b[0];
            info.write = access.size() >= 2 ? b[1] : 0xFF;
        }
    } catch (int) {
    }
    return info;
}

TBytes accessBytes(unsigned char first, unsigned char rest, int restCount) {
    TBytes out(1 + restCount, rest);
    out[0] = first;
    return out;
}

}  // namespace

void CFSPro::select(TPath path) {
    if (!path.empty() && path.front() == kMasterFile) {
        path.erase(path.begin());
    } else {
        if (isFips()) path.insert(path.begin(), kFipsHome);
        path.insert(path.begin(), kHome);
    }

    TBytes command{0x00, 0xA4};
    if (path.empty()) {
        command << 0x00 << 0x00 << 0x00;
    } else {
        // Lc is one byte: two per identifier.
        if (path.size() > 127) APDU_RAISE(0x6B00);
        command << 0x08 << 0x00 << static_cast<unsigned char>(2 * path.size());
        for (WORD id : path) add_w(command, id);
        command << 0x00;
    }
    TBytes response(kLongAnswer);
    send(command, response);
    checkSW(response);

    info_ = parseControlData(response, tag_file_size());
    path.insert(path.begin(), kMasterFile);
    path_ = path;
}

void CFSPro::create(WORD id, CFileInfo info) {
    valid_name(id);
    TBytes command;
    if (info.type == 1) {
        command = {0x00, 0xE0, 0x00, 0x00, 0x1D, 0x6F, 0x1B, 0x82, 0x03, 0x01,
                   0x00, 0x00, 0x85, 0x03, 0x00, 0x00, 0x00, 0x83, 0x02};
        add_w(command, id);
        command << 0x81 << 0x02;
        add_w(command, info.size);
        command << 0x86 << 0x07 << accessBytes(info.read, info.write, 6);
    } else if (info.type == 2) {
        command = {0x00, 0xE0, 0x00, 0x00, 0x1E, 0x6F, 0x1C, 0x82, 0x03, 0x38,
                   0x00, 0x00, 0x85, 0x03, 0x00, 0x00, 0x00, 0x83, 0x02};
        add_w(command, id);
        command << 0x81 << 0x02 << 0x00 << 0x00;
        command << 0x86 << 0x08 << accessBytes(info.write, info.write, 7);
    } else {
        APDU_RAISE(0xFACE);
    }
    sendCreate(command);
}

void CFSPro::sendCreate(const TBytes& command) {
    TBytes response(kLongAnswer);
    send(command, response);
    WORD sw = extractSW(response);
    if (sw == 0x6A80) sw = 0x6A89;  // the card's word for an identifier in use
    raiseSW(sw);
    volatile_update();
}

void CFSPro::remove() {
    // Nothing selected yet, or the master file: neither can be deleted from
    // a parent.
    if (path_.size() < 2) APDU_RAISE(0x6900);
    TPath parent = path_;
    const WORD id = parent.back();
    parent.pop_back();
    select(parent);

    TBytes command{0x00, 0xE4, 0x00, 0x00, 0x02};
    add_w(command, id);
    TBytes response(2);
    send(command, response);
    WORD sw = extractSW(response);
    if (sw == 0x6981) sw = 0x6900;
    raiseSW(sw);
    volatile_update();
}

TPath CFSPro::list(unsigned char kind) {
    if (info_.type != 2) APDU_RAISE(0x6283);
    TPath found;
    unsigned count = 0;
    unsigned previous = 0;
    do {
        previous = count;
        // The card lists from entry P2 on, so ask again until it adds nothing.
        const TBytes command{0x80, 0x16, static_cast<unsigned char>(kind == 2 ? 0 : 1),
                             static_cast<unsigned char>(count & 0xFF), 0x00};
        TBytes response(kLongAnswer);
        send(command, response);
        checkSW(response);

        const CTLV all(response.data(), dataLength(response));
        try {
            CTLV entry = all.getChild(kTagFcp);
            for (;;) {
                const CTLV id = entry.getChild(kTagAccess);
                if (id.size() == 0) break;
                found.push_back(static_cast<WORD>(id.asNumber()));
                ++count;
                const CTLV next = all.getChild(kTagFcp, &entry);
                entry = next;
            }
        } catch (int) {
            // A broken entry ends this answer; what came before it stands.
        }
    } while (count <= 0xFF && count > previous);
    return found;
}

void CFSPro::read_bit(TBytes& data, WORD offset) { readBinary(data, offset, info_.size); }

void CFSPro::write_bit(const TBytes& data, WORD offset) { updateBinary(data, offset, info_.size); }

void CFSPro::volatile_update() {
    try {
        TBytes marker(16);
        crypto_random(marker.data(), marker.size());
        select(kMarkerFile);
        write(marker, 0);
    } catch (const IException&) {
        // A card without the marker, or a caller without the right to write
        // it, still creates and deletes.
    }
}

void CFSPro4::create(WORD id, CFileInfo info) {
    valid_name(id);
    TBytes command;
    if (info.type == 1) {
        command = {0x00, 0xE0, 0x00, 0x00, 0x19, 0x62, 0x17, 0x82,
                   0x01, 0x01, 0x85, 0x01, 0x00, 0x83, 0x02};
        add_w(command, id);
        command << 0x80 << 0x02;
        add_w(command, info.size);
        command << 0x86 << 0x07 << accessBytes(info.read, info.write, 6);
    } else if (info.type == 2) {
        // A directory keeps the size tag 0x81 even here; the card requires it.
        command = {0x00, 0xE0, 0x00, 0x00, 0x1A, 0x62, 0x18, 0x82,
                   0x01, 0x38, 0x85, 0x01, 0x00, 0x83, 0x02};
        add_w(command, id);
        command << 0x81 << 0x02 << 0x00 << 0x00;
        command << 0x86 << 0x08 << accessBytes(info.write, info.write, 7);
    } else {
        APDU_RAISE(0xFACE);
    }
    sendCreate(command);
}

}  // namespace libapdu
