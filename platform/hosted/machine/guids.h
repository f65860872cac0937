// guids.h: GUIDs as text, "{4D36E972-E325-11CE-BFC1-08002BE10318}".
#pragma once
#include "platform/types.h"
#include <string>

namespace hosted {

std::string GuidText(const platform::GUID &guid); // in capitals
bool        ReadGuid(const std::string &sText, platform::GUID *pGuid);

} // namespace hosted
