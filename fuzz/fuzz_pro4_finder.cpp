// The Pro key finders on untrusted files. The input is a series of files, each
// a two-byte big-endian length and that many bytes: two certificate records,
// the size table, the container map, two key files and a key file of the older
// layout; a file the input does not reach is absent. The last one is also the
// attribute file of the FIPS layout and the data of the field operations.
// Every failure must be an IException, and the finders stay within each file.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_check.h"
#include "tests/unit/memory_fs.h"
#include "token/appcry/finder_pro4.h"

namespace {

using namespace libapdu;

const TPath kFiles[] = {
    {0x3F00, 0x6666, 0x1002, 0x0001},         {0x3F00, 0x6666, 0x1002, 0x0002},
    {0x3F00, 0x6666, 0x6000, 0xECEC},         {0x3F00, 0x6666, 0x1001, 0x1001},
    {0x3F00, 0x6666, 0x6000, 0x1001},         {0x3F00, 0x6666, 0x6000, 0x2002},
    {0x3F00, 0x6666, 0x5000, 0x0201, 0x0502},
};

CAdapter over(memory_fs::MemoryFS& fs, memory_fs::UserPin& pin) {
    CAdapter a;
    a.fs = &fs;
    a.pin = &pin;
    return a;
}

void fields(TBytes data) {
    const std::size_t size = data.size();
    try {
        for (;;) {
            TBytes value = data;
            CFieldFinder::get_field(value);
            FUZZ_CHECK(value.size() + 2 <= data.size());
            CFieldFinder::skip_field(data);
            FUZZ_CHECK(data.size() + 2 <= size);
        }
    } catch (const IException&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<TBytes> files;
    for (size_t at = 0; at + 1 < size;) {
        const size_t n = data[at] << 8 | data[at + 1];
        at += 2;
        const size_t take = n < size - at ? n : size - at;
        files.emplace_back(data + at, data + at + take);
        at += take;
    }
    memory_fs::MemoryFS fs;
    memory_fs::UserPin pin;
    for (size_t i = 0; i < files.size() && i < std::size(kFiles); ++i) fs.put(kFiles[i], files[i]);
    try {
        // At most two certificates and two keys, each pair once.
        const std::vector<CCryptoInfo> found = CPro4Finder(over(fs, pin)).containers();
        FUZZ_CHECK(found.size() <= 2 * 2 + 2 + 2);
        for (const CCryptoInfo& c : found)
            if (c.pin != 0) FUZZ_CHECK(c.size <= 0xFF * 8 && c.privateKey.size() == c.size);
    } catch (const IException&) {
    }

    const TBytes slice = files.empty() ? TBytes{} : files.back();
    fields(slice);
    memory_fs::MemoryFS fips;
    fips.put({0x3F00, 0x6666, 0x5000, 0x0220, 0x1001, 0x0001}, slice);
    fips.put({0x3F00, 0x6666, 0x5000, 0x0220, 0x1001, 0x0002}, files.empty() ? slice : files[0]);
    fips.put({0x3F00, 0x6666, 0x5000, 0x0220, 0x3001, 0x0001}, slice);
    try {
        FUZZ_CHECK(CPro4FipsFinder(over(fips, pin)).containers().size() <= 2);
    } catch (const IException&) {
    }
    return 0;
}
