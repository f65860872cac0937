// receive_file_command.h: the receiver's side of "SendFile".
#pragma once
#include "platform/sockets.h"
#include <cstdint>

// Listener. 0; -2/-4/-6/-7 path, type, attributes, flag not received; -8 RecvFile failed; -100 unknown type.
int32_t SendFileCMDHandler(platform::SOCKET hSocket);
// Listener, at its end: what was kept open or in mind for the link's files.
void EndReceivingFiles();
