#include "token/appfs/fs_idprotect.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr WORD kMasterFile = 0x3F00;
constexpr unsigned char kDirDescriptor = 0x38;
constexpr unsigned char kFileDescriptor = 0x01;
constexpr std::size_t kLongAnswer = 258;
// A name holds at most this many identifiers, two bytes each.
constexpr std::size_t kNameDepth = 8;
constexpr std::size_t kNameSize = 2 * kNameDepth;
// Real directories of the home are numbered 1 to 0xFF.
constexpr WORD kLastNumber = 0xFF;

constexpr unsigned char kTagFcp = 0x62;
constexpr unsigned char kTagSize = 0x80;
constexpr unsigned char kTagId = 0x83;
constexpr unsigned char kTagName = 0x84;
constexpr unsigned char kTagAccess = 0x86;
constexpr unsigned char kTagDescriptor = 0x87;
constexpr unsigned char kTagListEntry = 0xD2;

std::size_t dataLength(const TBytes& response) {
    return response.size() >= 2 ? response.size() - 2 : 0;
}

bool codeIs(const IException& e, WORD sw) { return (e.code() & 0xFFFF) == sw; }

// The one place where identifiers go low byte first.
TBytes nameOf(const TPath& relative) {
    TBytes name(kNameSize, 0x00);
    for (std::size_t i = 0; i < relative.size() && i < kNameDepth; ++i) {
        name[2 * i] = static_cast<unsigned char>(relative[i] & 0xFF);
        name[2 * i + 1] = static_cast<unsigned char>(relative[i] >> 8);
    }
    return name;
}

TPath withoutPrefix(const TPath& path, std::size_t n) {
    return n < path.size() ? TPath(path.begin() + n, path.end()) : TPath();
}

}  // namespace

CFSIdprotect::CFSIdprotect(IApplet* owner)
    : CFSCommon(owner), base_{kMasterFile, 0x3000, 0x3002, 0x5000} {}

void CFSIdprotect::select(TPath p) {
    if (p.empty() || p.front() != kMasterFile) p.insert(p.begin(), base_.begin(), base_.end());
    path_ = p;
    real_.clear();

    bool underHome = true;
    for (std::size_t i = 0; i < base_.size(); ++i)
        if ((i < path_.size() ? path_[i] : 0) != base_[i]) underHome = false;
    if (!underHome) {
        real_ = path_;
        selectSimple(real_);
        return;
    }

    if (path_.size() == base_.size()) {
        real_ = path_;
        try {
            selectSimple(base_);
        } catch (const IException&) {
            // The home comes to exist at its first selection.
            selectSimple(TPath(base_.begin(), base_.end() - 1));
            createSimple(base_.back(), FileMakeDirInfo(AppletToAdapter(applet)));
            selectSimple(base_);
        }
        return;
    }

    real_ = base_;
    TPath relative = withoutPrefix(path_, base_.size());
    selectSimple(base_);
    try {
        real_.push_back(selectName(relative));
        selectSimple(real_);
        return;
    } catch (const IException&) {
        // Not a directory; perhaps a file inside one.
    }
    // A failure after the first attempt's identifier went into real_ leaves
    // it there, and this attempt appends behind it.
    try {
        const WORD last = relative.back();
        relative.pop_back();
        if (relative.empty()) APDU_RAISE(0x6A82);  // no file lives directly in the home
        real_.push_back(selectName(relative));
        real_.push_back(last);
        selectSimple(real_);
    } catch (const IException&) {
        APDU_RAISE(0x6A82);
    }
}

WORD CFSIdprotect::selectName(TPath relative) {
    if (relative.size() > kNameDepth) APDU_RAISE(0x6A82);
    TBytes command{0x80, 0xA4, 0x04, 0x0C, static_cast<unsigned char>(kNameSize)};
    command << nameOf(relative) << 0x00;
    TBytes response(kLongAnswer);
    send(command, response);
    checkSW(response);
    try {
        const CBERTLV all(response.data(), dataLength(response));
        return static_cast<WORD>(all.getChild(kTagFcp).getChild(kTagId).asNumber());
    } catch (int) {
        APDU_RAISE(0x6281);
    }
}

TBytes IdprotectSelectByPath(const TPath& path) {
    // Lc is one byte: two per identifier.
    if (path.size() > 127) APDU_RAISE(0x6B00);
    TBytes command{0x80, 0xA4, 0x08, 0x0C, static_cast<unsigned char>(2 * path.size())};
    for (WORD id : path) IAPDUDefinitions::add_w(command, id);
    command << 0x00;
    return command;
}

const TPath& IdprotectLoginObject() {
    static const TPath kPath = {0x3F00, 0x3000, 0x3002};
    return kPath;
}

void CFSIdprotect::selectSimple(TPath realPath) {
    TBytes response(kLongAnswer);
    send(IdprotectSelectByPath(realPath), response);
    checkSW(response);

    // Each reading stands alone; one that finds its tag missing or short
    // leaves its fields as the last select set them.
    const CBERTLV all(response.data(), dataLength(response));
    try {
        info_.type =
            all.getChild(kTagFcp).getChild(kTagDescriptor).asNumber() == kDirDescriptor ? 2 : 1;
    } catch (int) {
    }
    try {
        const WORD size = static_cast<WORD>(all.getChild(kTagFcp).getChild(kTagSize).asNumber());
        info_.size = info_.type == 2 ? 0 : size;
    } catch (int) {
        if (info_.type == 2) info_.size = 0;
    }
    try {
        if (info_.type == 1 || info_.type == 2) {
            const CBERTLV access = all.getChild(kTagFcp).getChild(kTagAccess);
            const unsigned char* b = access.begin();
            if (info_.type == 2) {
                if (access.size() < 2) throw 0;
                info_.read = 0;
                info_.write = b[1];
            } else {
                if (access.size() < 4) throw 0;
                info_.read = b[1];
                info_.write = b[3];
            }
        }
    } catch (int) {
    }
    try {
        TBytes bytes = all.getChild(kTagFcp).getChild(kTagName).asBytes();
        bytes.resize(kNameSize, 0x00);
        TPath ids;
        for (std::size_t i = 0; i < kNameDepth; ++i)
            ids.push_back(static_cast<WORD>(bytes[2 * i] | bytes[2 * i + 1] << 8));
        while (!ids.empty() && ids.back() == 0) ids.pop_back();
        name_ = base_;
        name_.insert(name_.end(), ids.begin(), ids.end());
    } catch (int) {
    }
}

void CFSIdprotect::create(WORD id, CFileInfo info) {
    valid_name(id);
    if (info.size & 0x8000) APDU_RAISE(0x6400);
    const TPath parent = path_;
    const TPath probe = PathChild(parent, id);
    // The name must be free: a select that succeeds, or that reports the
    // name taken, ends here.
    const auto refuseExisting = [&] {
        try {
            select(probe);
        } catch (const IException& e) {
            if (codeIs(e, 0x6A89)) throw;
            return;
        }
        APDU_RAISE(0x6A89);
    };

    // At the home this road is taken whatever the type: a file asked for
    // there comes out as a directory, since no file is reachable there.
    if ((info.type == 2 && path_ != real_) || real_ == base_) {
        const TPath relative = PathChild(withoutPrefix(parent, base_.size()), id);
        if (relative.size() > kNameDepth) APDU_RAISE(0x6400);
        refuseExisting();

        selectSimple(base_);
        const TPath used = listSimple(2);
        WORD number = 1;
        while (number <= kLastNumber && std::find(used.begin(), used.end(), number) != used.end())
            ++number;
        if (number > kLastNumber) APDU_RAISE(0x6400);

        const unsigned char user = static_cast<unsigned char>(pinUser() & 0xFF);
        TBytes command{0x00, 0xE0, kDirDescriptor, 0x00, 0x2E, kTagFcp,
                       0x81, 0x2B, 0x8A,           0x01, 0x04, kTagId};
        command << 0x02;
        add_w(command, number);
        command << kTagSize << 0x02 << 0x00 << 0x00 << kTagName
                << static_cast<unsigned char>(kNameSize) << nameOf(relative);
        command << kTagAccess << 0x0C << 0x00 << info.write << 0x00 << info.write << 0x00
                << info.write << 0x00 << user << 0x00 << info.read << 0x00 << 0xFF;
        TBytes response(2);
        send(command, response);
        WORD sw = extractSW(response);
        if (sw == 0x6A80) sw = 0x6400;  // the card's word for a full home
        raiseSW(sw);
        return;
    }
    if (info.type == 1 && path_ != real_) {
        refuseExisting();
        select(parent);  // the probe moved the card
    }
    createSimple(id, info);
}

void CFSIdprotect::createSimple(WORD id, CFileInfo info) {
    valid_name(id);
    if (info.size & 0x8000) APDU_RAISE(0x6400);
    TBytes command;
    if (info.type == 1) {
        command = {0x00, 0xE0, kFileDescriptor, 0x00, 0x18, kTagFcp, 0x81, 0x15, 0x8A,
                   0x01, 0x04, kTagId,          0x02};
        add_w(command, id);
        command << kTagSize << 0x02;
        add_w(command, info.size);
        command << kTagAccess << 0x08 << 0x00 << info.read << 0x00 << info.write << 0x00
                << info.write << 0x00 << info.write;
        TBytes response(2);
        send(command, response);
        checkSW(response);
    } else if (info.type == 2) {
        const unsigned char user = static_cast<unsigned char>(pinUser() & 0xFF);
        command = {0x00, 0xE0, kDirDescriptor, 0x00, 0x1C,   kTagFcp, 0x81,
                   0x19, 0x8A, 0x01,           0x04, kTagId, 0x02};
        add_w(command, id);
        command << kTagSize << 0x02 << 0x00 << 0x00;
        command << kTagAccess << 0x0C << 0x00 << info.write << 0x00 << info.write << 0x00
                << info.write << 0x00 << user << 0x00 << info.write << 0x00 << info.write;
        TBytes response(2);
        send(command, response);
        WORD sw = extractSW(response);
        if (sw == 0x6A80) sw = 0x6400;
        raiseSW(sw);
    } else {
        APDU_RAISE(0xFACE);
    }
}

void CFSIdprotect::remove() {
    if (info_.type == 1 || !namedSide()) {
        removeSimple();
        return;
    }
    // Every real directory whose logical path begins with the target goes,
    // so named subdirectories go in the same pass.
    const TPath target = path_;
    selectSimple(base_);
    const TPath children = listSimple(2);
    for (WORD id : children) {
        selectSimple(PathChild(base_, id));
        TPath logical = name_;
        logical.resize(target.size(), 0);
        if (logical == target) removeSimple();
    }
}

void CFSIdprotect::removeSimple() {
    TBytes response(2);
    send({0x00, 0xE4, static_cast<unsigned char>(info_.type == 2 ? 1 : 0), 0x00}, response);
    checkSW(response);
}

TPath CFSIdprotect::list(unsigned char kind) {
    if (info_.type != 2) APDU_RAISE(0x6283);
    if (kind != 1 && kind != 2) APDU_RAISE(0xFACE);
    if (kind == 1 || !namedSide()) return listSimple(kind);

    // The logical children are the real directories one level below the
    // target by name.
    const TPath target = path_;
    selectSimple(base_);
    const TPath children = listSimple(2);
    TPath found;
    for (WORD id : children) {
        selectSimple(PathChild(base_, id));
        const TPath logical = name_;
        if (logical.size() == target.size() + 1 &&
            std::equal(target.begin(), target.end(), logical.begin()))
            found.push_back(logical.back());
    }
    select(target);
    return found;
}

TPath CFSIdprotect::listSimple(unsigned char kind) {
    if (info_.type != 2) APDU_RAISE(0x6283);
    if (kind != 1 && kind != 2) APDU_RAISE(0xFACE);
    const unsigned char p1 = kind == 2 ? kDirDescriptor : kFileDescriptor;
    TBytes response;
    applet->pack()->chain({0x80, 0x30, p1, 0x00, 0x00}, response);
    checkSW(response);

    TPath found;
    try {
        const CBERTLV all(response.data(), dataLength(response));
        CBERTLV entry = all.getChild(kTagListEntry);
        for (;;) {
            if (entry.size() < 2) break;
            found.push_back(static_cast<WORD>(entry.begin()[0] << 8 | entry.begin()[1]));
            const CBERTLV next = all.getChild(kTagListEntry, &entry);
            entry = next;
        }
    } catch (int) {
        // A broken entry ends the list; what came before it stands.
    }
    return found;
}

void CFSIdprotect::read_bit(TBytes& data, WORD offset) { readBinary(data, offset, info_.size); }

void CFSIdprotect::write_bit(const TBytes& data, WORD offset) {
    updateBinary(data, offset, info_.size);
}

}  // namespace libapdu
