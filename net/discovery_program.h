// discovery_program.h: for which link the discovery program runs, so that a late word of an ended one silences nobody.
// Lock     one of its own, inside: held while the program is started, so that of a start and a stop the one that was
//          asked for later also happens later. The role lock is taken under it for a moment; never call from under
//          that.
// Threads  any.
#pragma once
#include <cstdint>

// Runs the program as server or as client for this link; not when the link has ended.
void StartDiscovery(bool bServer, uint32_t dwLink);
// Runs it with "stop", for a link that ends or needs it no more; not when it runs for another link by now.
void StopDiscovery(uint32_t dwLink);
