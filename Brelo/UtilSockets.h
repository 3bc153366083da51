#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"

/// Sockets in the default network namespace, and abstract Unix sockets.
///
/// Descriptors belong to the caller and are not closed on exec by themselves. Any thread may call.
/// A failed call leaves no descriptor behind.

namespace Brelo::Util {

/// A socket of the default network namespace, wherever the calling thread is; if it may not go
/// there, one of the namespace that it is in. Negative with `errno` set if there is no socket.
///
/// The namespace to come back to is that of the process's leading thread: a thread that entered
/// another one on its own is taken out of it. Not coming back raises `RuntimeException`: the
/// thread is then in the wrong namespace.
BRELO_EXPORT int socket(Platform::DebugHandler& handler, int domain, int type, int protocol);

/// Fills the `sockaddr_un` at `address` with an abstract name, cut at a null character and at 107
/// characters, and returns the length that `bind` and `connect` take.
BRELO_EXPORT socklen_t createSockaddr(Platform::DebugHandler& handler, void* address,
                                      std::string const& name);

/// A SOCK_SEQPACKET socket bound to an abstract name; it does not listen yet. A failed bind raises
/// `RuntimeException`, any other failure is an assertion.
BRELO_EXPORT int createAndBindSocket(Platform::DebugHandler& handler, std::string const& name);

/// Asks for a send buffer of `size` bytes, which the kernel doubles and limits. Returns 0; a
/// negative descriptor, a size below 1 and a failure are assertions.
BRELO_EXPORT int setSocketSendBufferSize(int sd, int size);

/// The largest send buffer that may be asked for, 8 MiB where the system does not tell. Read once
/// and kept. A limit that is not a number is an assertion.
BRELO_EXPORT std::uint32_t SYSTEM_MAX_SEND_BUFFER_SIZE();

}  // namespace Brelo::Util
