// client_discovery.h: finding servers, and trying each.
#pragma once
#include <cstdint>

// Looks for servers for about 16 seconds (2 with an empty password), tries each one found, then the one of the last
// session. Worker thread of session control; a second call waits up to 10 seconds for the first to end.
//    0 connected   -201 server role active   -300 exit event or listener not made   -1/-2/-3 address, socket, connect
//   -4/-5 password, answer   -6 wrong password   1111 no server found   9999 cancelled
//   A failure is that of the search; how the last server answered is only in the log.
int32_t ClientInitEnum(const char *pszPassword);
// The same for a start that has its number already (role_start.h): once it is not wanted any more it gives 9999 and
// touches nothing. Tells the number of its link, for callers that must not touch a link that came later.
//   pdwLink  valid with 0
int32_t ClientInitEnumStart(const char *pszPassword, uint32_t dwStart, uint32_t *pdwLink);
