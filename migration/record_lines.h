// record_lines.h: recordinfo.ini as lines: reading them, and rewriting a file whose sections are in several pieces.
// Memory   one buffer of 64 KiB and 24 bytes for each piece, whatever the file's size.
// Thread   the collection walk's.
#pragma once
#include "platform/files.h"
#include <cstddef>
#include <cstdint>

constexpr size_t RECORD_LINE_UNITS = 2304; // section, key or working folder of 1024 units, and what is round them

struct LineReader {
    platform::HANDLE hFile;
    uint8_t         *pbBuffer;
    uint32_t         cbBuffer; // filled
    uint32_t         iBuffer;
    int64_t          llNext;  // file offset of the byte at iBuffer
    bool             bWide;   // UTF-16LE with mark; else the ANSI code page
    bool             bFailed; // a read failed, so the end is not the file's
    // The line that ReadRecordLine gave.
    char16_t szLine[RECORD_LINE_UNITS]; // without its end, blanks at both ends removed; empty when it was too long
    int64_t  llLine;                    // its file offset
    bool     bEnded;                    // it had a line end: it is whole
};
// False when the file cannot be opened (GetLastError). The reader is closed with CloseLineReader, also then.
bool OpenLineReader(LineReader *pReader, const char16_t *pszFile);
// False at the end.
bool ReadRecordLine(LineReader *pReader);
void SeekLine(LineReader *pReader, int64_t llOffset);
void CloseLineReader(LineReader *pReader);

enum class RecordLine { Nothing, Section, Entry };
// Takes a line apart in place: a section's name, or key and value (quotes round the value removed).
RecordLine ParseRecordLine(char16_t *pszLine, char16_t **ppszName, char16_t **ppszValue);

// Writes the file anew, in UTF-16, each section in one piece where its first one was, half a line at the end removed
// unless it says all it has to, and puts it in the old one's place, at once. False: the old file is as it was
// (GetLastError).
//   pszWorkFile  a name beside it, overwritten
bool RewriteRecordFile(const char16_t *pszFile, const char16_t *pszWorkFile);
