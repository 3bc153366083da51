#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include "Brelo/Assert.h"
#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/Exception.h"
#include "Brelo/FileLock.h"
#include "Brelo/TaskScheduler.h"
#include "Snippets.h"

using namespace Brelo;

namespace {

ModuleTrace const trace("Indexer");

void indexed(std::string const& path, int words) {
  BRELO_TRACE(trace, 4, "Indexer", "{} has {} words", path, words);
  if (words < 0) BRELO_FAIL("Indexer", "{} words in {}", words, path);
}

}  // namespace

void traces() {
  Platform::setupBreloDebug("Indexer/0-4");
  Platform::setTraceFormat("%n/%l %m");
  indexed("a.txt", 3);  // writes "Indexer/4 Indexer::indexed() a.txt has 3 words"
  Platform::clearTraceFormat();
  Platform::clearBreloDebug("Indexer");
}

void failures() {
  BacktraceTracker::enabledIs(true);
  try {
    RuntimeException::throwException("cannot write the index: " +
                                     std::string(Brelo::strerror(ENOSPC)));
  } catch (Exception const& error) {
    std::cerr << error.what() << "\n";  // the message and the stack of the throw
  }
  BacktraceTracker::printAll(std::cerr);  // the same, though it was caught
  if (BacktraceTracker::tracked().size() != 1) std::abort();
}

void reports() {
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("mydaemon");
  root->statsRenderTextForDebugStdErr();
  root->historyRenderTextForDebugStdErr();
  std::string const document = root->statsRenderJsonToString(true, true, true);
  if (document.find("\"mydaemon\"") == std::string::npos) std::abort();
}

void helpers() {
  std::string directory = std::filesystem::temp_directory_path() / "brelo-guide-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) std::abort();
  {
    FileLock lock(trace, directory, "mydaemon.lock");
    if (!lock.lock(false)) throw RuntimeException("mydaemon runs already");
    if (FileLock(trace, directory, "mydaemon.lock").lock(false)) std::abort();
  }
  std::filesystem::remove_all(directory);
}
