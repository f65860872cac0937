// bind.h: system functions that this backend binds at run time: the agent's import table names neither shell32 nor
// user32, and some functions or libraries do not exist on every system.
#pragma once
#include "platform/windows/sdk.h"
#include <initializer_list>

namespace platform {

// The first of the libraries (looked for in the system folder only) that has the function; null when none has. The
// library stays loaded. Leaves the error of the last attempt as the last error when null.
template <class Procedure>
Procedure BindSystemFunction(std::initializer_list<const wchar_t *> libraries, const char *pszName)
{
    for (const wchar_t *pszLibrary : libraries) {
        const ::HMODULE hLibrary = ::LoadLibraryExW(pszLibrary, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
        if (hLibrary == nullptr) continue;
        if (const auto pFunction = ::GetProcAddress(hLibrary, pszName))
            return reinterpret_cast<Procedure>(reinterpret_cast<void *>(pFunction));
        ::FreeLibrary(hLibrary);
    }
    return nullptr;
}

} // namespace platform
