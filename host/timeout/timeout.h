#pragma once

#include <stdbool.h>
#include <stdint.h>

/// A hierarchical timing wheel of 2^64 ticks: timers enter and leave in constant time at any
/// distance and come out at exactly their tick.
///
/// The wheel is passive. It reads no clock: its current tick starts at 0 and only `timeouts_update`
/// moves it, so what a tick is, and since when it counts, is up to the client. It calls nothing
/// back and allocates only in `timeouts_open`. Nothing is locked: a wheel and the timers on it
/// belong to one thread at a time.
///
/// A timer is a `struct timeout` inside an object of the client. It must stay where it is in memory
/// while it is on a wheel, waiting or expired, and can be on one wheel only.

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t timeout_t;

/// In `flags`: ticks given to `timeouts_add` are absolute. All other bits are the client's, never
/// read nor changed.
#define TIMEOUT_ABS 0x02

struct timeout;
struct timeouts;

/// The shape of a tail queue of <sys/queue.h>.
struct timeout_list {
  struct timeout* tqh_first;  ///< null in an empty list
  struct timeout** tqh_last;  ///< where the next one is to be linked in
};

/// Between `timeouts_get` and the next `timeouts_add`, `pending` and `tqe` are free for a list of
/// the client's own. `pending` has to be null again before the timer is given to a wheel.
struct timeout {
  int flags;                     ///< `TIMEOUT_ABS` and the client's own
  timeout_t expires;             ///< absolute tick, valid once added
  struct timeout_list* pending;  ///< the list the timer is in; null while in none
  struct {
    struct timeout* tqe_next;   ///< null at the end
    struct timeout** tqe_prev;  ///< what points here
  } tqe;                        ///< the place in the list
};

/// Makes a timer that is on no wheel, whatever the memory held. Returns its argument.
struct timeout* timeout_init(struct timeout* timer, int flags);

/// An empty wheel, or null with `*error` set to an errno value; `*error` is 0 on success. `hz`, the
/// client's ticks per second, changes nothing: the wheel only counts.
struct timeouts* timeouts_open(timeout_t hz, int* error);

/// Takes off every timer, `pending` null, and frees the wheel. Null is allowed.
void timeouts_close(struct timeouts* wheel);

/// Goes to the absolute tick `now` and moves every timer that `expires` at or before it to the
/// expired set. A tick that is not later than the current one changes nothing. Time taken grows
/// with the timers moved, not with the distance.
void timeouts_update(struct timeouts* wheel, timeout_t now);

/// Enters a timer, at `expires` itself with `TIMEOUT_ABS`, else that many ticks after the current
/// one, where a sum beyond the last tick is the last tick. A tick not later than the current one
/// has expired at once. A timer already on this wheel is moved.
void timeouts_add(struct timeouts* wheel, struct timeout* timer, timeout_t expires);

/// Takes a timer off, waiting or expired. One whose `pending` is null is left alone.
void timeouts_del(struct timeouts* wheel, struct timeout* timer);

/// Takes off the timer longest in the expired set, its `pending` null; null if there is none.
/// Timers of the same tick come in the order they were added, timers of two updates in the order of
/// the updates; different ticks that one update has passed come in no particular order.
struct timeout* timeouts_get(struct timeouts* wheel);

/// Whether `timeouts_get` has something to give.
bool timeouts_expired(struct timeouts const* wheel);

/// Whether a timer waits for its tick; expired ones do not count.
bool timeouts_pending(struct timeouts const* wheel);

/// Calls `visit` with each timer that waits or has expired, in no order. It may not touch the
/// wheel.
void timeouts_each(struct timeouts const* wheel,
                   void (*visit)(struct timeout const* timer, void* argument), void* argument);

/// Ticks from the current one to the next update worth making: never later than the first timer,
/// perhaps earlier if it is far. 0 if something has expired, else at least 1; the largest value if
/// nothing waits.
timeout_t timeouts_timeout(struct timeouts* wheel);

#ifdef __cplusplus
}
#endif
