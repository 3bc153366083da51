#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Answers.h"

namespace Tool {

/// What a daemon has answered: to each request, or why it did not.
struct Reply {
  std::vector<Answer> answers;
  std::string failure;  ///< empty if all requests have been answered
};

/// Asks all daemons the same, at the same time; each has to be done within the limit, so that those
/// that hang cost no more than that together. Replies are in the order of the paths.
std::vector<Reply> askAll(std::vector<std::string> const& paths,
                          std::vector<std::string> const& requests,
                          std::chrono::milliseconds limit);

}  // namespace Tool
