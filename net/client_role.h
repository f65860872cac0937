// client_role.h: one attempt: connecting, and proving the password.
#pragma once
#include "net/network_link.h"
#include <cstdint>

extern char g_szServerIP[20]; // the address in use; connecting thread

constexpr int32_t CLIENT_NO_SERVER_FOUND = 1111;
constexpr int32_t CLIENT_CANCELLED       = 9999;
constexpr int32_t CLIENT_WRONG_PASSWORD  = -6;

// A start that has taken the role, see role_start.h.
struct ClientStart {
    uint32_t dwStart;
    uint32_t dwLink;
};
// Takes the role, over a former link of it. 0 with *pStart filled, -201, or 9999 when the start is not wanted any more.
int32_t TakeClientRole(uint32_t dwStart, ClientStart *pStart);
// True when the start is to do no more.
bool IsClientStopped(const ClientStart *pStart);

// One attempt. Each text may be empty: the value of the last session then counts. The codes of ClientInitEnum
// (client_discovery.h) without 1111. Leaves the role set on failure; ClientInitEnum ends it.
int32_t ClientInit(const char *pszAddress, const char *pszPassword, const char *pszPort);
int32_t ClientInitStart(const ClientStart *pStart, const char *pszAddress, const char *pszPassword,
                        const char *pszPort);
