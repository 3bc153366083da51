#pragma once

/// Marks what `libZelBrelo` exports. Everything else stays inside it: the library is built with
/// hidden visibility.
#define BRELO_EXPORT __attribute__((visibility("default")))
