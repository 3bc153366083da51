#pragma once

#include <array>
#include <cstddef>
#include <new>
#include <utility>

namespace BreloDaemon {

/// The buffers that the streams of a thread share, so that a stream at rest has none: there are
/// some from the first use until the last stream of the thread ends.
class ThreadBuffers {
 public:
  static constexpr std::size_t size = 64 << 10;

  enum Use { receiving, gathering };

  /// A stream of the thread.
  class User {
   public:
    User() { ++ofThread_.users; }
    User(User const&) = delete;
    User& operator=(User const&) = delete;
    ~User() {
      if (--ofThread_.users > 0) return;
      for (char*& spare : ofThread_.spares)
        delete[] std::exchange(spare, nullptr);
    }
  };

  /// One of the buffers, lent for the length of a run. Whoever comes while it is out, from a loop
  /// inside of a callback, gets a new one.
  class Loan {
   public:
    explicit Loan(Use use) : spare_(ofThread_.spares[use]) {}
    Loan(Loan const&) = delete;
    Loan& operator=(Loan const&) = delete;
    ~Loan() {
      if (buffer_ != nullptr) delete[] std::exchange(spare_, buffer_);
    }

    /// Null where there is no memory.
    char* get() {
      if (buffer_ == nullptr) buffer_ = std::exchange(spare_, nullptr);
      if (buffer_ == nullptr) buffer_ = new (std::nothrow) char[size];
      return buffer_;
    }

   private:
    char*& spare_;
    char* buffer_ = nullptr;
  };

 private:
  // Without a destructor, for which a thread would have to find memory.
  struct OfThread {
    std::size_t users;
    std::array<char*, 2> spares;
  };
  static inline thread_local OfThread ofThread_{};
};

}  // namespace BreloDaemon
