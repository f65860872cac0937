// utf.h: UTF-16 of the interfaces, UTF-8 of the host.
#pragma once
#include <string>
#include <string_view>

namespace hosted {

// Lossless both ways: a lone surrogate is kept (three bytes), a byte that is no UTF-8 becomes U+DC80..U+DCFF and back.
std::string    ToUtf8(std::u16string_view sText);
std::u16string ToUtf16(std::string_view sText);

} // namespace hosted
