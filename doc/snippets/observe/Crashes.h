#pragma once

/// From here on the calling thread's crashes, and exceptions that nobody catches, are told of on
/// standard error with the stack, before they end the process as they would have done.
void tellOfCrashes();
