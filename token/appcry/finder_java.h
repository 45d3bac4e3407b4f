// The finders of the Java and Joker applets: the FIPS Pro layout, with the
// identifier in the third field of both attribute files and keys whose size
// the driver learns at select.
#pragma once

#include "token/appcry/cry_finder.h"

namespace libapdu {

class CJavaFinder : public CFieldFinder {
public:
    explicit CJavaFinder(CAdapter adapter);
};

class CJokerFinder : public CFieldFinder {
public:
    explicit CJokerFinder(CAdapter adapter);
};

}  // namespace libapdu
