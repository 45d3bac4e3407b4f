#include "commands.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <vector>

namespace krfstool {

namespace {

using json = nlohmann::json;
using Bytes = std::vector<unsigned char>;

// Bytes per library call in get, put and cat: small enough for steady progress.
constexpr WORD kChunk = 1024;
// Below this, no progress line: the transfer is quick even on a slow token.
constexpr std::size_t kProgressFrom = 4096;

// Binds and, when asked, logs in for the length of one command.
struct Work {
    Session session;
    explicit Work(const Common& c) : session(c.options) {
        if (c.login) {
            const std::string pin = readPin(c.pin, "PIN: ");
            check(KRTokenLogin(session.token(), pin.c_str()), "logging in");
            loggedIn = true;
        }
    }
    // Some tokens keep a login until they lose power: leave none behind.
    ~Work() {
        if (loggedIn) KRTokenLogout(session.token());
    }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;
    Dir dir(unsigned vendor, const std::vector<WORD>& path) const {
        return openDir(session, vendor, path);
    }
    bool loggedIn = false;
};

class Progress {
public:
    Progress(const std::string& what, std::size_t total)
        : what_(what), total_(total), shown_(total >= kProgressFrom && isatty(STDERR_FILENO)) {}
    void update(std::size_t done) {
        if (!shown_) return;
        std::fprintf(stderr, "\r%s: %zu / %zu bytes (%zu%%)", what_.c_str(), done, total_,
                     total_ ? done * 100 / total_ : 100);
        std::fflush(stderr);
    }
    ~Progress() {
        if (shown_) std::fprintf(stderr, "\n");
    }

private:
    std::string what_;
    std::size_t total_;
    bool shown_;
};

std::vector<WORD> fileTarget(const std::string& text) {
    std::vector<WORD> p = parsePath(text);
    if (p.empty()) throw std::invalid_argument("a file path needs at least one identifier");
    return p;
}

std::vector<WORD> parentOf(std::vector<WORD> path) {
    path.pop_back();
    return path;
}

File openFile(const Work& w, unsigned vendor, const std::vector<WORD>& path) {
    Dir parent = w.dir(vendor, parentOf(path));
    __tag_HFile* h = nullptr;
    check(KRFileOpen(&h, parent.get(), path.back()), "opening file " + formatId(path.back()));
    return File(h);
}

Bytes readAll(__tag_HFile* f, const std::string& label) {
    __tag_FileInfo info{};
    // Reading nothing into no buffer selects the file, so GetInfo describes it.
    check(KRFileRead(f, 0, 0, nullptr, 0), "selecting " + label);
    check(KRFileGetInfo(f, &info), "describing " + label);
    Bytes data(info.size);
    Progress progress("reading " + label, data.size());
    for (std::size_t done = 0; done < data.size();) {
        const WORD n = static_cast<WORD>(std::min<std::size_t>(kChunk, data.size() - done));
        check(KRFileRead(f, static_cast<WORD>(done), n, data.data() + done, n), "reading " + label);
        done += n;
        progress.update(done);
    }
    return data;
}

void writeAll(__tag_HFile* f, const Bytes& data, const std::string& label) {
    Progress progress("writing " + label, data.size());
    for (std::size_t done = 0; done < data.size();) {
        const WORD n = static_cast<WORD>(std::min<std::size_t>(kChunk, data.size() - done));
        check(KRFileWrite(f, static_cast<WORD>(done), data.data() + done, n), "writing " + label);
        done += n;
        progress.update(done);
    }
}

std::string pathText(const std::vector<WORD>& path) {
    std::string s;
    for (WORD id : path) s += "/" + formatId(id);
    return s.empty() ? "/" : s;
}

json listJson(const Work& w, unsigned vendor, const std::vector<WORD>& path, bool recursive) {
    Dir dir = w.dir(vendor, path);
    const Listing l = list(dir.get());
    json j = {{"path", pathText(path)}, {"directories", json::array()}, {"files", json::array()}};
    for (const __tag_FileInfo& f : l.files)
        j["files"].push_back(
            {{"id", formatId(f.id)}, {"size", f.size}, {"private", f.isPrivate != 0}});
    for (WORD d : l.dirs) {
        std::vector<WORD> sub = path;
        sub.push_back(d);
        j["directories"].push_back(recursive ? listJson(w, vendor, sub, true)
                                             : json{{"id", formatId(d)}});
    }
    return j;
}

void listText(const Work& w, unsigned vendor, const std::vector<WORD>& path, bool longFormat,
              bool recursive, bool heading) {
    Dir dir = w.dir(vendor, path);
    const Listing l = list(dir.get());
    if (heading) std::cout << pathText(path) << ":\n";
    for (WORD d : l.dirs) {
        if (longFormat)
            std::cout << "d        -  " << formatId(d) << "/\n";
        else
            std::cout << formatId(d) << "/\n";
    }
    for (const __tag_FileInfo& f : l.files) {
        if (longFormat) {
            char line[64];
            std::snprintf(line, sizeof(line), "- %7u  %s  %s\n", f.size, f.isPrivate ? "p" : "-",
                          formatId(f.id).c_str());
            std::cout << line;
        } else {
            std::cout << formatId(f.id) << "\n";
        }
    }
    if (!recursive) return;
    for (WORD d : l.dirs) {
        std::vector<WORD> sub = path;
        sub.push_back(d);
        std::cout << "\n";
        listText(w, vendor, sub, longFormat, true, true);
    }
}

// Deletes a directory's content depth first, then the directory.
void removeTree(const Work& w, unsigned vendor, const std::vector<WORD>& path) {
    Listing l;
    {
        Dir dir = w.dir(vendor, path);
        l = list(dir.get());
        for (const __tag_FileInfo& f : l.files) {
            __tag_HFile* h = nullptr;
            check(KRFileOpen(&h, dir.get(), f.id), "opening file " + formatId(f.id));
            File file(h);
            check(KRFileDelete(file.get()), "deleting file " + formatId(f.id));
        }
    }
    for (WORD d : l.dirs) {
        std::vector<WORD> sub = path;
        sub.push_back(d);
        removeTree(w, vendor, sub);
    }
    Dir dir = w.dir(vendor, path);
    check(KRDirDelete(dir.get()), "deleting " + pathText(path));
}

}  // namespace

int cmdReaders(const Common& c) {
    const std::vector<ReaderEntry> readers = listReaders();
    if (c.json) {
        json j = json::array();
        for (const ReaderEntry& r : readers)
            j.push_back({{"name", r.name}, {"token", r.tokenPresent}});
        std::cout << j.dump(2) << "\n";
        return 0;
    }
    if (readers.empty()) std::cout << "no readers\n";
    for (const ReaderEntry& r : readers)
        std::cout << r.name << "\t" << (r.tokenPresent ? "token" : "empty") << "\n";
    return 0;
}

int cmdInfo(const Common& c) {
    Work w(c);
    __tag_HToken* t = w.session.token();
    json j = {{"reader", w.session.reader()}};
    auto text = [&](const char* key, long (*get)(__tag_HToken*, char*, DWORD*)) {
        DWORD size = 0;
        long rc = get(t, nullptr, &size);
        if (rc == 0) {
            // One more byte than reported: the identifier and model getters
            // write their terminator at the reported size.
            std::vector<char> buf(size + 1, '\0');
            size = static_cast<DWORD>(buf.size());
            rc = get(t, buf.data(), &size);
            if (rc == 0) {
                j[key] = std::string(buf.data(), strnlen(buf.data(), buf.size()));
                return;
            }
        }
        j[key] = nullptr;
        j["errors"][key] = describe(rc);
    };
    auto number = [&](const char* key, long (*get)(__tag_HToken*, DWORD*)) {
        DWORD v = 0;
        const long rc = get(t, &v);
        if (rc == 0) {
            j[key] = v;
        } else {
            j[key] = nullptr;
            j["errors"][key] = describe(rc);
        }
    };
    text("id", KRTokenIDGet);
    text("model", KRTokenModelGet);
    text("label", KRTokenLabelGet);
    number("minPin", KRTokenMinPinGet);
    number("maxPin", KRTokenMaxPinGet);
    number("attemptsLeft", KRTokenPinAttemptsGet);
    if (c.json) {
        std::cout << j.dump(2) << "\n";
        return 0;
    }
    const char* rows[][2] = {{"reader", "Reader"},
                             {"id", "Identifier"},
                             {"model", "Model"},
                             {"label", "Label"},
                             {"minPin", "PIN length min"},
                             {"maxPin", "PIN length max"},
                             {"attemptsLeft", "PIN attempts left"}};
    for (auto& r : rows) {
        std::cout << r[1] << ": ";
        const json& v = j[r[0]];
        if (v.is_null())
            std::cout << "(" << j["errors"][r[0]].get<std::string>() << ")";
        else if (v.is_string())
            std::cout << v.get<std::string>();
        else
            std::cout << v.dump();
        std::cout << "\n";
    }
    return 0;
}

int cmdLs(const Common& c, const std::string& path, bool longFormat, bool recursive) {
    Work w(c);
    const std::vector<WORD> p = parsePath(path);
    if (c.json)
        std::cout << listJson(w, c.options.vendor, p, recursive).dump(2) << "\n";
    else
        listText(w, c.options.vendor, p, longFormat, recursive, recursive);
    return 0;
}

int cmdCat(const Common& c, const std::string& path) {
    Work w(c);
    File f = openFile(w, c.options.vendor, fileTarget(path));
    const Bytes data = readAll(f.get(), path);
    std::cout.write(reinterpret_cast<const char*>(data.data()),
                    static_cast<std::streamsize>(data.size()));
    return 0;
}

int cmdGet(const Common& c, const std::string& path, const std::string& file) {
    Work w(c);
    File f = openFile(w, c.options.vendor, fileTarget(path));
    const Bytes data = readAll(f.get(), path);
    std::ofstream out(file, std::ios::binary);
    if (!out) throw std::invalid_argument("cannot write " + file);
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
    std::cerr << path << ": " << data.size() << " bytes to " << file << "\n";
    return 0;
}

int cmdPut(const Common& c, const std::string& file, const std::string& path, bool isPrivate) {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw std::invalid_argument("cannot read " + file);
    const Bytes data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.size() > 0xFFFF) throw std::invalid_argument(file + " is larger than 65535 bytes");
    const std::vector<WORD> p = fileTarget(path);
    Work w(c);
    Dir parent = w.dir(c.options.vendor, parentOf(p));
    __tag_HFile* h = nullptr;
    long rc = KRFileOpen(&h, parent.get(), p.back());
    if (rc == static_cast<long>(KR_NOT_FOUND)) {
        rc = KRFileCreate(&h, parent.get(), p.back(), static_cast<WORD>(data.size()),
                          isPrivate ? 1 : 0);
        check(rc, "creating file " + formatId(p.back()));
    } else {
        check(rc, "opening file " + formatId(p.back()));
    }
    File f(h);
    __tag_FileInfo info{};
    check(KRFileRead(f.get(), 0, 0, nullptr, 0), "selecting " + path);
    check(KRFileGetInfo(f.get(), &info), "describing " + path);
    if (info.size < data.size())
        throw std::invalid_argument(path + " holds " + std::to_string(info.size) +
                                    " bytes and files never grow: remove it first");
    writeAll(f.get(), data, path);
    std::cerr << file << ": " << data.size() << " bytes to " << path << "\n";
    return 0;
}

int cmdMkdir(const Common& c, const std::string& path) {
    const std::vector<WORD> p = parsePath(path);
    if (p.empty()) throw std::invalid_argument("mkdir needs a path");
    Work w(c);
    Dir dir = w.dir(c.options.vendor, {});
    for (WORD id : p) {
        __tag_HDir* child = nullptr;
        // Creating an existing directory opens it.
        check(KRDirCreate(&child, id, dir.get()), "creating " + formatId(id));
        dir = Dir(child);
    }
    return 0;
}

int cmdRm(const Common& c, const std::string& path, bool recursive) {
    const std::vector<WORD> p = parsePath(path);
    if (p.empty()) throw std::invalid_argument("rm needs a path");
    Work w(c);
    Dir parent = w.dir(c.options.vendor, parentOf(p));
    __tag_HFile* h = nullptr;
    const long rc = KRFileOpen(&h, parent.get(), p.back());
    if (rc == 0) {
        File f(h);
        check(KRFileDelete(f.get()), "deleting " + path);
        return 0;
    }
    if (rc != static_cast<long>(KR_NOT_FOUND)) check(rc, "opening " + path);
    // Not a file: a directory, which needs -r.
    __tag_HDir* d = nullptr;
    check(KRDirOpen(&d, p.back(), parent.get()), "opening " + path);
    Dir dir(d);
    if (!recursive) throw std::invalid_argument(path + " is a directory: use rm -r");
    dir = Dir();
    removeTree(w, c.options.vendor, p);
    return 0;
}

int cmdLogin(const Common& c) {
    Session s(c.options);
    const std::string pin = readPin(c.pin, "PIN: ");
    const long rc = KRTokenLogin(s.token(), pin.c_str());
    if (rc != 0) {
        DWORD left = 0;
        if (KRTokenPinAttemptsGet(s.token(), &left) == 0 && left != 0xFF)
            std::cerr << "krfs: " << left << " attempts left\n";
        check(rc, "logging in");
    }
    std::cout << "PIN accepted\n";
    KRTokenLogout(s.token());
    return 0;
}

int cmdPasswd(const Common& c) {
    Session s(c.options);
    const std::string current = readPin(c.pin, "Current PIN: ");
    check(KRTokenLogin(s.token(), current.c_str()), "logging in");
    PinSource fresh = c.pin;
    fresh.env = c.newPinEnv;
    const std::string next = readPin(fresh, "New PIN: ");
    if (isatty(STDIN_FILENO) && fresh.env.empty() && !fresh.stdin_) {
        if (readPin(fresh, "New PIN again: ") != next)
            throw std::invalid_argument("the new PINs differ");
    }
    check(KRTokenPinChange(s.token(), next.c_str()), "changing the PIN");
    KRTokenLogout(s.token());
    std::cout << "PIN changed\n";
    return 0;
}

}  // namespace krfstool
