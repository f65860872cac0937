// string_list.h: a doubly linked list of path entries: up to 260 units inline, longer ones in a buffer of their own.
// Threads  a list is owned by the operation that fills it; nothing is shared, no lock. A zeroed StringList is an empty
//          one.
#pragma once
#include <cstddef>
#include <cstdint>

constexpr uint32_t STRING_INLINE_UNITS = 260; // terminator included

struct StringEntry {
    StringEntry *pPrevious;
    StringEntry *pNext;
    char16_t     szInline[STRING_INLINE_UNITS];
    char16_t    *pszLong; // null, or cchLong units that hold the text instead
    uint32_t     cchLong;
};
struct StringList {
    StringEntry *pFirst;
    StringEntry *pLast;
    uint32_t     nCount;
};

// The entry's text, wherever it is held. Terminated; valid until the list is freed or the entry's buffer is written.
const char16_t *StringText(const StringEntry *pEntry);
// The same place for writing, and its room in units with the terminator (pcch may be null).
char16_t *StringBuffer(StringEntry *pEntry, size_t *pcch);
// Appends a copy with room for cchCapacity units, terminator included (260 or less: inline, so never less than 260).
// Null without memory, the list unchanged; a text longer than the room is cut to fit. A null text is appended as an
// empty one.
StringEntry *AppendString(StringList *pList, const char16_t *pszText, uint32_t cchCapacity);
// True when an entry equals the text without regard to case. A null list contains nothing.
bool ContainsString(const StringList *pList, const char16_t *pszText);
// Frees every entry and leaves an empty list. Null is passed over.
void FreeStringList(StringList *pList);
