// file_stream.cpp: what both directions of the file stream share.
#include "transfer/file_stream.h"

std::atomic<uint64_t> g_hSendExecution{0};
std::atomic<int64_t>  g_nRecvFileWritten{0};
