#pragma once

/// The pieces of code in the pages of the daemon kit that no example contains.
void daemonFrame();
void functions();
void streams();
void listeners();
void connectors();
void postsFromThreads();
void blockingWork();
void signalsAsRuns();
void childPrograms();
void serviceManager();
