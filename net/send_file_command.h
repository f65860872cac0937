// send_file_command.h: the sender's side of "SendFile".
#pragma once
#include "platform/sockets.h"
#include <cstdint>

constexpr int32_t SENDCOMMAND_SOURCE_MISSING = -301;
constexpr int32_t SENDCOMMAND_NO_ATTRIBUTES  = -302;

// [held] 0 or the negative result of SendFile; -301 source missing, -302 attributes not readable, -21/-22/-23/-24/-25
// word, path, type, attributes, flag not sent; -3 also when the end of the file stream could not leave.
//   pszDestination  at most 1024 units travel, a longer one is cut
int32_t SendFileCommand(platform::SOCKET hSocket, const char16_t *pszSource, const char16_t *pszDestination,
                        uint32_t dwType, uint8_t bEncrypt);
// The same; of a file that was prepared (transfer/prepared_file.h) and is still the same, nothing is looked up, opened
// and read anew. pPrepared may be null. bMore: what was sent without failure stays held, for the caller to end
// (EndExchange). pbWhole: SendFile's.
struct PreparedFile;
int32_t SendPreparedFileCommand(platform::SOCKET hSocket, const char16_t *pszSource, const char16_t *pszDestination,
                                uint32_t dwType, uint8_t bEncrypt, const PreparedFile *pPrepared, bool bMore,
                                bool *pbWhole);
