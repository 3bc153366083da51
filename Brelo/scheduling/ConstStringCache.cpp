#include "Brelo/ConstStringCache.h"

#include "Brelo/Assert.h"

namespace Brelo {

std::string const& ConstStringRef::string() const {
  static std::string const empty;
  return elem_ == nullptr ? empty : elem_->string();
}

ConstStringRef::Elem::Elem(ConstStringCache* cache, std::string string)
    : cache_(cache), string_(std::move(string)), hash_(std::hash<std::string>()(string_)) {}

void ConstStringRef::Elem::refCountLast() const {
  if (refCount_ == 0) {
    fmassert("ConstStringRef", __FILE__, "refCountDec", __LINE__, "string:{} has no references",
             string_);
  }
  refCount_ = 0;
  cache_->eraseElem(*this);
}

ConstStringCache::~ConstStringCache() {
  if (!elems_.empty()) {
    BRELO_FAIL("ConstStringCache", "Destroying ConstStringCache with open references");
  }
}

ConstStringRef ConstStringCache::intern(std::string string) {
  return ConstStringRef(*elems_.emplace(this, std::move(string)).first);
}

void ConstStringCache::eraseElem(ConstStringRef::Elem const& elem) {
  auto const found = elems_.find(elem);
  if (found == elems_.end()) {
    BRELO_FAIL("ConstStringCache", "string:{} is not in the cache", elem.string());
  }
  elems_.erase(found);
}

}  // namespace Brelo
