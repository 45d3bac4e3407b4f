#include "token/appcry/finder_java.h"

namespace libapdu {

namespace {
// Nothing before the certificate's fields, the third field its id; the key's
// third field after the prefix; sizes come at select.
constexpr CFieldFinder::Layout kJavaLayout{0, 2, 2, 0};
}  // namespace

CJavaFinder::CJavaFinder(CAdapter adapter) : CFieldFinder(adapter, kJavaLayout) { search(); }
CJokerFinder::CJokerFinder(CAdapter adapter) : CFieldFinder(adapter, kJavaLayout) { search(); }

}  // namespace libapdu
