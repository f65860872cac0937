// settings_file.h: what the discovery program reads from and writes to the agent's settings file (Socket.dat).
#pragma once
#include "tools/discovery/browser.h"
#include <string>
#include <vector>

// The port of [ServerMDNS], in host order; 0 when it is missing or none.
uint16_t ReadServerPort(const char *pszFile);
// What the agent noted at the last admission of a peer, as one text: another text is a later admission.
std::string ReadLastAdmission(const char *pszFile);
// True while the agent listens at the port, or still has a link of it. Asked without connecting: a connection that says
// nothing would keep the server from its peer. Winsock must be started.
bool IsPortTaken(uint16_t nPort);
// Brings [ServerEnum] to the list. A list that is there already is not written; another one is changed so that a reader
// finds whole entries only: what it counts is complete. pnRoundsAmiss (1 at first) is the caller's: a list that is
// amiss in one round may be the agent's own write under way, one that is so in two is new, or was torn.
void KeepServerList(const char *pszFile, const std::vector<FoundServer> &aServers, uint32_t *pnRoundsAmiss);

// The newest program of each kind ("client", "server") writes its number beside the settings file; an older one that
// lingers sees that and ends: two that write the same file at once tear it where the system does not lock profile files
// (Wine), and of two announcements the older one names a port of before.
void MarkNewest(const char *pszFile, const char *pszKind);
bool IsNewest(const char *pszFile, const char *pszKind);
