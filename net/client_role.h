// client_role.h: one attempt: connecting, and proving the password.
#pragma once
#include "net/network_link.h"
#include <cstdint>

extern char g_szServerIP[20]; // the address in use; connecting thread

constexpr int32_t CLIENT_NO_SERVER_FOUND = 1111;
constexpr int32_t CLIENT_CANCELLED       = 9999;
constexpr int32_t CLIENT_WRONG_PASSWORD  = -6;

// One attempt. Each text may be empty: the value of the last session then counts. The codes of
// ClientInitEnum (client_discovery.h) without 1111. Leaves
// the role set on failure; ClientInitEnum ends it.
int32_t ClientInit(const char *pszAddress, const char *pszPassword, const char *pszPort);
// pdwGeneration: valid with result 0.
int32_t ClientInitLink(const char *pszAddress, const char *pszPassword, const char *pszPort, uint32_t *pdwGeneration);
