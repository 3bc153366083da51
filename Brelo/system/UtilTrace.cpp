#include "Brelo/system/UtilTrace.h"

namespace Brelo {

ModuleTrace const Impl::utilTrace("BreloUtil");

}  // namespace Brelo
