// settings.h: where "Socket.dat" and the discovery program are, how the latter is run, and the debug setting.
// Socket.dat   an INI file that only the ANSI profile functions touch; the discovery program and the agents of other
//              sessions write it too, so it is created with an access list for Everyone.
//              [Init] Init=            written once, when the file is created
//              [ServerMDNS] Port=      the port to announce
//              [ServerEnum] Count=, 1=, 1_port=, ...    what the discovery program found
//              [LastServer] Port=, PW=                  of the last session that passed the password check
//              [LastClient] ServerIP=, Port=, PW=       of the last server that admitted this machine
//              [Debug] SocketDebug=1   set by hand
//              [Link] SendWindow=      set by hand: link_window.h
// Threads      any.
#pragma once
#include "platform/types.h"
#include <cstdint>

extern char g_szConfigPath[260]; // full ANSI path of "Socket.dat"; recomputed by each GetConfigPath with the same value
extern char g_szmDNSPath[260];   // full ANSI path of the discovery program

// Field sizes of "Socket.dat" with their terminators: longer values are cut by the profile functions.
constexpr uint32_t ADDRESS_BYTES  = 20;
constexpr uint32_t PORT_BYTES     = 10;
constexpr uint32_t PASSWORD_BYTES = 10;

// Sections and keys.
constexpr char SECTION_SERVER_MDNS[] = "ServerMDNS";
constexpr char SECTION_SERVER_ENUM[] = "ServerEnum";
constexpr char SECTION_LAST_SERVER[] = "LastServer";
constexpr char SECTION_LAST_CLIENT[] = "LastClient";
constexpr char KEY_PORT[]            = "Port";
constexpr char KEY_PASSWORD[]        = "PW";
constexpr char KEY_SERVER_IP[]       = "ServerIP";
constexpr char KEY_COUNT[]           = "Count";

// Computes both paths, and creates the folder and the file when they are missing, the file also when it is far too
// large to be one. Failures are logged at most: without
// the file the profile functions make one with default security at their first write.
void GetConfigPath();
// Runs the discovery program hidden, without waiting: a "stop" only asks. 1 when it was started, else 0.
//   pszParameters  "stop", or one of the two texts below
int32_t RunDiscoveryHelper(const char *pszParameters);
int32_t RunDiscoveryServer(); // RunDiscoveryHelper with server "g_szConfigPath"
int32_t RunDiscoveryClient(); // RunDiscoveryHelper with client "g_szConfigPath"
// True when the registry value was found; sets g_bSocketDebug (trace/debug_output.h). The setting in Socket.dat counts
// only while the registry value exists, whatever it holds.
bool SocketDebugInit();
// Creates (always anew) an empty file that every user may change. 1, or 0 (GetLastError).
int32_t CreateSharedFile(const char16_t *pszPath);

// One value of Socket.dat, "" when it is not there.
void ReadSetting(const char *pszSection, const char *pszKey, char *pszValue, uint32_t cb);
void WriteSetting(const char *pszSection, const char *pszKey, const char *pszValue);
