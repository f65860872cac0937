// client_discovery.h: finding servers, and trying each.
#pragma once
#include <atomic>
#include <cstdint>

// Looks for servers for about 16 seconds (2 with an empty password), tries each one found, then the one of the last
// session. Worker thread of session control; a second call waits up to 10 seconds for the first to end.
//    0 connected   -201 server role active   -300 exit event or listener not made   -1/-2/-3 address, socket, connect
//   -4/-5 password, answer   -6 wrong password   1111 no server found   9999 cancelled
//   A failure is that of the search; how the last server answered is only in the log.
int32_t ClientInitEnum(const char *pszPassword);
// The same for callers that must not touch a link that came later (see ServerInitLink; 9999 for a role not wanted).
int32_t ClientInitEnumLink(const char *pszPassword, const std::atomic<uint32_t> *pbWanted, uint32_t *pdwGeneration);
