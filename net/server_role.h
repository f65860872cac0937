// server_role.h: listening, admitting the peer that sends the right password.
// Handshake  client to server the password, server to client "PWACK=1" or "PWACK=0"; each a field of ten bytes,
//            zero-filled after the text, without length.
#pragma once
#include "net/network_link.h"
#include <cstdint>

// Blocks until a peer is admitted (0) or a failure ends it. Worker thread of session control.
//   pszPassword  may be empty: the one of the last session then counts
//    0 admitted   -201 client role active   -300 exit event or listener not made   -1 no local address   -2 socket
//   -3 bind   -4 listen   -5 password not received   -6 acknowledgement not sent   -1000 exit event in the handshake
//   -1001 accept failed, which is how ServerUninit cancels a waiting server
int32_t ServerInit(const char *pszPassword);

// The same for a start that has its number already (role_start.h; -1001 also when it is not wanted any more), and tells
// the number of its link, for callers that must not touch a link that came later.
//   pdwLink  valid with 0
int32_t ServerInitStart(const char *pszPassword, uint32_t dwStart, uint32_t *pdwLink);

constexpr int32_t SERVER_CANCELLED = -1001;
