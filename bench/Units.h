#pragma once

namespace Bench {

class Catalogue;

// Each puts its measurements and its aims into the catalogue.
void addDispatch(Catalogue& catalogue);
void addTimerRestart(Catalogue& catalogue);
void addTimerExpiry(Catalogue& catalogue);
void addLateness(Catalogue& catalogue);
void addDescriptorWake(Catalogue& catalogue);
void addServer(Catalogue& catalogue);
void addStream(Catalogue& catalogue);
void addMailboxPost(Catalogue& catalogue);
void addGroupRun(Catalogue& catalogue);
void addShouldYield(Catalogue& catalogue);
void addReports(Catalogue& catalogue);
void addMonitor(Catalogue& catalogue);
void addThrow(Catalogue& catalogue);
void addHash(Catalogue& catalogue);

}  // namespace Bench
