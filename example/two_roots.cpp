// Two threads, each with an event loop and a scheduler of its own, that talk through mailboxes.
//
//   build/release/example/two_roots
//
// Nothing of one thread's tree may be touched from the other: no task, no control, no snapshot.
// What is posted to a mailbox runs on its thread. Each loop ends by itself when its mailbox has.
#include <cstdio>
#include <future>
#include <optional>
#include <thread>
#include <utility>

#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Thread.h"
#include "BreloDaemon/Mailbox.h"

using BreloDaemon::Mailbox;

/// Answers each number with the next one, up to ten. Belongs to its thread.
class Player {
 public:
  /// How a player is reached from the other thread.
  struct Seat {
    Player* player;
    Mailbox::Sender mailbox;
  };

  explicit Player(char const* name) : name_(name) {
    mailbox_.emplace(Brelo::schedulerRootBrelo(), Brelo::TaskPriority::normal, name);
  }

  Seat seat() { return {this, mailbox_->sender()}; }
  void opponentIs(Seat opponent) { opponent_ = std::move(opponent); }
  void say(int number) {
    std::printf("%s says %d\n", name_, number);
    opponent_.mailbox.post([opponent = opponent_.player, number] { opponent->hear(number); });
    if (number == 10) mailbox_.reset();
  }

 private:
  void hear(int number) { number == 10 ? mailbox_.reset() : say(number + 1); }

  char const* const name_;
  std::optional<Mailbox> mailbox_;
  Seat opponent_{};
};

void play(char const* name, std::promise<Player::Seat> mine, std::future<Player::Seat> others) {
  Brelo::useThreadLocalSingletons();  // first of all: the choice is final
  Brelo::threadNameIs(name);
  Player player(name);
  mine.set_value(player.seat());
  player.opponentIs(others.get());
  if (*name == 'l') player.say(1);
  Brelo::Platform::doEventLoop();
  std::printf("%s has done\n", name);
}

int main() {
  std::promise<Player::Seat> left;
  std::promise<Player::Seat> right;
  auto ofLeft = left.get_future();
  auto ofRight = right.get_future();
  std::thread one(play, "left", std::move(left), std::move(ofRight));
  std::thread two(play, "right", std::move(right), std::move(ofLeft));
  one.join();
  two.join();
}
