#include "Brelo/IntrusiveBookmarkLinkedList.h"

#include <cassert>

namespace Brelo::Impl {

void bookmarkLinkedAssertFail(unsigned line, char const* func) {
  __assert_fail("!link.isLinked()", "Brelo/IntrusiveBookmarkLinkedList", line, func);
}

}  // namespace Brelo::Impl
