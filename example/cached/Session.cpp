#include <fmt/compile.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <utility>

#include "Brelo/Time.h"
#include "CommandLine.h"
#include "Server.h"

namespace Cached {

namespace {

constexpr std::array<std::string_view, 5> storing{"set", "add", "replace", "append", "prepend"};
constexpr std::size_t lineMax = 64 << 10;
constexpr std::size_t unsentMax = 64 << 10;  // and the next answer
constexpr std::size_t sentMax = 1 << 20;     // at a time, then others get their turn

constexpr std::string_view badLine = "CLIENT_ERROR bad command line format\r\n";
constexpr std::string_view badData = "CLIENT_ERROR bad data chunk\r\n";
constexpr std::string_view badTime = "CLIENT_ERROR invalid exptime argument\r\n";
constexpr std::string_view tooLarge = "SERVER_ERROR object too large for cache\r\n";
constexpr std::string_view outOfMemory = "SERVER_ERROR out of memory storing object\r\n";
constexpr std::string_view notFound = "NOT_FOUND\r\n";

/// One client. What it has not sent the end of, and what has to wait until it reads its answers, is
/// left to the stream: a line and a value at most.
class Session {
 public:
  Session(Server& server, BreloDaemon::Stream& client) : server_(server), client_(client) {
    ++server_.connections;
    ++server_.total.connections;
    client_.waterMarksIs(unsentMax / 4, unsentMax);
    client_.receiveLimitIs(2 * Item::valueMax);  // more than an unfinished command is
  }
  Session(Session const&) = delete;
  ~Session() { --server_.connections; }

  /// Returns how much it has taken.
  std::size_t received(std::string_view bytes) {
    cache_.timeIs(Brelo::time());
    enough_ = client_.bytesSent() + sentMax;
    std::string_view rest = bytes;
    for (std::size_t taken = 1; taken > 0 && !rest.empty() && mayAnswer();) {
      taken = take(rest);
      rest.remove_prefix(taken);
    }
    if (client_.bytesSent() >= enough_) {
      client_.readingPausedIs(true);
      client_.readingPausedIs(false);  // what is left is offered again
    }
    return bytes.size() - rest.size();
  }

 private:
  bool mayAnswer() const { return client_.unsent() < unsentMax && client_.bytesSent() < enough_; }

  // These return the size of what they have taken from the front, 0 if it is not all there.

  std::size_t take(std::string_view bytes) {
    std::size_t const skipped = std::min(skip_, bytes.size());
    skip_ -= skipped;
    if (skipped > 0) return skipped;
    std::size_t const end = bytes.find('\n');
    if (end == bytes.npos) {
      if (bytes.size() < lineMax) return 0;
      client_.send("CLIENT_ERROR line too long\r\n");
      return client_.close(), bytes.size();
    }
    std::string_view text = bytes.substr(0, end > 0 && bytes[end - 1] == '\r' ? end - 1 : end);
    CommandLine const line(text);
    std::string_view const name = takeWord(text);
    if (name == "get" || name == "gets" || name == "gat" || name == "gats") {
      return retrieve(name, text) ? end + 1 : 0;
    }
    auto const is = [&line](std::string_view store) { return line.is(store, 5); };
    if (line.is("cas", 6) || std::any_of(storing.begin(), storing.end(), is))
      return takeStore(line, end + 1, bytes.substr(end + 1));
    return answer(line, run(line), end + 1);
  }

  bool retrieve(std::string_view name, std::string_view words) {
    bool const touching = name[1] == 'a';
    auto const time = touching ? numberIn<std::int64_t>(takeWord(words)) : 0;
    std::string_view last = time ? "ERROR\r\n" : badTime;  // unless there is a key
    std::size_t const size = words.size();
    words.remove_prefix(retrieved_);
    for (auto key = takeWord(words); time && !key.empty(); key = takeWord(words)) {
      last = key.size() > Item::keyMax ? badLine : "END\r\n";
      if (key.size() > Item::keyMax) break;
      if (!mayAnswer()) return false;
      Item* const item = cache_.find(key);
      ++server_.total.gets;
      if (item != nullptr) {
        ++server_.total.hits;
        if (touching) item->expires = expiry(*time);
        sendItem(*item, name.back() == 's');
      }
      retrieved_ = size - words.size();
    }
    retrieved_ = 0;
    client_.send(last);
    return true;
  }

  std::size_t takeStore(CommandLine const& line, std::size_t taken, std::string_view behind) {
    auto const size = numberIn<std::uint32_t>(line.words[4]);
    if (!size) return answer(line, badLine, taken);
    if (*size > Item::valueMax) {
      if (line.words[0] == "set") cache_.erase(line.words[1]);  // rather none than an old one
      skip_ = std::size_t{*size} + 2;
      return answer(line, tooLarge, taken);
    }
    std::size_t const end = behind.find('\n', *size);
    if (end == behind.npos) return 0;
    bool const good = behind.substr(*size, end - *size) == "\r";
    return answer(line, good ? store(line, behind.substr(0, *size)) : badData, taken + end + 1);
  }

  std::size_t answer(CommandLine const& line, std::string_view text, std::size_t taken) {
    if (!line.quiet) client_.send(text);
    return taken;
  }

  void sendItem(Item const& item, bool withVersion) {
    std::array<char, 64> text;
    auto* end = fmt::format_to(text.data(), FMT_COMPILE(" {} {}"), item.flags, item.valueSize);
    if (withVersion) end = fmt::format_to(end, FMT_COMPILE(" {}"), item.version);
    std::string_view const figures(text.data(), static_cast<std::size_t>(end - text.data()));
    client_.send({"VALUE ", item.key(), figures, "\r\n", item.valueAndLineEnd()});
  }

  // These return the answer.

  std::string_view store(CommandLine const& line, std::string_view value) {
    auto const [name, key] = std::pair(line.words[0], line.words[1]);
    auto const flags = numberIn<std::uint32_t>(line.words[2]);
    auto const time = numberIn<std::int64_t>(line.words[3]);
    auto const version = name == "cas" ? numberIn<std::uint64_t>(line.words[5]) : 0;
    if (!flags || !time || !version || key.size() > Item::keyMax) return badLine;
    ++server_.total.sets;
    Item const* const old = name == "set" ? nullptr : cache_.find(key);
    if (name == "cas" && old == nullptr) return notFound;
    if (name == "cas" && old->version != *version) return "EXISTS\r\n";
    if (name == "add" ? old != nullptr : name != "set" && old == nullptr) return "NOT_STORED\r\n";
    bool const joins = name == "append" || name == "prepend";
    std::string_view more = joins ? old->value() : "";
    if (name == "append") std::swap(value, more);
    if (value.size() + more.size() > Item::valueMax) return tooLarge;
    double const expires = joins ? old->expires : expiry(*time);
    bool const stored = cache_.store(key, joins ? old->flags : *flags, expires, value, more);
    return stored ? "STORED\r\n" : outOfMemory;
  }

  std::string_view run(CommandLine const& line) {
    auto const [name, key] = std::pair(line.words[0], line.words[1]);
    if (key.size() > Item::keyMax) return badLine;
    if (line.is("incr", 3) || line.is("decr", 3)) return count(key, line.words[2], name == "incr");
    if (line.is("touch", 3)) return touch(key, line.words[2]);
    bool const deletes = line.is("delete", 2) || (line.is("delete", 3) && line.words[2] == "0");
    if (deletes) return cache_.erase(key) ? "DELETED\r\n" : notFound;
    bool const flushes = line.is("flush_all", 1) || line.is("flush_all", 2);
    if (flushes) return flush(line.count == 1 ? "0" : key);
    if (line.is("verbosity", 2) || (line.is("verbosity", 1) && line.quiet)) return "OK\r\n";
    if (line.is("stats", 2) && key == "reset") return server_.resetStatistics(), "RESET\r\n";
    bool const alone = line.count == 1 && !line.quiet;
    if (alone && name == "quit") {
      client_.close();
      skip_ = std::numeric_limits<std::size_t>::max();  // nothing behind it is looked at
    } else if (alone && name == "stats") {
      client_.send(server_.statistics());
    } else {
      client_.send(alone && name == "version" ? "VERSION " CACHED_VERSION "\r\n" : "ERROR\r\n");
    }
    return {};
  }

  std::string_view count(std::string_view key, std::string_view byWord, bool up) {
    auto const by = numberIn<std::uint64_t>(byWord);
    if (!by) return "CLIENT_ERROR invalid numeric delta argument\r\n";
    Item const* const item = cache_.find(key);
    if (item == nullptr) return notFound;
    auto const old = numberIn<std::uint64_t>(item->value());
    if (!old) return "CLIENT_ERROR cannot increment or decrement non-numeric value\r\n";
    text_ = std::to_string(up ? *old + *by : *old - std::min(*old, *by));
    if (!cache_.store(key, item->flags, item->expires, text_)) return outOfMemory;
    return text_ += "\r\n";
  }

  std::string_view touch(std::string_view key, std::string_view timeWord) {
    auto const time = numberIn<std::int64_t>(timeWord);
    if (!time) return badTime;
    Item* const item = cache_.find(key);
    if (item == nullptr) return notFound;
    item->expires = expiry(*time);
    return "TOUCHED\r\n";
  }

  std::string_view flush(std::string_view delayWord) {
    auto const delay = numberIn<std::int64_t>(delayWord);
    if (!delay) return badTime;
    cache_.flushAt(*delay > 0 ? expiry(*delay) : cache_.time());
    return "OK\r\n";
  }

  /// Up to 30 days are seconds from now, more are a time, and 0 is never.
  double expiry(std::int64_t time) const {
    if (time <= 0) return time < 0 ? 0 : std::numeric_limits<double>::infinity();
    return static_cast<double>(time) + (time > 30 * 24 * 3600 ? 0 : cache_.time());
  }

  Server& server_;
  Cache& cache_ = server_.cache;
  BreloDaemon::Stream& client_;
  std::uint64_t enough_ = 0;   // bytes sent, after which others get their turn
  std::size_t skip_ = 0;       // bytes of a value that is too large
  std::size_t retrieved_ = 0;  // how far the keys of a line have been answered
  std::string text_;           // of an answer
};

}  // namespace

void Server::serve(BreloDaemon::Stream& client) {
  client.receive([session = std::make_shared<Session>(*this, client)](std::string_view bytes) {
    return session->received(bytes);
  });
}

}  // namespace Cached
