#pragma once

/// The pieces of code in the pages for who comes from another event library: the same program on
/// that library and on this one, and both in one process.
void fromLibevent();
void fromLibuv();
void fromAsio();
