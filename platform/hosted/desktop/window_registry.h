// window_registry.h: the windows of all processes of the machine, in run/windows:
//   00010002.window   what others need to know of it, as text
//   00010002.socket   takes its messages; refuses them once its process has gone
//   atoms             names of registered messages and classes; the line number gives the id
// Threads  any. Each function takes the machine's lock itself.
#pragma once
#include "platform/types.h"
#include <string>
#include <vector>

namespace hosted {

struct WindowRecord {
    uint32_t              nWindow               = 0; // the HWND's value
    uint32_t              nSessionRegistrations = 0;
    std::vector<uint32_t> aAllowed; // messages that processes of lower standing may send
    std::u16string        sClass, sTitle;
};

// A message on its way to another process.
struct WireMessage {
    uint32_t dwMagic;
    uint32_t nWindow;
    uint32_t uMsg;
    uint64_t wParam;
    int64_t  lParam;
};
constexpr uint32_t WIRE_MAGIC = 0x474D5356;

// Gives the record a number, stores it and binds its socket: the descriptor, -1 with the last error set on failure.
int  AddWindow(WindowRecord *pRecord);
bool StoreWindow(const WindowRecord &record); // after a change
void RemoveWindow(uint32_t nWindow);
// False when there is no such window or its process has gone; what that one left is then removed.
bool ReadWindow(uint32_t nWindow, WindowRecord *pRecord);
// Newest first, as new windows come on top of the others.
std::vector<WindowRecord> AllWindows();
// To the window's socket. False when its process has gone.
bool SendToWindow(const WireMessage &message);
// 0xC000..0xFFFF, the same for a name in every process of the machine; 0 with the last error set on failure.
platform::ATOM AtomOf(const std::u16string &sName);

} // namespace hosted
