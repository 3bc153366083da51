#include "metrics/AskAll.h"

#include <poll.h>

#include <algorithm>
#include <optional>

#include "Connection.h"
#include "Failure.h"

namespace Tool {

namespace {

constexpr std::size_t answerBytesMax = std::size_t{64} << 20;

/// One of the daemons, amid its answers.
struct Asked {
  std::optional<Connection> connection;
  Reply reply;

  bool isOpen() const { return connection.has_value(); }

  void ask(std::string const& path, std::vector<std::string> const& requests,
           std::chrono::milliseconds limit) {
    try {
      Connection::Limits limits;
      limits.connect = limits.connect.zero();
      limits.answer = limit;
      limits.bytes = answerBytesMax;
      connection.emplace(path, limits);
      for (auto const& request : requests)
        connection->send(request);
    } catch (Failure const& failure) {
      failed(failure.what());
    }
  }

  void advance(std::size_t requests) {
    try {
      while (auto answer = connection->advance()) {
        reply.answers.push_back(std::move(*answer));
        if (reply.answers.size() < requests) continue;
        connection.reset();
        return;
      }
    } catch (Failure const& failure) {
      failed(failure.what());
    }
  }

  void failed(std::string const& why) {
    reply.failure = why;
    connection.reset();
  }
};

}  // namespace

std::vector<Reply> askAll(std::vector<std::string> const& paths,
                          std::vector<std::string> const& requests,
                          std::chrono::milliseconds limit) {
  auto const end = Connection::Clock::now() + limit;
  std::vector<Asked> all(paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i)
    all[i].ask(paths[i], requests, limit);
  auto const isOpen = [](Asked const& asked) { return asked.isOpen(); };
  while (std::any_of(all.begin(), all.end(), isOpen)) {
    using std::chrono::milliseconds;
    auto const left = std::chrono::ceil<milliseconds>(end - Connection::Clock::now());
    std::vector<pollfd> polled;
    for (auto const& asked : all) {
      polled.push_back({asked.isOpen() ? asked.connection->descriptor() : -1,
                        asked.isOpen() ? asked.connection->events() : short{0}, 0});
    }
    ::poll(polled.data(), polled.size(), std::max(0, static_cast<int>(left.count())));
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (all[i].isOpen()) all[i].advance(requests.size());
      if (all[i].isOpen() && left.count() <= 0) all[i].failed(paths[i] + ": no answer in time");
    }
  }
  std::vector<Reply> replies;
  for (auto& asked : all)
    replies.push_back(std::move(asked.reply));
  return replies;
}

}  // namespace Tool
