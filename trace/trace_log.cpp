// trace_log.cpp: the providers' list and the message writer.
// The list is reset before the process ends, which closes every gate at once for threads that still run.
#include "trace/trace_log.h"
#include "platform/errors.h"
#include "platform/text.h"
#include "trace/message_formats.h"
#include "trace/trace_control.h"
#include <initializer_list>

using namespace platform;

static constexpr uint32_t MESSAGE_FLAGS =
    TRACE_MESSAGE_SEQUENCE | TRACE_MESSAGE_GUID | TRACE_MESSAGE_TIMESTAMP | TRACE_MESSAGE_SYSTEMINFO;
static_assert(MESSAGE_FLAGS == 0x2B);
static constexpr size_t ANSI_TEXT_BYTES = 1024;

// The list: the sentinel, then the registered blocks. Empty: the sentinel has no next block.
static TraceControlBlock  g_TraceListHead;
static TraceControlBlock  g_aTraceBlocks[2];
static TraceControlBlock &g_MainBlock   = g_aTraceBlocks[0];
static TraceControlBlock &g_SecondBlock = g_aTraceBlocks[1];

void RegisterTraceProviders()
{
    static TRACE_GUID_REGISTRATION aRegistrations[2]; // the system writes a handle into each and may keep the pointer
    static const GUID *const       apControlGuids[2] = {&MAIN_TRACE_CONTROL_GUID, &SECOND_TRACE_CONTROL_GUID};

    if (g_TraceListHead.pNext != nullptr) return;
    SetTraceMessageFormats(g_aTraceMessageFormats, TRACE_MESSAGE_COUNT);
    for (size_t n = 0; n < 2; n++) {
        g_aTraceBlocks[n].pControlGuid = apControlGuids[n];
        g_aTraceBlocks[n].pNext        = n == 0 ? &g_aTraceBlocks[1] : nullptr;
        aRegistrations[n]              = {&TRACE_CLASS_GUID, nullptr};
    }
    g_TraceListHead.pNext = &g_aTraceBlocks[0]; // before the registrations: a callback may come while one is made

    size_t n = 0;
    for (TraceControlBlock *pBlock = g_TraceListHead.pNext; pBlock != nullptr; pBlock = pBlock->pNext) {
        if (RegisterTraceGuidsW(ControlCallback, pBlock, pBlock->pControlGuid, 1, &aRegistrations[n++], nullptr,
                                nullptr, &pBlock->hRegistration) != ERROR_SUCCESS) {
            pBlock->hRegistration = 0;
        }
    }
}

void UnregisterTraceProviders()
{
    for (TraceControlBlock *pBlock = g_TraceListHead.pNext; pBlock != nullptr; pBlock = pBlock->pNext) {
        if (pBlock->hRegistration != 0) {
            UnregisterTraceGuids(pBlock->hRegistration);
            pBlock->hRegistration = 0;
        }
        pBlock->dwEnableFlags = 0; // the state belonged to the registration
        pBlock->bEnableLevel  = 0;
        pBlock->hLogger       = 0;
    }
    g_TraceListHead.pNext = nullptr;
}

bool IsTraceEnabled()
{
    return g_TraceListHead.pNext != nullptr && (g_MainBlock.dwEnableFlags & MAIN_TRACE_FLAG) != 0;
}

bool IsSecondTraceEnabled()
{
    return g_TraceListHead.pNext != nullptr && (g_SecondBlock.dwEnableFlags & SECOND_TRACE_FLAG) != 0;
}

// ---- arguments ----

struct TraceArgument {
    const void *pData;
    size_t      cbData;
};

static TraceArgument TextArgument(const char *pszText)
{
    if (pszText == nullptr) pszText = "NULL";
    return {pszText, TextLengthA(pszText) + 1};
}

static TraceArgument NumberArgument(const uint32_t &dwValue)
{
    return {&dwValue, sizeof(dwValue)};
}

// Converts as many whole characters as fit. Null stays null (and is written as "NULL").
static const char *ToAnsi(const char16_t *pszText, size_t cchBound, char (&szBuffer)[ANSI_TEXT_BYTES])
{
    if (pszText == nullptr) return nullptr;
    const int32_t cchText   = static_cast<int32_t>(TextLengthBoundedW(pszText, cchBound));
    int32_t       cchFits   = 0; // known to fit
    int32_t       cchTooBig = cchText + 1;
    int32_t       cchTry    = cchText;
    while (cchTry > cchFits) {
        char szTry[ANSI_TEXT_BYTES] = {};
        if (WideCharToMultiByte(CP_ACP, 0, pszText, cchTry, szTry, ANSI_TEXT_BYTES - 1, nullptr, nullptr) > 0) {
            CopyTextA(szBuffer, ANSI_TEXT_BYTES, szTry);
            cchFits = cchTry;
        } else {
            cchTooBig = cchTry;
        }
        cchTry                 = (cchFits + cchTooBig) / 2;
        const bool bSplitsPair = cchTry > 0 && cchTry < cchText && (pszText[cchTry - 1] & 0xFC00) == 0xD800;
        if (bSplitsPair) cchTry += cchTry + 1 < cchTooBig ? 1 : -1;
    }
    return szBuffer;
}

static void WriteMessage(const TraceControlBlock &block, uint16_t nNumber,
                         std::initializer_list<TraceArgument> arguments)
{
    TraceArgument a[TRACE_ARGUMENT_COUNT - 1] = {}; // an unused one is (null, 0), which ends the list
    size_t        n                           = 0;
    for (const TraceArgument &argument : arguments) a[n++] = argument;

    TraceMessage(block.hLogger, MESSAGE_FLAGS, &TRACE_CLASS_GUID, nNumber, TRACE_PROGRAM_NAME,
                 sizeof(TRACE_PROGRAM_NAME), a[0].pData, a[0].cbData, a[1].pData, a[1].cbData, a[2].pData, a[2].cbData,
                 a[3].pData, a[3].cbData, a[4].pData, a[4].cbData, a[5].pData, a[5].cbData, a[6].pData, a[6].cbData,
                 static_cast<const void *>(nullptr), static_cast<size_t>(0));
}

// ---- the shapes ----

void TraceProcessStart()
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(g_MainBlock, 37, {});
    SetLastError(dwLastError);
}

void TraceProcessEnd()
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(g_MainBlock, 38, {});
    SetLastError(dwLastError);
}

void TraceText(const char *pszText)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(g_MainBlock, 10, {TextArgument(pszText)});
    SetLastError(dwLastError);
}

void TraceWideText(const char16_t *pszText, size_t cchBound)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError             = GetLastError();
    char           szText[ANSI_TEXT_BYTES] = {};
    WriteMessage(g_MainBlock, 34, {TextArgument(ToAnsi(pszText, cchBound, szText))});
    SetLastError(dwLastError);
}

void TracePipeRead(uint32_t cbRead)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(g_MainBlock, 13, {TextArgument("NetLoopThread ReadFile"), NumberArgument(cbRead)});
    SetLastError(dwLastError);
}

void TraceWindowMessage(uint32_t dwWParam, uint32_t dwLParam)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(g_MainBlock, 16,
                 {TextArgument("Receive \"VORN Migration Control Notification to Net\" message"),
                  NumberArgument(dwWParam), NumberArgument(dwLParam)});
    SetLastError(dwLastError);
}

void TraceTextValue(const char *pszText, uint32_t dwValue)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(g_MainBlock, 29, {TextArgument(pszText), NumberArgument(dwValue)});
    SetLastError(dwLastError);
}

void TraceSpecialFileFailure(uint32_t dwFirst, uint32_t dwSecond)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(
        g_MainBlock, 30,
        {TextArgument("Fail to send/receive special file"), NumberArgument(dwFirst), NumberArgument(dwSecond)});
    SetLastError(dwLastError);
}

void TraceRecordLongText(const char *pszLabel, uint32_t dw1, uint32_t dw2, uint32_t dw3, const char16_t *pszText,
                         size_t cchBound)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError             = GetLastError();
    char           szText[ANSI_TEXT_BYTES] = {};
    WriteMessage(g_MainBlock, 25,
                 {TextArgument(pszLabel), NumberArgument(dw1), NumberArgument(dw2), NumberArgument(dw3),
                  TextArgument(ToAnsi(pszText, cchBound, szText))});
    SetLastError(dwLastError);
}

void TraceRecordTexts(const char *pszLabel, uint32_t dw1, uint32_t dw2, uint32_t dw3, const char16_t *pszText1,
                      const char16_t *pszText2, const char16_t *pszText3, size_t cchBound)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError              = GetLastError();
    char           szText1[ANSI_TEXT_BYTES] = {};
    char           szText2[ANSI_TEXT_BYTES] = {};
    char           szText3[ANSI_TEXT_BYTES] = {};
    WriteMessage(g_MainBlock, 27,
                 {TextArgument(pszLabel), NumberArgument(dw1), NumberArgument(dw2), NumberArgument(dw3),
                  TextArgument(ToAnsi(pszText1, cchBound, szText1)), TextArgument(ToAnsi(pszText2, cchBound, szText2)),
                  TextArgument(ToAnsi(pszText3, cchBound, szText3))});
    SetLastError(dwLastError);
}

static void WriteValueText(const TraceControlBlock &block, uint16_t nNumber, const char *pszText, uint32_t dwValue,
                           const char16_t *pszPath, size_t cchBound)
{
    const uint32_t dwLastError             = GetLastError();
    char           szPath[ANSI_TEXT_BYTES] = {};
    WriteMessage(block, nNumber,
                 {TextArgument(pszText), NumberArgument(dwValue), TextArgument(ToAnsi(pszPath, cchBound, szPath))});
    SetLastError(dwLastError);
}

void TraceValueText(const char *pszText, uint32_t dwValue, const char16_t *pszPath, size_t cchBound)
{
    if (IsTraceEnabled()) WriteValueText(g_MainBlock, 21, pszText, dwValue, pszPath, cchBound);
    if (IsSecondTraceEnabled()) WriteValueText(g_SecondBlock, 22, pszText, dwValue, pszPath, cchBound);
}

void TracePathMapping(const char *pszTag, uint32_t bChanged, const char16_t *pszBefore, const char16_t *pszAfter,
                      size_t cchBound)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError               = GetLastError();
    char           szBefore[ANSI_TEXT_BYTES] = {};
    char           szAfter[ANSI_TEXT_BYTES]  = {};
    WriteMessage(g_MainBlock, 28,
                 {TextArgument(pszTag), NumberArgument(bChanged), TextArgument(ToAnsi(pszBefore, cchBound, szBefore)),
                  TextArgument(ToAnsi(pszAfter, cchBound, szAfter))});
    SetLastError(dwLastError);
}

void TraceTextPath(const char *pszText, const char16_t *pszPath, size_t cchBound)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError             = GetLastError();
    char           szPath[ANSI_TEXT_BYTES] = {};
    WriteMessage(g_MainBlock, 35, {TextArgument(pszText), TextArgument(ToAnsi(pszPath, cchBound, szPath))});
    SetLastError(dwLastError);
}

void TraceTwoTexts(const char *pszFirst, const char *pszSecond)
{
    if (!IsTraceEnabled()) return;
    const uint32_t dwLastError = GetLastError();
    WriteMessage(g_MainBlock, 36, {TextArgument(pszFirst), TextArgument(pszSecond)});
    SetLastError(dwLastError);
}
