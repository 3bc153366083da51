#include "Brelo/HashMix.h"

namespace Brelo::Impl {

template <class T>
HashMix<T>& HashMix<T>::mix(void const* data, unsigned long length) {
  return mixInline(data, length);
}

template class HashMix<unsigned int>;
template class HashMix<unsigned long>;

}  // namespace Brelo::Impl
