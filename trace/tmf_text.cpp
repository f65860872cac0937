// tmf_text.cpp: one "#typev" entry per message number. Readers number the arguments from 10 (1 to 9 are the prefix:
// processor, thread, time), so argument n of the table is %(n+9); %0 stands for that prefix.
#include "trace/tmf_text.h"
#include "platform/text.h"
#include "trace/message_formats.h"

using namespace platform;

static constexpr uint32_t FIRST_TMF_ARGUMENT = 10;

// "%1: %2, %3 bytes" with "ssu" as "%10!s!: %11!s!, %12!u! bytes". A percent sign stays doubled.
static bool FormatTmfDefinition(const TraceMessageFormat &format, char *pszBuffer, size_t cb)
{
    size_t cbUsed = 0;
    for (const char *p = format.pszFormat; *p != 0; p++) {
        int32_t cbAdded = 0;
        if (p[0] == '%' && p[1] >= '1' && p[1] <= '9') {
            const uint32_t nArgument = static_cast<uint32_t>(p[1] - '1');
            cbAdded = FormatTextA(pszBuffer + cbUsed, cb - cbUsed, "%%%u!%c!", nArgument + FIRST_TMF_ARGUMENT,
                                  format.pszTypes[nArgument]);
            p++;
        } else if (p[0] == '%' && p[1] == '%') {
            cbAdded = FormatTextA(pszBuffer + cbUsed, cb - cbUsed, "%%%%");
            p++;
        } else {
            cbAdded = FormatTextA(pszBuffer + cbUsed, cb - cbUsed, "%c", *p);
        }
        if (cbAdded < 0) return false;
        cbUsed += static_cast<size_t>(cbAdded);
    }
    return true;
}

static bool AppendEntry(const TraceMessageFormat &format, char *pszBuffer, size_t cb, size_t *pcbUsed)
{
    char    szDefinition[256] = {};
    int32_t cbAdded           = -1;
    if (!FormatTmfDefinition(format, szDefinition, sizeof(szDefinition))) return false;
    cbAdded = FormatTextA(pszBuffer + *pcbUsed, cb - *pcbUsed,
                          "#typev trace_log_cpp%u %u \"%%0%s\" //   FUNC=TraceMessage\r\n{\r\n",
                          uint32_t{format.nNumber}, uint32_t{format.nNumber}, szDefinition);
    if (cbAdded < 0) return false;
    *pcbUsed += static_cast<size_t>(cbAdded);
    for (uint32_t n = 0; format.pszTypes[n] != 0; n++) {
        cbAdded = FormatTextA(pszBuffer + *pcbUsed, cb - *pcbUsed, "Arg%u, %s -- %u\r\n", n + 1,
                              format.pszTypes[n] == 's' ? "ItemString" : "ItemLong", n + FIRST_TMF_ARGUMENT);
        if (cbAdded < 0) return false;
        *pcbUsed += static_cast<size_t>(cbAdded);
    }
    cbAdded = FormatTextA(pszBuffer + *pcbUsed, cb - *pcbUsed, "}\r\n");
    if (cbAdded < 0) return false;
    *pcbUsed += static_cast<size_t>(cbAdded);
    return true;
}

size_t FormatTmfText(char *pszBuffer, size_t cb)
{
    const GUID &guid = TRACE_CLASS_GUID;

    const int32_t cbHead = FormatTextA(
        pszBuffer, cb, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x %s // SRC=trace_log.cpp MJ= MN=\r\n",
        guid.Data1, uint32_t{guid.Data2}, uint32_t{guid.Data3}, uint32_t{guid.Data4[0]}, uint32_t{guid.Data4[1]},
        uint32_t{guid.Data4[2]}, uint32_t{guid.Data4[3]}, uint32_t{guid.Data4[4]}, uint32_t{guid.Data4[5]},
        uint32_t{guid.Data4[6]}, uint32_t{guid.Data4[7]}, TRACE_PROGRAM_NAME);
    if (cbHead < 0) return 0;
    size_t cbUsed = static_cast<size_t>(cbHead);
    for (const TraceMessageFormat &format : g_aTraceMessageFormats) {
        if (!AppendEntry(format, pszBuffer, cb, &cbUsed)) return 0;
    }
    return cbUsed;
}
