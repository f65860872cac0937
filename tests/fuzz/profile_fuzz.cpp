// profile_fuzz.cpp: an INI file of any bytes is read, changed and read again; what was written must be found.
#include "platform/hosted/profile/profile_text.h"
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t cb)
{
    const std::string_view sBytes(reinterpret_cast<const char *>(pData), cb);
    hosted::ProfileText    text;
    std::u16string_view    sValue;
    text.Load(sBytes);
    text.Read(u"Collection", u"\"Size\"", &sValue);
    text.Write(u"Volume", u"Number", u"3");
    if (!text.Read(u"volume", u"NUMBER", &sValue) || sValue != u"3") std::abort();
    text.RemoveKey(u"Volume", u"Number");
    text.RemoveSection(u"Collection");
    return 0;
}
