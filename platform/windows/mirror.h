// mirror.h: the comparisons of the seam's constants and structures with the SDK's; sdk.h says how they are used.
#pragma once
#include <cstddef>

namespace mirror {
// The SDK's macros carry types of their own (long, unsigned long, enumerations); the value is what must agree.
template <class Ours, class Sdk> constexpr bool SameValue(Ours ours, Sdk sdk)
{
    return ours == static_cast<Ours>(sdk);
}
} // namespace mirror

#define MIRROR_CAPTURE(NAME) constexpr auto captured_##NAME = platform::NAME;
#define MIRROR_COMPARE(NAME) static_assert(SameValue(captured_##NAME, NAME), #NAME " is not the SDK's");

#define MIRROR_SIZE(TYPE) static_assert(sizeof(platform::TYPE) == sizeof(::TYPE), #TYPE " has not the SDK's size");
#define MIRROR_FIELD(TYPE, FIELD)                                                                                      \
    static_assert(offsetof(platform::TYPE, FIELD) == offsetof(::TYPE, FIELD) &&                                        \
                      sizeof(platform::TYPE::FIELD) == sizeof(::TYPE::FIELD),                                          \
                  #TYPE "::" #FIELD " is not the SDK's");
