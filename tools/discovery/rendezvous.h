// rendezvous.h: machines of tests and containers meet in a folder instead of on the network: the variable
// VORN_RENDEZVOUS names it. A server puts a file ADDRESS_PORT there and takes it away when it ends; a client lists
// them. All machines of one folder are on this host, at 127.0.0.1.
#pragma once
#include "platform/types.h"
#include <string>

// "" when the network is to be used.
std::string RendezvousFolder();
// Both run until they are stopped; the program's exit code.
int RunRendezvousServer(const std::string &sFolder, const char *pszConfig, platform::HANDLE hStop);
int RunRendezvousClient(const std::string &sFolder, const char *pszConfig, platform::HANDLE hStop);
