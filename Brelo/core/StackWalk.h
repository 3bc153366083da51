#pragma once

/// The walk of the calling thread's stack, by libunwind. Any thread, static destructors,
/// signal handlers and forked children; keeps `errno`.
namespace Brelo::Impl {

/// Writes the addresses at which the calls of the stack go on to `frames`, innermost first: the
/// first is in this function itself, the second in its caller. Returns how many there are, at most
/// `room`. A damaged stack ends the walk early.
[[gnu::noinline]] int walkStack(void** frames, int room);

/// The code at `address` returns from a signal's handler. False where nothing can be read.
bool returnsFromSignal(void const* address);

}  // namespace Brelo::Impl
