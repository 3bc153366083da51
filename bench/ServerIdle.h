#pragma once

#include <string>

namespace Bench {

class Catalogue;

/// What a server costs that has nothing to do.
void addIdleSecond(Catalogue& catalogue, std::string const& unit);

}  // namespace Bench
