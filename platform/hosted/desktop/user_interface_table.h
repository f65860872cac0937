// user_interface_table.h: the functions that a hosted machine's libraries export, for GetProcAddress (modules.cpp).
#pragma once
#include "platform/types.h"
#include <span>

namespace hosted {

struct NamedProcedure {
    const char       *pszName;
    platform::FARPROC pProcedure;
};
std::span<const NamedProcedure> User32Procedures();   // user32.dll (window_lifetime.cpp and its neighbours)
std::span<const NamedProcedure> Wtsapi32Procedures(); // Wtsapi32.dll
std::span<const NamedProcedure> Shell32Procedures();  // shell32.dll: SHFileOperationW, ShellExecuteA (beside shell.cpp)

} // namespace hosted
