// role_start.h: whose a start, a search, a link is.
// Requests overlap: people cancel and try again, correct a PIN, disconnect and pair anew, and whatever an older request
// still has under way must not undo what a newer one has begun. So each start of a role has a number, given when its
// request is taken and before any thread runs for it (NewRoleStart), and carried by value to all that act for it.
//
//   request taken          role taken               peer admitted         role ended
//   NewRoleStart        -> BeginRole             -> StartServer/Client  -> TakeDownRole, by a disconnect, a broken
//                       link,
//   AnnounceRoleStart      a link number of its     Listener               a failed attempt, or the next BeginRole
//        |                 own, g_dwLinkGeneration      |                        |
//        +-- IsStartWanted: it is the newest start of its role, and nothing asked for later has ended it
//                               +-- IsOwnLink: the link number is still the current one
//
// Before BeginRole a start asks IsStartWanted and gives up when it is not. From then on the link number counts: who
// closes, stops the discovery program, reports or clears a mark asks for it under the role lock, and does nothing when
// it is another's. A start that is tried again keeps its place among the requests; each try has a link number of its
// own, so that what the last try left cannot take the next one's link for its own.
// Lock     the role lock (network_link.h), entered by each function.
// Threads  any.
#pragma once
#include "net/network_link.h"
#include <cstdint>

// The number of a request, higher than that of every request before; never 0. Starts of roles have one, and so have
// requests that end them.
uint32_t NewRoleStart();
// From here on the start is the newest of its role, unless a newer one has been announced: what older ones still try is
// cancelled, what they have reached stands until BeginRole.
void AnnounceRoleStart(bool bServer, uint32_t dwStart);
// NewRoleStart and AnnounceRoleStart.
uint32_t NewRoleStartOf(bool bServer);
bool     IsStartWanted(bool bServer, uint32_t dwStart);
// Ends the newest start of the role, whichever it is.
void EndNewestStart(bool bServer);
// Ends all starts up to this number that have not taken their role: each finds itself not wanted.
void EndStartsUpTo(uint32_t dwLast);

// Takes the role for a start, over whatever an earlier one has left of it: flag and mark of the role, and a link
// number. The caller has looked whether it may, and holds the role lock.
uint32_t BeginRole(bool bServer, uint32_t dwStart);
// [role lock] True when the role is marked as started, by a start up to this number.
bool IsRoleOfStartsUpTo(bool bServer, uint32_t dwLast);
