#pragma once

/// Network namespaces by name.
///
/// A namespace is known by the name that `ip netns add` gave it; `DEFAULT_NS` is the one that
/// process 1 runs in. Everything here concerns the calling thread alone and may be called from any
/// thread. The library keeps no descriptor open and never leaves a thread half-way: a failed call
/// has changed nothing.

#define NETNSAID_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// The name of the default namespace.
NETNSAID_EXPORT extern char const* const DEFAULT_NS;

/// Moves the calling thread into the namespace `name`. `nsType` is CLONE_NEWNET, or 0 for any
/// type; the kernel refuses any other. Returns 0, or -1 with `errno` set and the reason in
/// `netnsGetTracebuffer()`. A thread needs CAP_SYS_ADMIN for it.
NETNSAID_EXPORT int setnsByName(char const* name, int nsType);

/// Why the calling thread's latest failure happened, as text; empty before any. Valid until the
/// thread's next failure.
NETNSAID_EXPORT char const* netnsGetTracebuffer(void);

#ifdef __cplusplus
}
#endif
