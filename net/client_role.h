// client_role.h: finding servers, connecting, proving the password, and the end of the role.
#pragma once
#include "net/network_link.h"
#include <cstdint>

extern std::atomic<uint8_t>          g_bClientEnuming;   // 1 while ClientInitEnum runs
extern std::atomic<uint8_t>          g_bStopClientEnum;  // set by ClientUninit; every wait and attempt tests it
// As g_hServerExitEvent, "Global\VORN Pendrel Client Socket Exit Event".
extern std::atomic<platform::HANDLE> g_hClientExitEvent;
extern char                          g_szServerIP[20];      // the address in use; connecting thread
extern char                          g_szLocalIP[16];       // the wireless adapter's address; enumerating thread
extern char                          g_szLocalIPPrefix[16]; // its first number as text; enumerating thread

constexpr int32_t CLIENT_NO_SERVER_FOUND = 1111;
constexpr int32_t CLIENT_CANCELLED       = 9999;
constexpr int32_t CLIENT_WRONG_PASSWORD  = -6;

// Looks for servers for about 16 seconds (2 with an empty password), tries each one found, then the one of the last
// session. Worker thread of session control; a second call waits up to 10 seconds for the first to end.
//    0 connected   -201 server role active   -300 exit event or listener not made   -1/-2/-3 address, socket, connect
//   -4/-5 password, answer   -6 wrong password   1111 no server found   9999 cancelled
//   A failure is that of the search; how the last server answered is only in the log.
int32_t ClientInitEnum(const char *pszPassword);
// One attempt. Each text may be empty: the value of the last session then counts. The codes above without 1111. Leaves
// the role set on failure; ClientInitEnum ends it.
int32_t ClientInit(const char *pszAddress, const char *pszPassword, const char *pszPort);
// Ends the role or cancels a running enumeration; may be repeated, any thread.
void ClientUninit();
// The same for callers that must not touch a link that came later (see ServerInitLink; 9999 for a role not wanted).
int32_t ClientInitEnumLink(const char *pszPassword, const std::atomic<uint32_t> *pbWanted, uint32_t *pdwGeneration);
void    ClientUninitLink(uint32_t dwGeneration);
// pdwGeneration: valid with result 0.
int32_t ClientInitLink(const char *pszAddress, const char *pszPassword, const char *pszPort, uint32_t *pdwGeneration);

// Fills g_szLocalIP and g_szLocalIPPrefix from the wireless adapter. 0, or 1 when the wireless service is not there.
int32_t GetDhcpServerIPAddr();
// True when an Ethernet adapter with a connector is up.
bool GetCurrentIPFromEthernetAdapter();
