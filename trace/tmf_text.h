// tmf_text.h: the message table as a trace message format (TMF) file, with which a reader of event traces on Windows
// shows the program's messages.
#pragma once
#include <cstddef>

// The whole file's text, ASCII, lines ended by CR LF.
//   pszBuffer  cb bytes, terminated also when the text was cut
//   result     bytes without the terminator; 0 when cb is too small (TMF_TEXT_BYTES always suffices)
size_t FormatTmfText(char *pszBuffer, size_t cb);

constexpr size_t TMF_TEXT_BYTES = 16384;
