// krfs mount: the vendor directory of a token through FUSE. Each operation
// takes the token's lock and gives it back, so other applications share the
// token while it is mounted; the single-threaded FUSE loop serialises them.
#define FUSE_USE_VERSION 31
#include "mount.h"

#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <system_error>

namespace krfstool {

namespace {

using Bytes = std::vector<unsigned char>;
using Path = std::vector<WORD>;
using Clock = std::chrono::steady_clock;

// How long the kernel, and this process, trust what they saw of the tree:
// together under a second, so that other applications' changes show soon.
constexpr double kKernelCacheSeconds = 0.5;
constexpr auto kListingLife = std::chrono::milliseconds(500);
// A token file's size is a 16-bit word.
constexpr std::size_t kMaxFileSize = 0xFFFF;

// An errno decided by the mount rather than by the token.
struct Refusal {
    int error;
};

int toErrno(long rc) {
    const unsigned long code = static_cast<unsigned long>(rc) & 0xFFFFFFFFul;
    switch (code) {
        case 0x86E06A82ul:
            return ENOENT;
        case 0x86E06A89ul:
            return EEXIST;
        case 0x86E06300ul:  // a PIN the token refused when the mount logged in again
            return EACCES;
        case 0x86E06400ul:
        case 0x86E06A84ul:
            return ENOSPC;
        case 0x80000003ul:
        case 0x86E06A80ul:
        case 0x86E06A86ul:
        case 0x86E06B00ul:
            return EINVAL;
        case 0x8007000Eul:
            return ENOMEM;
        case 0x86E0FACEul:
        case 0x86E06A81ul:
            return ENOTSUP;
        default:
            break;
    }
    // Not allowed, security status not satisfied, PIN blocked.
    if ((code & 0xFFFFFF00ul) == 0x86E06900ul) return EACCES;
    // A removed token, a PC/SC failure, an answer that makes no sense.
    return EIO;
}

bool isPcscFailure(long rc) { return ((static_cast<unsigned long>(rc) >> 16) & 0xFFFF) == 0x8010; }

// A name is an identifier as `krfs ls` prints it: four upper-case hex digits.
std::optional<WORD> idOf(const std::string& name) {
    static const char kDigits[] = "0123456789ABCDEF";
    if (name.size() != 4) return std::nullopt;
    unsigned value = 0;
    for (char ch : name) {
        const char* at = ch == '\0' ? nullptr : std::strchr(kDigits, ch);
        if (at == nullptr) return std::nullopt;
        value = value * 16 + static_cast<unsigned>(at - kDigits);
    }
    return static_cast<WORD>(value);
}

// "/2000/0001" as identifiers. A name that is no identifier cannot exist
// (ENOENT); as the last name of something to be made it is `badLast`.
Path nodePath(const char* text, int badLast = ENOENT) {
    Path path;
    const std::string s(text);
    for (std::size_t at = 1; at < s.size();) {
        const std::size_t end = std::min(s.find('/', at), s.size());
        const std::optional<WORD> id = idOf(s.substr(at, end - at));
        if (!id) throw Refusal{end == s.size() ? badLast : ENOENT};
        path.push_back(*id);
        at = end + 1;
    }
    return path;
}

Path parentOf(Path path) {
    path.pop_back();
    return path;
}

std::string pathText(const Path& path) {
    std::string s;
    for (WORD id : path) s += "/" + formatId(id);
    return s.empty() ? "/" : s;
}

// A file opened through the mount. From the moment it must change size (or
// when it is new) its whole content lives here until it is flushed.
struct OpenFile {
    Path path;
    bool onToken = true;  // false: made through the mount, created at the first flush
    bool isPrivate = false;
    WORD tokenSize = 0;     // its size on the token
    bool buffered = false;  // `data` holds the whole content
    bool dirty = false;     // `data` differs from the token
    bool removed = false;   // unlinked while open: never written back
    Bytes data;
    int opens = 0;
};

struct Node {
    bool isDir;
    WORD size;
    bool isPrivate;
};

class TokenFs {
public:
    TokenFs(Options options, std::string pin) : options_(std::move(options)), pin_(std::move(pin)) {
        if (!options_.log.empty()) KREnableLogging(options_.log.c_str());
        clock_gettime(CLOCK_REALTIME, &mounted_);
    }
    ~TokenFs();
    TokenFs(const TokenFs&) = delete;
    TokenFs& operator=(const TokenFs&) = delete;

    // Binds, logs in and opens the vendor directory, so that a mount that
    // could never work fails before anything is mounted.
    void start();
    const std::string& reader() const { return reader_; }
    // The errno of a failed library call; a lost card is bound again next time.
    int failed(const Failure& f);

    void getattr(const char* path, struct stat* st);
    void readdir(const char* path, void* buf, fuse_fill_dir_t fill);
    void mkdir(const char* path);
    void rmdir(const char* path);
    void unlink(const char* path);
    void create(const char* path, mode_t mode, fuse_file_info* fi);
    void open(const char* path, fuse_file_info* fi);
    int read(char* buf, std::size_t size, off_t offset, fuse_file_info* fi);
    int write(const char* buf, std::size_t size, off_t offset, fuse_file_info* fi);
    void truncate(const char* path, off_t size, fuse_file_info* fi);
    void flush(fuse_file_info* fi);
    void release(fuse_file_info* fi);
    void chmod(const char* path, mode_t mode);
    void chown(const char* path, uid_t uid, gid_t gid);
    void exists(const char* path);

private:
    // One operation's hold on the token: the lock, taken once however deep
    // the calls nest, and a fresh binding first if the last one lost the card.
    class Turn {
    public:
        explicit Turn(TokenFs& fs);
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        TokenFs& fs_;
    };

    const Listing& listing(const Path& dir, bool fresh = false);
    std::optional<Node> find(const Path& path, bool fresh = false);
    void fill(const Node& n, struct stat* st) const;
    Dir dir(const Path& path) { return openDir(token_, options_.vendor, path); }
    File file(const Dir& parent, WORD id);
    Bytes readFile(const Path& path, std::size_t size);
    void make(const Dir& parent, WORD id, const Bytes& data, bool isPrivate);
    void buffer(OpenFile& f, std::size_t size);
    void commit(OpenFile& f);
    void commitNow(OpenFile& f);
    static std::shared_ptr<OpenFile>& handle(fuse_file_info* fi) {
        return *reinterpret_cast<std::shared_ptr<OpenFile>*>(fi->fh);
    }
    void keep(fuse_file_info* fi, const std::shared_ptr<OpenFile>& f) {
        ++f->opens;
        fi->fh = reinterpret_cast<uint64_t>(new std::shared_ptr<OpenFile>(f));
    }

    Options options_;
    std::string pin_;  // kept to log in again after the card was lost
    std::string reader_;
    __tag_HToken* token_ = nullptr;
    int depth_ = 0;       // nested Turns
    bool stale_ = false;  // the card was lost: bind again before the next use
    bool fresh_ = true;   // bound, but the applet and the login are still to do
    bool loggedIn_ = false;
    timespec mounted_{};
    struct Seen {
        Clock::time_point at;
        Listing listing;
    };
    std::map<Path, Seen> listings_;
    std::map<Path, std::shared_ptr<OpenFile>> open_;
};

TokenFs::Turn::Turn(TokenFs& fs) : fs_(fs) {
    if (fs_.depth_++ > 0) return;
    try {
        if (fs_.stale_) {
            check(KRTokenRebind(fs_.token_), "binding to '" + fs_.reader_ + "' again");
            fs_.stale_ = false;
            fs_.fresh_ = true;
        }
        check(KRTokenLock(fs_.token_), "locking the token");
    } catch (...) {
        --fs_.depth_;
        throw;
    }
    if (!fs_.fresh_) return;
    try {
        if (fs_.options_.applet >= 0)
            check(KRSelectApplet(fs_.token_, static_cast<WORD>(fs_.options_.applet)),
                  "selecting the applet");
        if (!fs_.pin_.empty()) {
            check(KRTokenLogin(fs_.token_, fs_.pin_.c_str()), "logging in");
            fs_.loggedIn_ = true;
        }
        fs_.fresh_ = false;
    } catch (...) {
        KRTokenUnLock(fs_.token_);
        --fs_.depth_;
        throw;
    }
}

TokenFs::Turn::~Turn() {
    if (--fs_.depth_ == 0) KRTokenUnLock(fs_.token_);
}

void TokenFs::start() {
    reader_ = chooseReader(options_);
    check(KRTokenBind(&token_, reader_.c_str()), "binding to '" + reader_ + "'");
    Turn turn(*this);
    dir({});
}

// Some tokens keep a login until they lose power: leave none behind.
TokenFs::~TokenFs() {
    if (token_ == nullptr) return;
    if (loggedIn_ && !stale_ && KRTokenLock(token_) == 0) {
        KRTokenLogout(token_);
        KRTokenUnLock(token_);
    }
    KRTokenUnbind(token_);
}

int TokenFs::failed(const Failure& f) {
    if (isPcscFailure(f.code)) stale_ = true;
    const int error = toErrno(f.code);
    // The usual answers (not found, not allowed) are the caller's business.
    if (error == EIO) std::cerr << "krfs: " << f.what() << ": " << describe(f.code) << std::endl;
    return error;
}

const Listing& TokenFs::listing(const Path& path, bool fresh) {
    const auto seen = listings_.find(path);
    if (!fresh && seen != listings_.end() && Clock::now() - seen->second.at < kListingLife)
        return seen->second.listing;
    Turn turn(*this);
    Dir d = dir(path);
    Seen& slot = listings_[path];
    slot = {Clock::now(), list(d.get())};
    return slot.listing;
}

std::optional<Node> TokenFs::find(const Path& path, bool fresh) {
    if (path.empty()) return Node{true, 0, false};
    const auto open = open_.find(path);
    if (open != open_.end() && open->second->buffered)
        return Node{false, static_cast<WORD>(open->second->data.size()), open->second->isPrivate};
    const Listing& l = listing(parentOf(path), fresh);
    for (WORD d : l.dirs)
        if (d == path.back()) return Node{true, 0, false};
    for (const __tag_FileInfo& f : l.files)
        if (f.id == path.back()) return Node{false, f.size, f.isPrivate != 0};
    return std::nullopt;
}

mode_t permissions(const Node& n) { return n.isDir ? 0755 : n.isPrivate ? 0600 : 0644; }

void TokenFs::fill(const Node& n, struct stat* st) const {
    *st = {};
    st->st_mode = (n.isDir ? S_IFDIR : S_IFREG) | permissions(n);
    st->st_nlink = n.isDir ? 2 : 1;
    st->st_size = n.size;
    st->st_blocks = (n.size + 511) / 512;
    st->st_uid = getuid();
    st->st_gid = getgid();
    st->st_atim = st->st_mtim = st->st_ctim = mounted_;
}

File TokenFs::file(const Dir& parent, WORD id) {
    __tag_HFile* h = nullptr;
    check(KRFileOpen(&h, parent.get(), id), "opening file " + formatId(id));
    return File(h);
}

Bytes TokenFs::readFile(const Path& path, std::size_t size) {
    Bytes data(size);
    if (size == 0) return data;
    Turn turn(*this);
    File f = file(dir(parentOf(path)), path.back());
    const WORD n = static_cast<WORD>(size);
    check(KRFileRead(f.get(), 0, n, data.data(), n), "reading " + pathText(path));
    return data;
}

// Creates the file at the size of `data` and writes it; a file that cannot
// be written is deleted again rather than left with wrong content.
void TokenFs::make(const Dir& parent, WORD id, const Bytes& data, bool isPrivate) {
    __tag_HFile* h = nullptr;
    check(KRFileCreate(&h, parent.get(), id, static_cast<WORD>(data.size()), isPrivate ? 1 : 0),
          "creating file " + formatId(id));
    File f(h);
    if (data.empty()) return;
    const long rc = KRFileWrite(f.get(), 0, data.data(), static_cast<WORD>(data.size()));
    if (rc != 0) KRFileDelete(f.get());
    check(rc, "writing file " + formatId(id));
}

// Takes the file's content into the handle, cut or zero-extended to `size`.
void TokenFs::buffer(OpenFile& f, std::size_t size) {
    if (!f.buffered) {
        f.data = readFile(f.path, std::min<std::size_t>(size, f.tokenSize));
        f.buffered = true;
    }
    f.data.resize(size);
    f.dirty = true;
}

// Writes a buffered file back: made if new, in place at its size, or deleted
// and made again at its new size (and put back as it was if that fails).
void TokenFs::commitNow(OpenFile& f) {
    Turn turn(*this);
    Dir parent = dir(parentOf(f.path));
    const WORD id = f.path.back();
    if (!f.onToken) {
        make(parent, id, f.data, f.isPrivate);
    } else if (f.data.size() == f.tokenSize) {
        File existing = file(parent, id);
        if (!f.data.empty())
            check(KRFileWrite(existing.get(), 0, f.data.data(), f.tokenSize),
                  "writing " + pathText(f.path));
    } else {
        Bytes before(f.tokenSize);
        {
            File existing = file(parent, id);
            if (!before.empty())
                check(KRFileRead(existing.get(), 0, f.tokenSize, before.data(), f.tokenSize),
                      "reading " + pathText(f.path));
            check(KRFileDelete(existing.get()), "deleting " + pathText(f.path));
        }
        try {
            make(parent, id, f.data, f.isPrivate);
        } catch (const Failure&) {
            try {
                make(parent, id, before, f.isPrivate);
            } catch (const Failure&) {
                // The card is gone or full: the first failure says why.
            }
            throw;
        }
    }
}

// After a failed write-back the handle forgets its change: the token decides
// what the file is.
void TokenFs::commit(OpenFile& f) {
    if (!f.dirty || f.removed) return;
    try {
        commitNow(f);
        f.onToken = true;
        f.tokenSize = static_cast<WORD>(f.data.size());
    } catch (...) {
        if (!f.onToken) {
            f.removed = true;
            const auto entry = open_.find(f.path);
            if (entry != open_.end() && entry->second.get() == &f) open_.erase(entry);
        }
        f.dirty = f.buffered = false;
        f.data.clear();
        listings_.clear();
        throw;
    }
    f.dirty = f.buffered = false;
    f.data.clear();
    listings_.clear();
}

void TokenFs::getattr(const char* path, struct stat* st) {
    const std::optional<Node> n = find(nodePath(path));
    if (!n) throw Refusal{ENOENT};
    fill(*n, st);
}

void TokenFs::exists(const char* path) {
    if (!find(nodePath(path))) throw Refusal{ENOENT};
}

void TokenFs::readdir(const char* path, void* buf, fuse_fill_dir_t filler) {
    const Path p = nodePath(path);
    const Listing l = listing(p, true);
    filler(buf, ".", nullptr, 0, fuse_fill_dir_flags{});
    filler(buf, "..", nullptr, 0, fuse_fill_dir_flags{});
    struct stat st;
    auto add = [&](WORD id) {
        Path child = p;
        child.push_back(id);
        const std::optional<Node> n = find(child);
        if (!n) return;
        fill(*n, &st);
        filler(buf, formatId(id).c_str(), &st, 0, FUSE_FILL_DIR_PLUS);
    };
    for (WORD d : l.dirs) add(d);
    for (const __tag_FileInfo& f : l.files) add(f.id);
    // Files being written for the first time are there before the token has them.
    for (const auto& [name, f] : open_)
        if (!f->onToken && parentOf(name) == p) add(name.back());
}

void TokenFs::mkdir(const char* path) {
    const Path p = nodePath(path, EINVAL);
    Turn turn(*this);
    if (find(p, true)) throw Refusal{EEXIST};
    Dir parent = dir(parentOf(p));
    __tag_HDir* h = nullptr;
    check(KRDirCreate(&h, p.back(), parent.get()), "creating " + pathText(p));
    Dir made(h);
    listings_.clear();
}

void TokenFs::rmdir(const char* path) {
    const Path p = nodePath(path);
    if (p.empty()) throw Refusal{EBUSY};
    Turn turn(*this);
    Dir d = dir(p);
    const Listing l = list(d.get());
    if (!l.dirs.empty() || !l.files.empty()) throw Refusal{ENOTEMPTY};
    check(KRDirDelete(d.get()), "deleting " + pathText(p));
    listings_.clear();
}

void TokenFs::unlink(const char* path) {
    const Path p = nodePath(path);
    const auto open = open_.find(p);
    const bool onlyHere = open != open_.end() && !open->second->onToken;
    if (!onlyHere) {
        Turn turn(*this);
        File f = file(dir(parentOf(p)), p.back());
        check(KRFileDelete(f.get()), "deleting " + pathText(p));
        listings_.clear();
    }
    if (open != open_.end()) {
        open->second->removed = true;
        open_.erase(open);
    }
}

void TokenFs::create(const char* path, mode_t mode, fuse_file_info* fi) {
    const Path p = nodePath(path, EINVAL);
    if (open_.count(p) != 0 || find(p, true)) throw Refusal{EEXIST};
    auto f = std::make_shared<OpenFile>();
    f->path = p;
    f->onToken = false;
    // No access for group and others: a file that needs the PIN to be read.
    f->isPrivate = (mode & 077) == 0;
    f->buffered = f->dirty = true;
    open_[p] = f;
    keep(fi, f);
}

void TokenFs::open(const char* path, fuse_file_info* fi) {
    const Path p = nodePath(path);
    std::shared_ptr<OpenFile> f;
    if (const auto open = open_.find(p); open != open_.end()) {
        f = open->second;
    } else {
        const std::optional<Node> n = find(p, true);
        if (!n) throw Refusal{ENOENT};
        if (n->isDir) throw Refusal{EISDIR};
        f = std::make_shared<OpenFile>();
        f->path = p;
        f->isPrivate = n->isPrivate;
        f->tokenSize = n->size;
        open_[p] = f;
    }
    if (fi->flags & O_TRUNC) buffer(*f, 0);
    keep(fi, f);
}

int TokenFs::read(char* buf, std::size_t size, off_t offset, fuse_file_info* fi) {
    OpenFile& f = *handle(fi);
    const std::size_t length = f.buffered ? f.data.size() : f.tokenSize;
    if (static_cast<std::size_t>(offset) >= length) return 0;
    const std::size_t n = std::min(size, length - static_cast<std::size_t>(offset));
    if (f.buffered) {
        std::memcpy(buf, f.data.data() + offset, n);
        return static_cast<int>(n);
    }
    Turn turn(*this);
    File file = this->file(dir(parentOf(f.path)), f.path.back());
    check(KRFileRead(file.get(), static_cast<WORD>(offset), static_cast<WORD>(n),
                     reinterpret_cast<unsigned char*>(buf), static_cast<DWORD>(n)),
          "reading " + pathText(f.path));
    return static_cast<int>(n);
}

int TokenFs::write(const char* buf, std::size_t size, off_t offset, fuse_file_info* fi) {
    const std::size_t end = static_cast<std::size_t>(offset) + size;
    if (end > kMaxFileSize) throw Refusal{EFBIG};
    OpenFile& f = *handle(fi);
    if (!f.buffered && end <= f.tokenSize) {
        Turn turn(*this);
        File file = this->file(dir(parentOf(f.path)), f.path.back());
        check(KRFileWrite(file.get(), static_cast<WORD>(offset),
                          reinterpret_cast<const unsigned char*>(buf), static_cast<WORD>(size)),
              "writing " + pathText(f.path));
        return static_cast<int>(size);
    }
    buffer(f, std::max(end, f.buffered ? f.data.size() : f.tokenSize));
    std::memcpy(f.data.data() + offset, buf, size);
    return static_cast<int>(size);
}

void TokenFs::truncate(const char* path, off_t size, fuse_file_info* fi) {
    if (size < 0 || static_cast<std::size_t>(size) > kMaxFileSize) throw Refusal{EFBIG};
    const auto length = static_cast<std::size_t>(size);
    std::shared_ptr<OpenFile> f;
    if (fi != nullptr) {
        f = handle(fi);
    } else if (const auto open = open_.find(nodePath(path)); open != open_.end()) {
        f = open->second;
    }
    if (f) {
        if (f->buffered || length != f->tokenSize) buffer(*f, length);
        return;
    }
    // truncate(2) on a file nobody holds open: resized at once.
    const Path p = nodePath(path);
    const std::optional<Node> n = find(p, true);
    if (!n) throw Refusal{ENOENT};
    if (n->isDir) throw Refusal{EISDIR};
    if (length == n->size) return;
    OpenFile once;
    once.path = p;
    once.isPrivate = n->isPrivate;
    once.tokenSize = n->size;
    buffer(once, length);
    commit(once);
}

void TokenFs::flush(fuse_file_info* fi) { commit(*handle(fi)); }

void TokenFs::release(fuse_file_info* fi) {
    std::unique_ptr<std::shared_ptr<OpenFile>> held(&handle(fi));
    OpenFile& f = **held;
    if (--f.opens > 0) return;
    const auto open = open_.find(f.path);
    if (open != open_.end() && open->second.get() == &f) open_.erase(open);
    try {
        commit(f);
    } catch (...) {
        // close(2) has returned already; flush reported what went wrong.
    }
}

// Permissions and owners follow from the token: a change to what they already
// are is the only one taken.
void TokenFs::chmod(const char* path, mode_t mode) {
    const std::optional<Node> n = find(nodePath(path));
    if (!n) throw Refusal{ENOENT};
    if ((mode & 07777) != permissions(*n)) throw Refusal{EPERM};
}

void TokenFs::chown(const char* path, uid_t uid, gid_t gid) {
    exists(path);
    if ((uid != static_cast<uid_t>(-1) && uid != getuid()) ||
        (gid != static_cast<gid_t>(-1) && gid != getgid()))
        throw Refusal{EPERM};
}

// Runs one operation for FUSE: failures become a negative errno.
template <typename Work>
int guarded(Work work) {
    TokenFs& fs = *static_cast<TokenFs*>(fuse_get_context()->private_data);
    try {
        return work(fs);
    } catch (const Refusal& r) {
        return -r.error;
    } catch (const Failure& f) {
        return -fs.failed(f);
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (const std::exception& e) {
        std::cerr << "krfs: " << e.what() << std::endl;
        return -EIO;
    }
}

fuse_operations operations() {
    fuse_operations ops{};
    ops.init = [](fuse_conn_info*, fuse_config* cfg) -> void* {
        cfg->entry_timeout = cfg->attr_timeout = cfg->negative_timeout = kKernelCacheSeconds;
        // Hiding an open file that is unlinked needs rename, which tokens lack.
        cfg->hard_remove = 1;
        return fuse_get_context()->private_data;
    };
    ops.getattr = [](const char* p, struct stat* st, fuse_file_info*) {
        return guarded([&](TokenFs& fs) { return fs.getattr(p, st), 0; });
    };
    ops.readdir = [](const char* p, void* buf, fuse_fill_dir_t filler, off_t, fuse_file_info*,
                     fuse_readdir_flags) {
        return guarded([&](TokenFs& fs) { return fs.readdir(p, buf, filler), 0; });
    };
    ops.mkdir = [](const char* p, mode_t) {
        return guarded([&](TokenFs& fs) { return fs.mkdir(p), 0; });
    };
    ops.rmdir = [](const char* p) { return guarded([&](TokenFs& fs) { return fs.rmdir(p), 0; }); };
    ops.unlink = [](const char* p) {
        return guarded([&](TokenFs& fs) { return fs.unlink(p), 0; });
    };
    ops.create = [](const char* p, mode_t mode, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.create(p, mode, fi), 0; });
    };
    ops.open = [](const char* p, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.open(p, fi), 0; });
    };
    ops.read = [](const char*, char* buf, size_t size, off_t off, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.read(buf, size, off, fi); });
    };
    ops.write = [](const char*, const char* buf, size_t size, off_t off, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.write(buf, size, off, fi); });
    };
    ops.truncate = [](const char* p, off_t size, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.truncate(p, size, fi), 0; });
    };
    ops.flush = [](const char*, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.flush(fi), 0; });
    };
    ops.fsync = [](const char*, int, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.flush(fi), 0; });
    };
    ops.release = [](const char*, fuse_file_info* fi) {
        return guarded([&](TokenFs& fs) { return fs.release(fi), 0; });
    };
    ops.chmod = [](const char* p, mode_t mode, fuse_file_info*) {
        return guarded([&](TokenFs& fs) { return fs.chmod(p, mode), 0; });
    };
    ops.chown = [](const char* p, uid_t uid, gid_t gid, fuse_file_info*) {
        return guarded([&](TokenFs& fs) { return fs.chown(p, uid, gid), 0; });
    };
    // Tokens keep no times: setting them changes nothing, and fails nothing.
    ops.utimens = [](const char* p, const timespec*, fuse_file_info*) {
        return guarded([&](TokenFs& fs) { return fs.exists(p), 0; });
    };
    // Nothing on a token can be renamed or linked: refused before anything is done.
    ops.rename = [](const char*, const char*, unsigned) { return -ENOTSUP; };
    ops.link = [](const char*, const char*) { return -ENOTSUP; };
    ops.symlink = [](const char*, const char*) { return -ENOTSUP; };
    return ops;
}

// The FUSE instance, mounted or not, freed at the end of its scope.
class Fuse {
public:
    Fuse(TokenFs& fs, const std::string& mountpoint) {
        static const fuse_operations ops = operations();
        const char* argv[] = {"krfs", "-o", "fsname=krfs,subtype=krfs,default_permissions"};
        fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
        fuse_ = fuse_new(&args, &ops, sizeof ops, &fs);
        // Parsing the options may have copied them onto the heap.
        fuse_opt_free_args(&args);
        if (fuse_ == nullptr) throw std::runtime_error("cannot set up FUSE");
        if (fuse_mount(fuse_, mountpoint.c_str()) != 0) {
            fuse_destroy(fuse_);
            throw std::runtime_error("cannot mount at " + mountpoint +
                                     " (is /dev/fuse there, and fuse3 installed?)");
        }
        mounted_ = true;
        fuse_set_signal_handlers(fuse_get_session(fuse_));
    }
    ~Fuse() {
        if (mounted_) {
            fuse_remove_signal_handlers(fuse_get_session(fuse_));
            fuse_unmount(fuse_);
        }
        if (fuse_ != nullptr) fuse_destroy(fuse_);
    }
    Fuse(const Fuse&) = delete;
    Fuse& operator=(const Fuse&) = delete;
    // Serves until unmounted or signalled; false on a failure of FUSE itself.
    bool serve() { return fuse_loop(fuse_) >= 0; }

private:
    fuse* fuse_ = nullptr;
    bool mounted_ = false;
};

// Forks before anything touches PC/SC. The parent waits for the child's word
// that the mount stands (the child says on stderr why not) and exits with it;
// the child goes on in a session of its own and gets the pipe to speak on.
int detach() {
    int fds[2];
    if (pipe(fds) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    const pid_t pid = fork();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid > 0) {
        close(fds[1]);
        char verdict = 1;
        ssize_t n;
        while ((n = ::read(fds[0], &verdict, 1)) < 0 && errno == EINTR) {
        }
        _exit(n == 1 && verdict == 0 ? 0 : 1);
    }
    close(fds[0]);
    setsid();
    return fds[1];
}

// Tells the waiting parent that the mount stands, and leaves the terminal.
void detached(int ready) {
    const char ok = 0;
    if (::write(ready, &ok, 1) != 1) std::exit(1);
    close(ready);
    const int null = ::open("/dev/null", O_RDWR);
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, fd);
    if (null > STDERR_FILENO) close(null);
    if (chdir("/") != 0) std::exit(1);
}

std::string absolute(const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return path;
    return std::string(cwd) + "/" + path;
}

}  // namespace

int cmdMount(const Common& c, const std::string& mountpoint, bool foreground) {
    char resolved[PATH_MAX];
    struct stat st;
    if (realpath(mountpoint.c_str(), resolved) == nullptr || ::stat(resolved, &st) != 0 ||
        !S_ISDIR(st.st_mode))
        throw std::invalid_argument(mountpoint + " is no directory to mount on");
    Options options = c.options;
    // The log is opened by name for each line; the daemon works from "/".
    options.log = absolute(options.log);
    const std::string pin = c.login ? readPin(c.pin, "PIN: ") : "";
    const int ready = foreground ? -1 : detach();
    TokenFs fs(options, pin);
    fs.start();
    Fuse fuse(fs, resolved);
    std::cerr << "krfs: the token in '" << fs.reader() << "' is mounted at " << resolved
              << "; fusermount3 -u " << resolved << " unmounts it" << std::endl;
    if (ready >= 0) detached(ready);
    return fuse.serve() ? 0 : 1;
}

}  // namespace krfstool
