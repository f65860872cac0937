// made_once.h: critical sections that are made at their first use and never deleted, since threads of a former link or
// of a shut-down may still be about to enter them.
#pragma once
#include "platform/kernel.h"

namespace platform {

// The section, initialised by whichever thread asks first. Any thread.
//   static CRITICAL_SECTION g_csQueue; ... EnterCriticalSection(MadeOnce<&g_csQueue>());
template <CRITICAL_SECTION *pSection> CRITICAL_SECTION *MadeOnce()
{
    static const bool bMade = (InitializeCriticalSection(pSection), true);
    static_cast<void>(bMade);
    return pSection;
}

} // namespace platform
