#pragma once

/// Marks what `libzel` exports; it is built with hidden visibility.
#define ZEL_EXPORT __attribute__((visibility("default")))
