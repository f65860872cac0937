// shell_link_fuzz.cpp: a .lnk file of any bytes; one that can be read can be retargeted, written and read again.
#include "platform/hosted/desktop/shell_link_format.h"
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t cb)
{
    hosted::LinkParts parts, again;
    if (!hosted::ParseLink(std::string_view(reinterpret_cast<const char *>(pData), cb), &parts)) return 0;
    hosted::LinkTarget(parts);
    hosted::SetLinkTarget(&parts, u"C:\\Users\\bernd\\Plan.docx", false);
    if (!hosted::ParseLink(hosted::LinkBytes(parts), &again)) std::abort();
    if (hosted::LinkTarget(again) != u"C:\\Users\\bernd\\Plan.docx") std::abort();
    return 0;
}
