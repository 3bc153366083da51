#pragma once

/// The pieces of code in the pages of the observatory that no example contains.
void monitors();
void stalls();
void crashes();
void statsServer();
