// The finder frame: a short-lived search of the token for certificates and
// keys, paired into containers by identifier.
#pragma once

#include <vector>

#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

class CCryFinder {
public:
    explicit CCryFinder(CAdapter adapter) : adapter(adapter) {}
    virtual void getcerts() = 0;
    virtual void getkeys() = 0;
    virtual ~CCryFinder();

    std::vector<CCryptoInfo> containers() const { return containers_; }
    // Pairs keys and certificates by equal `id`, with no tie-break: matched
    // pairs in key order, then keys alone, then certificates alone. A
    // certificate that does not parse fails the whole search with 0x6281.
    void unite();
    // The reference of the user PIN, the last element of its path.
    unsigned char pinUser();

protected:
    // getcerts, getkeys, unite: each concrete finder's constructor ends here.
    void search();
    // Selects `path` and reads the whole file.
    TBytes readFile(const TPath& path);

    std::vector<CCryptoInfo> certs;
    std::vector<CCryptoInfo> keys;
    std::vector<CCryptoInfo> containers_;
    CAdapter adapter;
};

// The finder of the layouts with a directory per object under
// 3F00 6666 5000 0220: 1xxx certificates (0002 the DER, 0001 attributes),
// 3xxx keys (0001 attributes). An attribute file is fields of tag, length n
// and n bytes of value, after a family-defined prefix.
class CFieldFinder : public CCryFinder {
public:
    struct Layout {
        unsigned certErase;      // bytes before the certificate's fields
        unsigned certSkip;       // fields before the certificate's id
        unsigned keySkip;        // fields after the key's 6-byte prefix, before its id
        unsigned short keySize;  // the size every key gets; 0: learnt at select
    };

    static const TPath kHome;  // 3F00 6666 5000 0220

    void getcerts() override;
    void getkeys() override;

    // The field at the start of `data` is whole, else 0x6281.
    static void valid_field(const TBytes& data);
    // Erases the field at the start of `data`.
    static void skip_field(TBytes& data);
    // Replaces `data` by the value of its first field.
    static void get_field(TBytes& data);

protected:
    CFieldFinder(CAdapter adapter, Layout layout) : CCryFinder(adapter), layout(layout) {}

private:
    // The identifiers of 3F00 6666 5000 0220's directories whose top four
    // bits are `kind`; an empty list when the listing fails.
    std::vector<WORD> objects(unsigned kind);

    Layout layout;
};

}  // namespace libapdu
