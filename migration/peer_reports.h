// peer_reports.h: the agent's own records for the peer's service.
#pragma once
#include <cstdint>

// To the peer's service through SendNetworkCommand; their results are its results.
//   pszPath  null, or at most 259 units
int32_t SendPeerCommand(uint32_t dwCommand, uint32_t dwArgument, const char16_t *pszPath);
int32_t SendFailItems(uint32_t dwArgument1, uint32_t dwArgument2, const char16_t *pszText); // text: at most 779 units
