// pipe_credits.h: what the server's end of a pipe says to the client's: 32-bit numbers in host order.
#pragma once
#include <cstdint>

namespace hosted {

// The server called DisconnectNamedPipe; any other number is one of bytes that were read.
constexpr uint32_t CREDIT_DISCONNECTED = 0xFFFFFFFF;

// False when there is no room now; the number is then added to the next one.
bool SendCredit(int nFd, uint32_t cbCredit);

} // namespace hosted
