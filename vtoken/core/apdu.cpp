#include "core/apdu.h"

namespace vtoken {

std::optional<Command> Command::parse(const Bytes& apdu) {
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
    // Lc 00 would start an extended length, which these cards do not take.
    if (first == 0) return std::nullopt;
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
