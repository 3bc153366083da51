#include "Brelo/ConstStringCache.h"

#include "Brelo/Assert.h"

namespace Brelo {

std::string const& ConstStringRef::string() const {
  static std::string const empty;
  return isNull() ? empty : elem()->string();
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

void ConstStringKeeper::keep(ConstStringRef string, std::uint64_t moment) noexcept {
  // The elements of a hash set are constant; the link of one is not a part of its value.
  auto& elem = const_cast<Elem&>(*string.elem());
  elem.keptSince_ = moment;
  if (elem.keptLink_.isLinked()) {
    Kept::unlink(elem);
  } else {
    string.bits_ = 0;
  }
  kept_.pushBack(elem);
}

void ConstStringKeeper::release(std::uint64_t moment) noexcept {
  while (!kept_.empty() && kept_.front().keptSince_ <= moment)
    releaseFirst();
}

void ConstStringKeeper::releaseAll() noexcept {
  while (!kept_.empty())
    releaseFirst();
}

void ConstStringKeeper::releaseFirst() noexcept {
  Elem& first = kept_.front();
  Kept::unlink(first);
  first.refCountDec();
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
