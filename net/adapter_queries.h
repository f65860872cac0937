// adapter_queries.h: which network this machine is on, as far as the fallback of the server search asks.
// Thread   the enumerating one.
#pragma once
#include <cstdint>

extern char g_szLocalIP[16];       // the wireless adapter's address
extern char g_szLocalIPPrefix[16]; // its first number as text

// Fills g_szLocalIP and g_szLocalIPPrefix from the wireless adapter. 0, or 1 when the wireless service is not there.
int32_t GetDhcpServerIPAddr();
// True when an Ethernet adapter with a connector is up.
bool GetCurrentIPFromEthernetAdapter();
