// The finders of the Pro family: certificate records, key files, the size
// table and the container map (CPro4Finder), and the FIPS layout of one
// directory per object (CPro4FipsFinder).
#pragma once

#include <string>

#include "token/appcry/cry_finder.h"

namespace libapdu {

class CPro4Finder : public CCryFinder {
public:
    explicit CPro4Finder(CAdapter adapter);

    void getcerts() override;
    void getkeys() override;

    static const TPath kCertificates;  // 3F00 6666 1002
    static const TPath kKeys;          // 3F00 6666 6000
    static const TPath kSizeTable;     // 3F00 6666 6000 ECEC
    static const TPath kMap;           // 3F00 6666 1001 1001
    static const TPath kOldKeys;       // 3F00 6666 5000 0201

private:
    // The files of `dir`; none when it cannot be listed.
    TPath files(const TPath& dir);
    CCryptoInfo object(const TPath& path);
    // The key files of 6000 named by the container map.
    void mappedKeys(const TBytes& table, const std::string& map);
    // The key files of 5000 0201, used when the map is empty.
    void oldKeys(const TBytes& table);
};

// Certificate attributes after 1 byte, id the second field; key id the fifth
// field after the 6-byte prefix; every key 128 bytes.
class CPro4FipsFinder : public CFieldFinder {
public:
    explicit CPro4FipsFinder(CAdapter adapter);
};

}  // namespace libapdu
