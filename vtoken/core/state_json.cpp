#include "core/state_json.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vtoken {

using json = nlohmann::ordered_json;

Bytes hexField(const json& value, const char* what, int size) {
    if (!value.is_string()) throw std::invalid_argument(std::string(what) + ": not a hex string");
    Bytes bytes;
    try {
        bytes = fromHex(value.get<std::string>());
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(std::string(what) + ": " + e.what());
    }
    if (size >= 0 && bytes.size() != static_cast<std::size_t>(size))
        throw std::invalid_argument(std::string(what) + ": " + std::to_string(size) +
                                    " bytes expected");
    return bytes;
}

json parseStateText(std::string_view text, const char* dialect) {
    json j;
    try {
        j = json::parse(text);
    } catch (const json::exception& e) {
        throw std::invalid_argument(std::string("not JSON: ") + e.what());
    }
    if (!j.is_object() || j.value("dialect", "") != dialect)
        throw std::invalid_argument(std::string("not the state of a token of dialect ") + dialect);
    return j;
}

unsigned long numberField(const json& j, const char* key, unsigned long min, unsigned long max,
                          std::optional<unsigned long> otherwise) {
    const json& n = j.contains(key) || !otherwise ? j.value(key, json()) : json(*otherwise);
    if (!n.is_number_unsigned() || n.get<unsigned long>() < min || n.get<unsigned long>() > max)
        throw std::invalid_argument(std::string(key) + ": " + std::to_string(min) + " to " +
                                    std::to_string(max));
    return n.get<unsigned long>();
}

json faultsToJson(const Faults& faults) {
    json out = json::object();
    if (!faults.refuse.empty()) {
        json list = json::array();
        for (const auto& r : faults.refuse)
            list.push_back({{"prefix", toHex(r.prefix)}, {"sw", toHex(statusWord(r.status))}});
        out["refuse"] = list;
    }
    if (!faults.truncate.empty()) {
        json list = json::array();
        for (const auto& t : faults.truncate)
            list.push_back({{"prefix", toHex(t.prefix)}, {"keep", t.keep}});
        out["truncate"] = list;
    }
    if (faults.muteAfter) out["mute_after"] = *faults.muteAfter;
    if (faults.vanishAt) out["vanish_at"] = *faults.vanishAt;
    return out;
}

Faults faultsFromJson(const json& value) {
    Faults faults;
    if (value.is_null()) return faults;
    if (!value.is_object()) throw std::invalid_argument("faults: not an object");
    auto count = [&](const char* key) -> std::optional<std::size_t> {
        if (!value.contains(key)) return std::nullopt;
        const json& n = value[key];
        if (!n.is_number_unsigned()) throw std::invalid_argument(std::string("faults.") + key);
        return n.get<std::size_t>();
    };
    for (const auto& r : value.value("refuse", json::array())) {
        Bytes prefix = hexField(r.value("prefix", json()), "faults.refuse.prefix");
        Bytes status = hexField(r.value("sw", json()), "faults.refuse.sw", 2);
        if (prefix.size() < 2) throw std::invalid_argument("faults.refuse.prefix: CLA and INS");
        faults.refuse.push_back({prefix, static_cast<std::uint16_t>(status[0] << 8 | status[1])});
    }
    for (const auto& t : value.value("truncate", json::array())) {
        Bytes prefix = hexField(t.value("prefix", json()), "faults.truncate.prefix");
        if (prefix.size() < 2) throw std::invalid_argument("faults.truncate.prefix: CLA and INS");
        const json& keep = t.value("keep", json());
        if (!keep.is_number_unsigned()) throw std::invalid_argument("faults.truncate.keep");
        faults.truncate.push_back({prefix, keep.get<std::size_t>()});
    }
    faults.muteAfter = count("mute_after");
    faults.vanishAt = count("vanish_at");
    return faults;
}

std::string readTextFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFileAtomically(const std::string& path, const std::string& text) {
    std::string temp = path + ".XXXXXX";
    int fd = ::mkstemp(temp.data());
    if (fd < 0)
        throw std::runtime_error("cannot write beside " + path + ": " + std::strerror(errno));
    std::size_t done = 0;
    bool ok = true;
    while (ok && done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) done += static_cast<std::size_t>(n);
    }
    ok = ok && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    // mkstemp makes the file private; a state file is as readable as any.
    ok = ok && ::chmod(temp.c_str(), 0644) == 0;
    if (!ok || ::rename(temp.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(temp.c_str());
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(err));
    }
}

}  // namespace vtoken
