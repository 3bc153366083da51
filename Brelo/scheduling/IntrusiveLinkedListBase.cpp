#include "Brelo/IntrusiveLinkedListBase.h"

#include <cassert>

namespace Brelo::Impl {

void linkedAssertFail(unsigned line, char const* func) {
  __assert_fail("!( element.*ptrToLinkNode ).isLinked()", "Brelo/IntrusiveLinkedListBase", line,
                func);
}

}  // namespace Brelo::Impl
