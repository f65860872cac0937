// record_lines.cpp: the file is read in pieces and never held, since it grows with the files of a profile.
#include "migration/record_lines.h"
#include "migration/record_index.h"
#include "migration/state_files.h"
#include "platform/errors.h"
#include "platform/text.h"
#include <algorithm>
#include <cstring>
#include <new>

using namespace platform;

constexpr uint32_t READ_BUFFER_BYTES = 65536;
constexpr int64_t  MARK_BYTES        = 2;

static bool FillReader(LineReader *pReader)
{
    pReader->iBuffer  = 0;
    pReader->cbBuffer = 0;
    if (ReadFile(pReader->hFile, pReader->pbBuffer, READ_BUFFER_BYTES, &pReader->cbBuffer, nullptr))
        return pReader->cbBuffer > 0;
    pReader->cbBuffer = 0;
    pReader->bFailed  = true;
    return false;
}

bool OpenLineReader(LineReader *pReader, const char16_t *pszFile)
{
    *pReader          = {};
    pReader->pbBuffer = new (std::nothrow) uint8_t[READ_BUFFER_BYTES];
    pReader->hFile    = INVALID_HANDLE_VALUE;
    if (pReader->pbBuffer == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    pReader->hFile = CreateFileW(pszFile, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (pReader->hFile == INVALID_HANDLE_VALUE) return false;
    FillReader(pReader);
    pReader->bWide = pReader->cbBuffer >= 2 && pReader->pbBuffer[0] == 0xFF && pReader->pbBuffer[1] == 0xFE;
    if (pReader->bWide) {
        pReader->iBuffer = MARK_BYTES;
        pReader->llNext  = MARK_BYTES;
    }
    return true;
}

// The next unit, or -1 at the end (a last single byte is no unit).
static int32_t NextUnit(LineReader *pReader)
{
    uint8_t aBytes[2] = {};
    for (uint32_t i = 0; i < (pReader->bWide ? 2u : 1u); ++i) {
        if (pReader->iBuffer >= pReader->cbBuffer && !FillReader(pReader)) return -1;
        aBytes[i] = pReader->pbBuffer[pReader->iBuffer++];
        ++pReader->llNext;
    }
    return aBytes[0] | aBytes[1] << 8;
}

static bool IsBlank(char16_t ch)
{
    return ch == u' ' || ch == u'\t';
}

// Removes blanks from both ends in place and returns the new start.
static char16_t *Trim(char16_t *psz)
{
    while (IsBlank(*psz)) ++psz;
    size_t cch = TextLengthW(psz);
    while (cch > 0 && IsBlank(psz[cch - 1])) --cch;
    psz[cch] = 0;
    return psz;
}

// The line's units are bytes of the ANSI code page: turns them into text.
static void WidenLine(LineReader *pReader)
{
    char         szBytes[RECORD_LINE_UNITS];
    const size_t cch = TextLengthW(pReader->szLine);
    for (size_t i = 0; i <= cch; ++i) szBytes[i] = static_cast<char>(pReader->szLine[i]);
    if (MultiByteToWideChar(CP_ACP, 0, szBytes, -1, pReader->szLine, RECORD_LINE_UNITS) == 0) pReader->szLine[0] = 0;
}

bool ReadRecordLine(LineReader *pReader)
{
    size_t  cch      = 0;
    bool    bTooLong = false;
    int32_t nUnit    = 0;
    pReader->llLine  = pReader->llNext;
    while ((nUnit = NextUnit(pReader)) >= 0 && nUnit != u'\n') {
        if (cch + 1 < RECORD_LINE_UNITS) pReader->szLine[cch++] = static_cast<char16_t>(nUnit);
        else bTooLong = true;
    }
    pReader->bEnded = nUnit == u'\n';
    if (!pReader->bEnded && pReader->llNext == pReader->llLine) return false;
    if (cch > 0 && pReader->szLine[cch - 1] == u'\r') --cch;
    if (bTooLong) cch = 0;
    pReader->szLine[cch] = 0;
    if (TextLengthW(pReader->szLine) < cch) pReader->szLine[0] = 0; // a zero inside: no line of ours
    if (!pReader->bWide) WidenLine(pReader);
    char16_t *pszStart = Trim(pReader->szLine);
    std::memmove(pReader->szLine, pszStart, (TextLengthW(pszStart) + 1) * sizeof(char16_t));
    return true;
}

void SeekLine(LineReader *pReader, int64_t llOffset)
{
    // Within the buffer nothing is read again: most pieces follow one another.
    const int64_t llBuffer = pReader->llNext - pReader->iBuffer;
    if (llOffset >= llBuffer && llOffset <= llBuffer + pReader->cbBuffer) {
        pReader->iBuffer = static_cast<uint32_t>(llOffset - llBuffer);
    } else {
        pReader->iBuffer  = 0;
        pReader->cbBuffer = 0;
        if (!SetFilePointerEx(pReader->hFile, llOffset, nullptr, FILE_BEGIN)) pReader->bFailed = true;
    }
    pReader->llNext = llOffset;
}

void CloseLineReader(LineReader *pReader)
{
    const uint32_t dwError = GetLastError();
    if (pReader->hFile != INVALID_HANDLE_VALUE) CloseHandle(pReader->hFile);
    delete[] pReader->pbBuffer;
    pReader->hFile    = INVALID_HANDLE_VALUE;
    pReader->pbBuffer = nullptr;
    SetLastError(dwError);
}

RecordLine ParseRecordLine(char16_t *pszLine, char16_t **ppszName, char16_t **ppszValue)
{
    const size_t cch = TextLengthW(pszLine);
    *ppszName        = nullptr;
    *ppszValue       = nullptr;
    if (cch == 0 || pszLine[0] == u';') return RecordLine::Nothing;
    if (pszLine[0] == u'[') {
        size_t iEnd = cch;
        while (iEnd > 0 && pszLine[iEnd - 1] != u']') --iEnd;
        if (iEnd == 0) return RecordLine::Nothing;
        pszLine[iEnd - 1] = 0;
        *ppszName         = Trim(pszLine + 1);
        return RecordLine::Section;
    }
    char16_t *pszEqual = pszLine;
    while (*pszEqual != 0 && *pszEqual != u'=') ++pszEqual;
    if (*pszEqual == 0) return RecordLine::Nothing;
    *pszEqual             = 0;
    *ppszName             = Trim(pszLine);
    *ppszValue            = Trim(pszEqual + 1);
    const size_t cchValue = TextLengthW(*ppszValue);
    if (cchValue >= 2 && (*ppszValue)[0] == u'"' && (*ppszValue)[cchValue - 1] == u'"') {
        (*ppszValue)[cchValue - 1] = 0;
        ++*ppszValue;
    }
    return RecordLine::Entry;
}

// ---- rewriting ----

// A section's header line and the lines behind it, up to the next header.
struct SectionPiece {
    uint64_t ullSection; // while pieces are gathered, the section's hash; then the offset of its first piece
    int64_t  llHeader;
    int64_t  llEnd;
};
struct PieceList {
    SectionPiece *pPieces;
    size_t        nPieces;
    size_t        nRoom;
};

static bool AddPiece(PieceList *pList, uint64_t ullSection, int64_t llHeader)
{
    if (pList->nPieces == pList->nRoom) {
        const size_t  nRoom   = pList->nRoom == 0 ? 64 : pList->nRoom + pList->nRoom / 2;
        SectionPiece *pPieces = new (std::nothrow) SectionPiece[nRoom];
        if (pPieces == nullptr) return false;
        if (pList->nPieces > 0) std::memcpy(pPieces, pList->pPieces, pList->nPieces * sizeof(*pPieces));
        delete[] pList->pPieces;
        pList->pPieces = pPieces;
        pList->nRoom   = nRoom;
    }
    pList->pPieces[pList->nPieces++] = {ullSection, llHeader, llHeader};
    return true;
}

static bool IsEarlierPiece(const SectionPiece &left, const SectionPiece &right)
{
    return left.ullSection != right.ullSection ? left.ullSection < right.ullSection : left.llHeader < right.llHeader;
}

// All pieces of the file, sorted so that a section's come together where its first one was.
static bool GatherPieces(LineReader *pReader, PieceList *pList)
{
    char16_t *pszName  = nullptr;
    char16_t *pszValue = nullptr;
    while (ReadRecordLine(pReader)) {
        if (pReader->szLine[0] == u'[') {
            if (ParseRecordLine(pReader->szLine, &pszName, &pszValue) != RecordLine::Section) continue;
            if (!AddPiece(pList, HashRecord(pszName, nullptr), pReader->llLine)) return false;
        }
        if (pList->nPieces > 0) pList->pPieces[pList->nPieces - 1].llEnd = pReader->llNext;
    }
    if (pReader->bFailed) return false;
    SectionPiece *const pBegin = pList->pPieces;
    SectionPiece *const pEnd   = pBegin + pList->nPieces;
    std::sort(pBegin, pEnd, IsEarlierPiece);
    for (SectionPiece *p = pBegin; p < pEnd;) {
        const uint64_t ullSection = p->ullSection;
        const auto     ullFirst   = static_cast<uint64_t>(p->llHeader);
        for (; p < pEnd && p->ullSection == ullSection; ++p) p->ullSection = ullFirst;
    }
    std::sort(pBegin, pEnd, IsEarlierPiece);
    return true;
}

struct LineWriter {
    HANDLE    hFile;
    char16_t *pUnits; // READ_BUFFER_BYTES
    size_t    nUnits;
};

static bool FlushWriter(LineWriter *pWriter)
{
    const auto cb        = static_cast<uint32_t>(pWriter->nUnits * sizeof(char16_t));
    uint32_t   cbWritten = 0;
    pWriter->nUnits      = 0;
    return cb == 0 || (WriteFile(pWriter->hFile, pWriter->pUnits, cb, &cbWritten, nullptr) && cbWritten == cb);
}

static bool WriteLine(LineWriter *pWriter, const char16_t *pszLine)
{
    constexpr size_t ROOM_UNITS = READ_BUFFER_BYTES / sizeof(char16_t);
    const size_t     cch        = TextLengthW(pszLine);
    if (pWriter->nUnits + cch + 2 > ROOM_UNITS && !FlushWriter(pWriter)) return false;
    std::memcpy(pWriter->pUnits + pWriter->nUnits, pszLine, cch * sizeof(char16_t));
    pWriter->nUnits += cch;
    pWriter->pUnits[pWriter->nUnits++] = u'\r';
    pWriter->pUnits[pWriter->nUnits++] = u'\n';
    return true;
}

// One piece; its header only when bHeader. An entry at the file's end whose line is not whole counts when its value is
// there.
static bool CopyPiece(LineReader *pReader, LineWriter *pWriter, const SectionPiece *pPiece, bool bHeader)
{
    SeekLine(pReader, pPiece->llHeader);
    for (bool bFirst = true; pReader->llNext < pPiece->llEnd; bFirst = false) {
        if (!ReadRecordLine(pReader)) return false;
        if (pReader->szLine[0] == 0 || (bFirst && !bHeader)) continue;
        if (!pReader->bEnded && !bFirst) {
            char16_t  szCopy[RECORD_LINE_UNITS];
            char16_t *pszName  = nullptr;
            char16_t *pszValue = nullptr;
            CopyTextW(szCopy, RECORD_LINE_UNITS, pReader->szLine);
            if (ParseRecordLine(szCopy, &pszName, &pszValue) != RecordLine::Entry || *pszValue == 0) continue;
        }
        if (!WriteLine(pWriter, pReader->szLine)) return false;
    }
    return true;
}

static bool CopyPieces(LineReader *pReader, LineWriter *pWriter, const PieceList *pList)
{
    for (size_t i = 0; i < pList->nPieces; ++i) {
        const bool bHeader = i == 0 || pList->pPieces[i - 1].ullSection != pList->pPieces[i].ullSection;
        if (!CopyPiece(pReader, pWriter, &pList->pPieces[i], bHeader)) return false;
    }
    return FlushWriter(pWriter) && !pReader->bFailed;
}

bool RewriteRecordFile(const char16_t *pszFile, const char16_t *pszWorkFile)
{
    LineReader *pReader = new (std::nothrow) LineReader{};
    PieceList   pieces  = {};
    LineWriter  writer  = {INVALID_HANDLE_VALUE, new (std::nothrow) char16_t[READ_BUFFER_BYTES / sizeof(char16_t)], 0};
    bool        bDone   = false;
    bool        bOpened = false;
    if (pReader != nullptr && writer.pUnits != nullptr && OpenLineReader(pReader, pszFile)) {
        bOpened = true;
        if (GatherPieces(pReader, &pieces) && CreateStateFile(pszWorkFile)) {
            writer.hFile = CreateFileW(pszWorkFile, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr);
            // On disk before it replaces the old one, or a lost power supply could leave neither.
            bDone = writer.hFile != INVALID_HANDLE_VALUE && CopyPieces(pReader, &writer, &pieces) &&
                    FlushFileBuffers(writer.hFile);
        }
    }
    uint32_t dwError = GetLastError();
    if (writer.hFile != INVALID_HANDLE_VALUE) CloseHandle(writer.hFile);
    if (pReader != nullptr) CloseLineReader(pReader);
    if (bDone && !MoveFileExW(pszWorkFile, pszFile, MOVEFILE_REPLACE_EXISTING)) {
        dwError = GetLastError();
        bDone   = false;
    }
    if (!bDone && bOpened) DeleteFileW(pszWorkFile);
    delete pReader;
    delete[] writer.pUnits;
    delete[] pieces.pPieces;
    SetLastError(dwError);
    return bDone;
}
