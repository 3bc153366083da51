#include "timeout.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/queue.h>

// Ticks are numbers of eight digits to the base 256. A timer waits at the level of the highest
// digit in which its tick differs from the current one, in the slot of that digit. As its tick is
// the later one, that digit is the larger one, so nothing ever wraps around: slots, numbered
// through from the lowest level, are in order of time, and all timers of one tick share a slot.
//
// Levels this wide make a wheel 32 KiB. Narrower ones save some of that, but move a timer down more
// often and more timers at once: with a million timers, 6 bits nearly double the cost of updates
// and make the worst ten times as long.
enum {
  LEVEL_BITS = 8,
  LEVELS = 64 / LEVEL_BITS,
  LEVEL_SLOTS = 1 << LEVEL_BITS,
  SLOTS = LEVELS * LEVEL_SLOTS,
  WORD_BITS = 64,
  WORDS = SLOTS / WORD_BITS,
};

struct timeouts {
  struct timeout_list slots[SLOTS];
  uint64_t occupied[WORDS];  // one bit for every slot
  timeout_t now;
  struct timeout_list expired;
};

// Where `expires` belongs, seen from the earlier tick `now`.
static unsigned slot_of(timeout_t expires, timeout_t now) {
  unsigned const highest_bit = 63U - (unsigned)__builtin_clzll(expires ^ now);
  unsigned const level = highest_bit / LEVEL_BITS;
  unsigned const digit = (unsigned)(expires >> level * LEVEL_BITS) % LEVEL_SLOTS;
  return level * LEVEL_SLOTS + digit;
}

// The first tick of a slot.
static timeout_t slot_start(unsigned slot, timeout_t now) {
  unsigned const shift = slot / LEVEL_SLOTS * LEVEL_BITS;
  timeout_t const higher_digits = now >> shift & ~(timeout_t)(LEVEL_SLOTS - 1);
  return (higher_digits | slot % LEVEL_SLOTS) << shift;
}

static void link_timer(struct timeouts* wheel, struct timeout* timer) {
  struct timeout_list* list = &wheel->expired;
  if (timer->expires > wheel->now) {
    unsigned const slot = slot_of(timer->expires, wheel->now);
    wheel->occupied[slot / WORD_BITS] |= UINT64_C(1) << slot % WORD_BITS;
    list = &wheel->slots[slot];
  }
  timer->pending = list;
  TAILQ_INSERT_TAIL(list, timer, tqe);
}

// Every timer of the slot expires or goes to a lower level.
static void relink_slot(struct timeouts* wheel, struct timeout_list* slot) {
  struct timeout* timer = TAILQ_FIRST(slot);
  TAILQ_INIT(slot);
  while (timer != NULL) {
    struct timeout* const next = TAILQ_NEXT(timer, tqe);
    link_timer(wheel, timer);
    timer = next;
  }
}

struct timeout* timeout_init(struct timeout* timer, int flags) {
  *timer = (struct timeout){.flags = flags};
  return timer;
}

struct timeouts* timeouts_open(timeout_t hz, int* error) {
  (void)hz;
  struct timeouts* const wheel = calloc(1, sizeof *wheel);
  if (wheel == NULL) {
    *error = errno;
    return NULL;
  }
  for (unsigned slot = 0; slot < SLOTS; ++slot)
    TAILQ_INIT(&wheel->slots[slot]);
  TAILQ_INIT(&wheel->expired);
  *error = 0;
  return wheel;
}

void timeouts_close(struct timeouts* wheel) {
  if (wheel == NULL) return;
  timeouts_update(wheel, UINT64_MAX);
  while (timeouts_get(wheel) != NULL) {
  }
  free(wheel);
}

void timeouts_update(struct timeouts* wheel, timeout_t now) {
  if (now <= wheel->now) return;
  // A timer of tick `now` would wait in the slot `last`: the slots before it are due as a whole,
  // the slots behind it stay valid, and what it holds itself is spread over the levels below, just
  // emptied.
  unsigned const last = slot_of(now, wheel->now);
  wheel->now = now;
  for (unsigned word = 0; word <= last / WORD_BITS; ++word) {
    uint64_t passed = wheel->occupied[word];
    if (word == last / WORD_BITS) passed &= UINT64_MAX >> (WORD_BITS - 1 - last % WORD_BITS);
    wheel->occupied[word] &= ~passed;
    for (; passed != 0; passed &= passed - 1) {
      unsigned const slot = word * WORD_BITS + (unsigned)__builtin_ctzll(passed);
      relink_slot(wheel, &wheel->slots[slot]);
    }
  }
}

void timeouts_add(struct timeouts* wheel, struct timeout* timer, timeout_t expires) {
  timeouts_del(wheel, timer);
  if ((timer->flags & TIMEOUT_ABS) == 0) {
    timeout_t const left = UINT64_MAX - wheel->now;
    expires = wheel->now + (expires < left ? expires : left);
  }
  timer->expires = expires;
  link_timer(wheel, timer);
}

void timeouts_del(struct timeouts* wheel, struct timeout* timer) {
  struct timeout_list* const list = timer->pending;
  if (list == NULL) return;
  bool const is_tail = TAILQ_NEXT(timer, tqe) == NULL;
  TAILQ_REMOVE(list, timer, tqe);
  timer->pending = NULL;
  // Only the tail's removal touches the head of the list, and only that can empty it.
  if (is_tail && TAILQ_EMPTY(list) && list != &wheel->expired) {
    unsigned const slot = (unsigned)(list - wheel->slots);
    wheel->occupied[slot / WORD_BITS] &= ~(UINT64_C(1) << slot % WORD_BITS);
  }
}

struct timeout* timeouts_get(struct timeouts* wheel) {
  struct timeout* const timer = TAILQ_FIRST(&wheel->expired);
  if (timer != NULL) timeouts_del(wheel, timer);
  return timer;
}

static void visit_list(struct timeout_list const* list, void (*visit)(struct timeout const*, void*),
                       void* argument) {
  struct timeout const* timer;
  TAILQ_FOREACH(timer, list, tqe) visit(timer, argument);
}

void timeouts_each(struct timeouts const* wheel, void (*visit)(struct timeout const*, void*),
                   void* argument) {
  visit_list(&wheel->expired, visit, argument);
  for (unsigned slot = 0; slot < SLOTS; ++slot)
    visit_list(&wheel->slots[slot], visit, argument);
}

bool timeouts_expired(struct timeouts const* wheel) {
  return !TAILQ_EMPTY(&wheel->expired);
}

bool timeouts_pending(struct timeouts const* wheel) {
  for (unsigned word = 0; word < WORDS; ++word) {
    if (wheel->occupied[word] != 0) return true;
  }
  return false;
}

timeout_t timeouts_timeout(struct timeouts* wheel) {
  if (timeouts_expired(wheel)) return 0;
  for (unsigned word = 0; word < WORDS; ++word) {
    uint64_t const bits = wheel->occupied[word];
    if (bits == 0) continue;
    unsigned const slot = word * WORD_BITS + (unsigned)__builtin_ctzll(bits);
    return slot_start(slot, wheel->now) - wheel->now;
  }
  return UINT64_MAX;
}
