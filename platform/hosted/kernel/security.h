// security.h: the access list of a new object: one entry, for Everyone (CreateEveryoneSecurity makes it).
#pragma once
#include "platform/kernel.h"
#include "platform/security.h"

struct platform::SECURITY_ATTRIBUTES {
    uint32_t dwEveryoneAccess;
};
