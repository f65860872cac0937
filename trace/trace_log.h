// trace_log.h: the event-tracing log: fifteen message shapes over two classic trace providers.
// Gate     nothing is formatted or converted while no session has enabled the provider: callers that build a text first
//          ask IsTraceEnabled.
// Threads  any; no lock is taken. Every call leaves the calling thread's last error as it found it.
// Text     narrow texts are terminated, null is written as "NULL"; wide texts are converted to the ANSI code page into
//          1024 bytes and cut there between characters, at most cchBound units of them are looked at (260, 780 or
//          1024), so that they may lack a terminator.
// Display  message_formats.h; the numbers behind the functions are the message numbers.
#pragma once
#include "platform/event_tracing.h"
#include <cstddef>
#include <cstdint>

// A provider that cannot be registered stays silent; nothing is reported, since there is nowhere to report it to.
void RegisterTraceProviders();   // main thread, once, before any message
void UnregisterTraceProviders(); // main thread, last
bool IsTraceEnabled();           // the main provider's flag bit 2
bool IsSecondTraceEnabled();     // the second provider's flag bit 1

void TraceProcessStart();                                                                // 37
void TraceProcessEnd();                                                                  // 38
void TraceText(const char *pszText);                                                     // 10
void TraceWideText(const char16_t *pszText, size_t cchBound);                            // 34
void TracePipeRead(uint32_t cbRead);                                                     // 13
void TraceWindowMessage(uint32_t dwWParam, uint32_t dwLParam);                           // 16
void TraceTextValue(const char *pszText, uint32_t dwValue);                              // 29
void TraceSpecialFileFailure(uint32_t dwFirst, uint32_t dwSecond);                       // 30
void TraceRecordLongText(const char *pszLabel, uint32_t dw1, uint32_t dw2, uint32_t dw3, // 25
                         const char16_t *pszText, size_t cchBound);
void TraceRecordTexts(const char *pszLabel, uint32_t dw1, uint32_t dw2, uint32_t dw3, // 27
                      const char16_t *pszText1, const char16_t *pszText2, const char16_t *pszText3, size_t cchBound);
// 21, and as 22 the same line to the second provider: its sessions hold what failed, and nothing else.
void TraceValueText(const char *pszText, uint32_t dwValue, const char16_t *pszPath, size_t cchBound);
void TracePathMapping(const char *pszTag, uint32_t bChanged, const char16_t *pszBefore, const char16_t *pszAfter,
                      size_t cchBound);                                            // 28
void TraceTextPath(const char *pszText, const char16_t *pszPath, size_t cchBound); // 35
void TraceTwoTexts(const char *pszFirst, const char *pszSecond);                   // 36
