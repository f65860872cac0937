// session_start.h: one session's start: the role, then the exchange of machine info.
#pragma once
#include "net/session_state.h"
#include <cstdint>

// 0 connected and machine info exchanged; -6 wrong PIN; 9999 cancelled; others failed (-1: connected, but the exchange
// of machine info failed, and the role was torn down again). Blocks until a peer is there; session threads.
//   bConnect     0 only ends the role if it was started, and gives 0
//   pszPeerName  cchPeerName UTF-16 units, or null and 0
int32_t SetNetworkServerClient(SessionRecord *pSession, int32_t bConnect, int32_t bServer, const char *pszPin,
                               char16_t *pszPeerName, uint32_t cchPeerName);
// The same for a start that has its number already (role_start.h).
int32_t StartSession(uint32_t dwStart, SessionRecord *pSession, bool bServer, const char *pszPin, char16_t *pszPeerName,
                     uint32_t cchPeerName);
