#include "core/apdu.h"

namespace vtoken {

namespace {

constexpr std::size_t kExtendedLeMax = 65536;

// 00 Le Le, or 00 Lc Lc with the data and perhaps two Le bytes.
std::optional<Command> parseExtended(Command c, const Bytes& apdu) {
    if (apdu.size() < 7) return std::nullopt;
    const std::size_t n = wordAt(apdu, 5);
    if (apdu.size() == 7) {
        c.le = n ? n : kExtendedLeMax;
        return c;
    }
    if (n == 0 || (apdu.size() != 7 + n && apdu.size() != 9 + n)) return std::nullopt;
    c.data.assign(apdu.begin() + 7, apdu.begin() + 7 + static_cast<std::ptrdiff_t>(n));
    if (apdu.size() == 9 + n) {
        const std::size_t le = wordAt(apdu, 7 + n);
        c.le = le ? le : kExtendedLeMax;
    }
    return c;
}

}  // namespace

std::optional<Command> Command::parse(const Bytes& apdu, bool extended) {
    if (apdu.size() < 4) return std::nullopt;
    Command c;
    c.cla = apdu[0];
    c.ins = apdu[1];
    c.p1 = apdu[2];
    c.p2 = apdu[3];
    if (apdu.size() == 4) return c;
    const std::size_t first = apdu[4];
    if (apdu.size() == 5) {
        c.le = first == 0 ? 256 : first;
        return c;
    }
    if (first == 0) return extended ? parseExtended(c, apdu) : std::nullopt;
    if (apdu.size() != 5 + first && apdu.size() != 6 + first) return std::nullopt;
    c.data.assign(apdu.begin() + 5, apdu.begin() + 5 + static_cast<std::ptrdiff_t>(first));
    if (apdu.size() == 6 + first) c.le = apdu.back() == 0 ? 256 : apdu.back();
    return c;
}

Bytes respond(std::uint16_t status, Bytes data) {
    data.push_back(static_cast<unsigned char>(status >> 8));
    data.push_back(static_cast<unsigned char>(status & 0xFF));
    return data;
}

}  // namespace vtoken
