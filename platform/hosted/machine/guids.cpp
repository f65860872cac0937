// guids.cpp: see guids.h.
#include "platform/hosted/machine/guids.h"
#include <cstdio>

namespace hosted {

std::string GuidText(const platform::GUID &guid)
{
    char szText[40];
    std::snprintf(szText, sizeof(szText), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1, guid.Data2,
                  guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    return szText;
}

bool ReadGuid(const std::string &sText, platform::GUID *pGuid)
{
    unsigned aTail[8];
    char     chEnd = '\0';
    if (std::sscanf(sText.c_str(), "{%8x-%4hx-%4hx-%2x%2x-%2x%2x%2x%2x%2x%2x%c", &pGuid->Data1, &pGuid->Data2,
                    &pGuid->Data3, &aTail[0], &aTail[1], &aTail[2], &aTail[3], &aTail[4], &aTail[5], &aTail[6],
                    &aTail[7], &chEnd) != 12 ||
        chEnd != '}')
        return false;
    for (int i = 0; i < 8; i++) pGuid->Data4[i] = static_cast<uint8_t>(aTail[i]);
    return true;
}

} // namespace hosted
