#include "token/appfs/datastore_records.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned char kCla = 0x80;
constexpr unsigned char kIns = 0x20;
// P1 of each record command.
constexpr unsigned char kDelete = 0x20;
constexpr unsigned char kRead = 0x30;
constexpr unsigned char kWrite = 0x40;
constexpr unsigned char kBegin = 0x10;
constexpr unsigned char kFinish = 0x50;
constexpr unsigned char kList = 0x60;
// The first data byte of finish: a new record, or one that exists.
constexpr unsigned char kFinishNew = 0x01;
constexpr unsigned char kFinishOver = 0x00;

constexpr std::size_t kListAnswer = 258;
constexpr std::size_t kReadAnswer = 258;
constexpr std::size_t kFinishAnswer = 256;
constexpr std::size_t kShortAnswer = 2;
// Offset, length and data share the one-byte Lc.
constexpr std::size_t kMaxWrite = 0xFF - 4;

constexpr WORD kSwRecordMissing = 0x6A82;
constexpr WORD kSwRecordBusy = 0x6F00;
constexpr WORD kRoot = 0x3F00;
constexpr unsigned char kTypeFile = 1;
constexpr unsigned char kTypeDir = 2;

// CLA INS P1 00 Lc, and the data that follows.
TBytes command(unsigned char p1, unsigned char lc) { return {kCla, kIns, p1, 0x00, lc}; }

WORD word(const TBytes& b, std::size_t at) { return static_cast<WORD>(b[at] << 8 | b[at + 1]); }

// Sends and returns the answer with the status word checked and cut.
TBytes exchange(CFSCommon& fs, const TBytes& apdu, std::size_t buffer) {
    TBytes response(buffer);
    fs.send(apdu, response);
    fs.checkSW(response);
    response.resize(response.size() >= 2 ? response.size() - 2 : 0);
    return response;
}

}  // namespace

// ---- CDataStoreRecords ----

std::vector<tagRecordInfo> CDataStoreRecords::list() {
    std::vector<tagRecordInfo> found;
    WORD next = 0;
    for (;;) {
        TBytes apdu = command(kList, 2);
        IAPDUDefinitions::add_w(apdu, next);
        apdu << 0x00;
        const TBytes answer = exchange(fs, apdu, kListAnswer);
        if (answer.size() % kRecordSize != 0) APDU_RAISE(0x6281);
        bool last = answer.empty();
        for (std::size_t at = 0; at < answer.size(); at += kRecordSize) {
            const tagRecordInfo r{word(answer, at), word(answer, at + 2), answer[at + 4],
                                  word(answer, at + 5)};
            // Numbers only ascend from where the list began; a card that
            // goes back would keep this loop going for ever.
            if (r.id < next) APDU_RAISE(0x6281);
            found.push_back(r);
            if (r.id == 0xFFFF) last = true;  // no number after it
            next = static_cast<WORD>(r.id + 1);
        }
        if (last) return found;
    }
}

WORD CDataStoreRecords::beginStatus(WORD size) {
    TBytes apdu = command(kBegin, 2);
    IAPDUDefinitions::add_w(apdu, size);
    apdu << 0x00;
    TBytes response(kShortAnswer);
    fs.send(apdu, response);
    return fs.extractSW(response);
}

void CDataStoreRecords::begin(WORD size) { fs.raiseSW(beginStatus(size)); }

WORD CDataStoreRecords::writeStatus(WORD offset, const TBytes& data) {
    if (data.size() > kMaxWrite) APDU_RAISE(0x6A84);
    TBytes apdu = command(kWrite, static_cast<unsigned char>(data.size() + 4));
    IAPDUDefinitions::add_w(apdu, offset);
    IAPDUDefinitions::add_w(apdu, static_cast<WORD>(data.size()));
    apdu << data << 0x00;
    TBytes response(kShortAnswer);
    fs.send(apdu, response);
    return fs.extractSW(response);
}

void CDataStoreRecords::write(WORD offset, const TBytes& data) {
    fs.raiseSW(writeStatus(offset, data));
}

WORD CDataStoreRecords::finishNew(bool isPrivate, WORD label) {
    TBytes apdu = command(kFinish, 4);
    apdu << kFinishNew << static_cast<unsigned char>(isPrivate ? 1 : 0);
    IAPDUDefinitions::add_w(apdu, label);
    apdu << 0x00;
    const TBytes answer = exchange(fs, apdu, kFinishAnswer);
    if (answer.size() < 2) APDU_RAISE(0x6281);
    return word(answer, 0);
}

void CDataStoreRecords::finishOver(WORD record) {
    TBytes apdu = command(kFinish, 3);
    apdu << kFinishOver;
    IAPDUDefinitions::add_w(apdu, record);
    apdu << 0x00;
    exchange(fs, apdu, kFinishAnswer);
}

TBytes CDataStoreRecords::read(WORD record, WORD offset, WORD length) {
    TBytes apdu = command(kRead, 6);
    IAPDUDefinitions::add_w(apdu, record);
    IAPDUDefinitions::add_w(apdu, offset);
    IAPDUDefinitions::add_w(apdu, length);
    apdu << 0x00;
    return exchange(fs, apdu, kReadAnswer);
}

void CDataStoreRecords::remove(WORD record) {
    TBytes apdu = command(kDelete, 2);
    IAPDUDefinitions::add_w(apdu, record);
    apdu << 0x00;
    exchange(fs, apdu, kReadAnswer);
}

// ---- CFSDataStoreTree ----

namespace {

bool beginsWith(const TPath& path, const TPath& prefix) {
    return path.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

// The card hides private content behind 0x6A82; with `read` set that means
// the login is missing.
template <class F>
void foldHidden(unsigned char read, F&& f) {
    try {
        f();
    } catch (const IException& e) {
        if (read != 0 && e.code() == static_cast<long>(0x86E00000UL | kSwRecordMissing))
            APDU_RAISE(0x6900);
        throw;
    }
}

}  // namespace

template <class Entry>
void CFSDataStoreTree<Entry>::select(TPath path) {
    if (!initialized) init();
    if (path.empty() || path.front() != kRoot) path.insert(path.begin(), kRoot);
    for (const Entry& e : files) {
        if (e.path == path) {
            current = e;
            return;
        }
    }
    APDU_RAISE(0x6A82);
}

template <class Entry>
TPath CFSDataStoreTree<Entry>::list(unsigned char kind) {
    if (current.type != kTypeDir) APDU_RAISE(0x6283);
    if (kind != kTypeFile && kind != kTypeDir) APDU_RAISE(0xFACE);
    TPath children;
    for (const Entry& e : files)
        if (e.path.size() == current.path.size() + 1 && beginsWith(e.path, current.path) &&
            e.type == kind)
            children.push_back(e.path.back());
    return children;
}

template <class Entry>
void CFSDataStoreTree<Entry>::read_bit(TBytes& data, WORD offset) {
    if (current.type != kTypeFile || current.name == 0) APDU_RAISE(0x6283);
    FileCheckRange(offset, data.size(), current.size, 0x6282);
    if (data.empty()) return;
    foldHidden(current.read, [&] {
        const TBytes answer = records.read(current.record, offset, static_cast<WORD>(data.size()));
        if (data.size() > answer.size()) APDU_RAISE(0x6282);
        std::copy_n(answer.begin(), data.size(), data.begin());
    });
}

template <class Entry>
void CFSDataStoreTree<Entry>::write_bit(const TBytes& data, WORD offset) {
    if (current.type != kTypeFile || current.name == 0) APDU_RAISE(0x6283);
    FileCheckRange(offset, data.size(), current.size, 0x6A84);
    if (data.empty()) return;
    foldHidden(current.read, [&] { records.write(offset, data); });
}

template <class Entry>
void CFSDataStoreTree<Entry>::write(const TBytes& data, WORD offset) {
    FileCheckRange(offset, data.size(), current.size, 0x6A84);
    // An empty write passes the range test of a directory; begin and finish
    // must not reach a directory's record.
    if (current.type != kTypeFile) APDU_RAISE(0x6283);
    const std::size_t block = bit_size();
    TBytes content(current.size, 0);
    if (!(data.size() == current.size && offset == 0)) read(content, 0);
    std::copy(data.begin(), data.end(), content.begin() + offset);

    const WORD sw = records.beginStatus(current.size);
    const bool replace = sw == kSwRecordBusy;
    if (!replace) raiseSW(sw);
    if (replace) {
        // The card cannot update this record in place: the old content goes
        // first, so only an interruption here loses data.
        records.remove(current.record);
        records.begin(current.size);
    }
    for (std::size_t done = 0; done < content.size(); done += block) {
        const std::size_t n = std::min(block, content.size() - done);
        write_bit(TBytes(content.begin() + done, content.begin() + done + n),
                  static_cast<WORD>(done));
    }
    if (replace) {
        // Only `current` learns the new number; the table keeps the old one
        // until the next init.
        current.record = records.finishNew(current.read != 0, current.label);
    } else {
        records.finishOver(current.record);
    }
}

template <class Entry>
void CFSDataStoreTree<Entry>::checkCreate(WORD id, CFileInfo& info) {
    valid_name(id);
    if (current.type != kTypeDir) APDU_RAISE(0x6283);
    if (info.size > 0x4000) APDU_RAISE(0x6400);
    if (info.size != 0 && info.type != kTypeFile) info.size = 0;
    if (info.size != 0 && applet->info()->memoryFree() < info.size) APDU_RAISE(0x6400);
}

template <class Entry>
TPath CFSDataStoreTree<Entry>::probeFree(WORD id) {
    TPath path = current.path;
    path.push_back(id);
    try {
        select(path);
    } catch (const IException& e) {
        if (e.code() == static_cast<long>(0x86E06A89UL)) throw;
        return path;
    }
    APDU_RAISE(0x6A89);
}

template <class Entry>
void CFSDataStoreTree<Entry>::removeRecord() {
    if (current.path.size() <= 1) APDU_RAISE(0x6900);
    if (current.type == kTypeDir && (!list(kTypeFile).empty() || !list(kTypeDir).empty()))
        APDU_RAISE(0x6900);
    records.remove(current.record);
}

template class CFSDataStoreTree<CDataStoreEntry>;
template class CFSDataStoreTree<CDataStoreEntryV2>;

}  // namespace libapdu
