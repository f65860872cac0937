// incoming_file.cpp: a file from the peer on this machine's disk.
#include "transfer/incoming_file.h"
#include "migration/folders.h"
#include "migration/receipt_journal.h"
#include "migration/unique_name.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/path.h"
#include "platform/text.h"
#include "transfer/file_stream.h"
#include "transfer/receipt_answer.h"
#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

using namespace platform;

constexpr size_t   FILE_NAME_UNITS    = 255; // of one name, without terminator
constexpr uint32_t NAME_TRIES         = 100; // of names that are taken although they looked free
constexpr uint64_t NAMING_MS          = 5000;
constexpr uint32_t NAMING_PAUSE_MS    = 20;
constexpr uint32_t COMPARE_BYTES      = 4096;
constexpr size_t   SUFFIX_UNITS       = std::size(RECEIVING_SUFFIX) - 1;
constexpr uint32_t SWEPT_FOLDERS      = 4096;
constexpr uint64_t FOLDER_HASH_START  = 14695981039346656037u; // FNV-1a
constexpr uint64_t FOLDER_HASH_FACTOR = 1099511628211u;

// The folder, as a hash, in which a whole file could not be given its name for want of a right: further files are
// written there under their own. 0: none.
static std::atomic<uint64_t> g_ullNoRenaming;

static uint64_t HashFolder(const char16_t *pszFolder, size_t cch)
{
    uint64_t ullHash = FOLDER_HASH_START;
    for (size_t i = 0; i < cch; ++i) ullHash = (ullHash ^ FoldCaseW(pszFolder[i])) * FOLDER_HASH_FACTOR;
    return ullHash | 1; // 0 is none
}

// Units of what the file is in, without the backslash.
static size_t FolderUnits(const IncomingFile *pFile)
{
    size_t cchFolder = 0;
    for (size_t i = 0; pFile->szLocal[i] != 0; ++i)
        if (pFile->szLocal[i] == u'\\') cchFolder = i;
    return cchFolder;
}

static void SetPath(IncomingFile *pFile, const char16_t *pszPath)
{
    char16_t szLong[LONG_PATH_UNITS];
    CopyTextW(pFile->szPath, INCOMING_PATH_UNITS, pszPath);
    CopyTextW(pFile->szLocal, LONG_PATH_UNITS, LongPathForm(pFile->szPath, STREAM_PATH_UNITS + 1, szLong));
}

void SetIncomingFile(IncomingFile *pFile, const char16_t *pszWanted, bool bOverwrite)
{
    CopyTextW(pFile->szWanted, INCOMING_PATH_UNITS, pszWanted);
    SetPath(pFile, pFile->szWanted);
    pFile->bOverwrite = bOverwrite;
    pFile->nNumber    = 1;
    pFile->hFile      = INVALID_HANDLE_VALUE;
    std::fill(std::begin(pFile->ahCopies), std::end(pFile->ahCopies), INVALID_HANDLE_VALUE);
}

// The next free name, with a number of its own.
static bool TakeFreeName(IncomingFile *pFile)
{
    char16_t       szFree[UNIQUE_PATH_UNITS];
    const uint32_t nNumber = FindFreeFileName(pFile->szWanted, pFile->nNumber + 1, szFree);
    if (nNumber == 0) {
        pFile->dwError = ERROR_FILE_EXISTS;
        return false;
    }
    SetPath(pFile, szFree);
    pFile->nNumber = nNumber;
    return true;
}

static HANDLE OpenForWriting(const char16_t *pszPath, uint32_t dwDisposition)
{
    return CreateFileW(pszPath, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, dwDisposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// The part's path: beside the destination, under its name or under the suffix alone. False when there is none.
static bool FormPartPath(IncomingFile *pFile, bool bSuffixAlone)
{
    char16_t     szPlain[LONG_PATH_UNITS];
    char16_t     szLong[LONG_PATH_UNITS];
    const size_t cchFolder = FolderUnits(pFile) + 1;
    if (cchFolder == 1) return false;
    CopyTextW(szPlain, LONG_PATH_UNITS, pFile->szLocal);
    if (TextLengthW(szPlain + cchFolder) + SUFFIX_UNITS > FILE_NAME_UNITS) bSuffixAlone = true;
    if (bSuffixAlone) szPlain[cchFolder] = 0;
    return AppendTextW(szPlain, LONG_PATH_UNITS, RECEIVING_SUFFIX) &&
           CopyTextW(pFile->szPart, LONG_PATH_UNITS, LongPathForm(szPlain, STREAM_PATH_UNITS + 1, szLong));
}

static bool CreatePart(IncomingFile *pFile)
{
    for (const bool bSuffixAlone : {false, true}) {
        if (!FormPartPath(pFile, bSuffixAlone)) break;
        pFile->hFile = OpenForWriting(pFile->szPart, CREATE_ALWAYS);
        if (pFile->hFile != INVALID_HANDLE_VALUE) return true;
        pFile->dwError = GetLastError();
        if (pFile->dwError == ERROR_DISK_FULL || pFile->dwError == ERROR_PATH_NOT_FOUND) break;
    }
    pFile->szPart[0] = 0;
    return false;
}

// The destination itself. A hidden, system or read-only file opens for replacement once it is none of these.
static bool CreateDestination(IncomingFile *pFile)
{
    const uint32_t dwDisposition = pFile->bOverwrite ? CREATE_ALWAYS : CREATE_NEW;
    pFile->hFile                 = OpenForWriting(pFile->szLocal, dwDisposition);
    if (pFile->hFile == INVALID_HANDLE_VALUE) pFile->dwError = GetLastError();
    if (pFile->hFile == INVALID_HANDLE_VALUE && pFile->bOverwrite && pFile->dwError == ERROR_ACCESS_DENIED &&
        SetFileAttributesW(pFile->szLocal, FILE_ATTRIBUTE_NORMAL)) {
        pFile->hFile = OpenForWriting(pFile->szLocal, dwDisposition);
        if (pFile->hFile == INVALID_HANDLE_VALUE) pFile->dwError = GetLastError();
    }
    return pFile->hFile != INVALID_HANDLE_VALUE;
}

static void OpenStoredCopies(IncomingFile *pFile)
{
    StoredReceipt  aReceipts[STORED_COPIES_MAX];
    const uint32_t nReceipts = FindStoredReceipts(pFile->szWanted, pFile->cbSize, aReceipts, STORED_COPIES_MAX);
    for (uint32_t i = 0; i < nReceipts; ++i) {
        char16_t szPath[UNIQUE_PATH_UNITS];
        char16_t szLong[LONG_PATH_UNITS];
        int64_t  cbStored = -1;
        if (!NumberFileName(pFile->szWanted, aReceipts[i].nNumber, szPath)) continue;
        const HANDLE hCopy = CreateFileW(LongPathForm(szPath, STREAM_PATH_UNITS + 1, szLong), GENERIC_READ,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
        if (hCopy == INVALID_HANDLE_VALUE) continue;
        if (!GetFileSizeEx(hCopy, &cbStored) || cbStored != pFile->cbSize) {
            CloseHandle(hCopy);
            continue;
        }
        pFile->ahCopies[i]      = hCopy;
        pFile->anCopies[i]      = aReceipts[i].nNumber;
        pFile->abCopyCounted[i] = aReceipts[i].bCounted;
    }
}

// The folder was there for the file before this one, or was made for this one; somebody has taken it away since.
static void MakeFolderOf(const IncomingFile *pFile)
{
    char16_t szFolder[INCOMING_PATH_UNITS];
    CopyTextW(szFolder, INCOMING_PATH_UNITS, pFile->szPath);
    if (PathCchRemoveFileSpec(szFolder, INCOMING_PATH_UNITS) == 0) CreateFolderTree(szFolder);
}

bool CreateIncomingFile(IncomingFile *pFile, int64_t cbSize)
{
    pFile->cbSize = cbSize;
    if (pFile->dwError != ERROR_SUCCESS) return false;
    const bool     bTaken  = GetFileAttributesW(pFile->szLocal) != INVALID_FILE_ATTRIBUTES;
    const uint32_t dwError = bTaken ? static_cast<uint32_t>(ERROR_SUCCESS) : GetLastError();
    if (bTaken && !pFile->bOverwrite && !TakeFreeName(pFile)) return false;
    if (dwError == ERROR_PATH_NOT_FOUND) MakeFolderOf(pFile);
    // A part is made only beside a name that is free: what exists is replaced in place, so that its access list stays,
    // and what cannot be asked is for the destination's own creation to find out.
    const bool bRenames = g_ullNoRenaming != HashFolder(pFile->szLocal, FolderUnits(pFile));
    bool       bPart =
        bRenames && (bTaken ? !pFile->bOverwrite : dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_PATH_NOT_FOUND);
    for (uint32_t nTry = 0; nTry < NAME_TRIES; ++nTry) {
        if ((bPart && CreatePart(pFile)) || (pFile->dwError != ERROR_DISK_FULL && CreateDestination(pFile))) {
            pFile->bCreated = true;
            pFile->dwError  = ERROR_SUCCESS;
            if (pFile->bJournal) OpenStoredCopies(pFile);
            return true;
        }
        if (pFile->bOverwrite || pFile->dwError != ERROR_FILE_EXISTS) return false;
        pFile->dwError = ERROR_SUCCESS;
        bPart          = bRenames;
        if (!TakeFreeName(pFile)) return false;
    }
    pFile->dwError = ERROR_FILE_EXISTS;
    return false;
}

static void CloseCopy(IncomingFile *pFile, uint32_t i)
{
    if (pFile->ahCopies[i] != INVALID_HANDLE_VALUE) CloseHandle(pFile->ahCopies[i]);
    pFile->ahCopies[i] = INVALID_HANDLE_VALUE;
}

static bool ReadsSame(HANDLE hCopy, const uint8_t *pb, uint32_t cb)
{
    uint8_t aPiece[COMPARE_BYTES];
    while (cb > 0) {
        uint32_t cbRead = 0;
        if (!ReadFile(hCopy, aPiece, std::min(cb, COMPARE_BYTES), &cbRead, nullptr) || cbRead == 0 ||
            std::memcmp(aPiece, pb, cbRead) != 0)
            return false;
        pb += cbRead;
        cb -= cbRead;
    }
    return true;
}

bool WriteIncomingFile(IncomingFile *pFile, const void *pBytes, uint32_t cb)
{
    const auto *pb     = static_cast<const uint8_t *>(pBytes);
    uint32_t    cbDone = 0;
    if (pFile->hFile == INVALID_HANDLE_VALUE) return true;
    for (uint32_t i = 0; i < STORED_COPIES_MAX; ++i)
        if (pFile->ahCopies[i] != INVALID_HANDLE_VALUE && !ReadsSame(pFile->ahCopies[i], pb, cb)) CloseCopy(pFile, i);
    while (cbDone < cb) {
        uint32_t   cbWritten = 0;
        const bool bWritten  = WriteFile(pFile->hFile, pb + cbDone, cb - cbDone, &cbWritten, nullptr) != FALSE;
        if (!bWritten || cbWritten == 0) { // a device takes nothing and calls that success
            pFile->dwError = bWritten ? static_cast<uint32_t>(ERROR_WRITE_FAULT) : GetLastError();
            CloseIncomingFile(pFile);
            return false;
        }
        cbDone += cbWritten;
    }
    return true;
}

void CloseIncomingFile(IncomingFile *pFile)
{
    if (pFile->hFile != INVALID_HANDLE_VALUE) CloseHandle(pFile->hFile);
    pFile->hFile = INVALID_HANDLE_VALUE;
    for (uint32_t i = 0; i < STORED_COPIES_MAX; ++i) CloseCopy(pFile, i);
}

void DropIncomingFile(IncomingFile *pFile)
{
    CloseIncomingFile(pFile);
    // A destination that could not be created is somebody else's file, or none.
    if (pFile->bCreated) DeleteFileW(pFile->szPart[0] != 0 ? pFile->szPart : pFile->szLocal);
    pFile->bCreated = false;
}

// The stored file that is the same to the last byte stays, and what came again goes.
static bool KeepStoredCopy(IncomingFile *pFile)
{
    for (uint32_t i = 0; i < STORED_COPIES_MAX; ++i) {
        char16_t szPath[UNIQUE_PATH_UNITS];
        if (pFile->ahCopies[i] == INVALID_HANDLE_VALUE) continue;
        if (!NumberFileName(pFile->szWanted, pFile->anCopies[i], szPath)) continue;
        const bool bCounted = pFile->abCopyCounted[i];
        DropIncomingFile(pFile);
        SetPath(pFile, szPath);
        pFile->nNumber  = pFile->anCopies[i];
        pFile->bKept    = true;
        pFile->bCounted = bCounted;
        ForgetStoredReceipt(pFile->szWanted, pFile->nNumber); // a second file of that destination is another one
        return true;
    }
    return false;
}

static bool MayPass(uint32_t dwError)
{
    return dwError == ERROR_SHARING_VIOLATION || dwError == ERROR_ACCESS_DENIED || dwError == ERROR_LOCK_VIOLATION;
}

static bool NameFile(IncomingFile *pFile)
{
    const uint64_t ullEnd = GetTickCount64() + NAMING_MS;
    if (pFile->bJournal) NoteReceipt(pFile->szWanted, pFile->nNumber, pFile->cbSize);
    while (!MoveFileExW(pFile->szPart, pFile->szLocal, pFile->bOverwrite ? MOVEFILE_REPLACE_EXISTING : 0)) {
        pFile->dwError   = GetLastError();
        const bool bLate = GetTickCount64() >= ullEnd;
        if (pFile->dwError == ERROR_ALREADY_EXISTS || pFile->dwError == ERROR_FILE_EXISTS) {
            if (bLate || pFile->bOverwrite || !TakeFreeName(pFile)) return false;
            if (pFile->bJournal) NoteReceipt(pFile->szWanted, pFile->nNumber, pFile->cbSize);
            continue;
        }
        if (bLate && pFile->dwError == ERROR_ACCESS_DENIED)
            g_ullNoRenaming = HashFolder(pFile->szLocal, FolderUnits(pFile));
        if (bLate || !MayPass(pFile->dwError)) return false;
        if (pFile->bOverwrite) SetFileAttributesW(pFile->szLocal, FILE_ATTRIBUTE_NORMAL); // if a read-only one is there
        ReleaseAnswers(); // the files before this one are stored
        Sleep(NAMING_PAUSE_MS);
    }
    pFile->szPart[0] = 0;
    return true;
}

bool FinishIncomingFile(IncomingFile *pFile)
{
    if (KeepStoredCopy(pFile)) return true;
    CloseIncomingFile(pFile);
    if (pFile->szPart[0] == 0) {
        if (pFile->bJournal) NoteReceipt(pFile->szWanted, pFile->nNumber, pFile->cbSize);
    } else if (!NameFile(pFile)) {
        return false;
    }
    pFile->bCreated = false; // from here on it is the user's
    pFile->dwError  = ERROR_SUCCESS;
    return true;
}

// Folders that were looked into, by hash, each in the one place that its hash gives it: a place is small, and a folder
// that lost its own is looked into again, which costs time and nothing else.
static std::atomic<uint64_t> g_aullSwept[SWEPT_FOLDERS];

bool IsPartName(const char16_t *pszName)
{
    const size_t cchName = TextLengthW(pszName);
    return cchName >= SUFFIX_UNITS && CompareTextNoCaseW(pszName + cchName - SUFFIX_UNITS, RECEIVING_SUFFIX) == 0;
}

void SweepParts(const char16_t *pszFolder)
{
    char16_t         szPath[LONG_PATH_UNITS];
    char16_t         szLong[LONG_PATH_UNITS];
    WIN32_FIND_DATAW data;
    const uint64_t   ullFolder = HashFolder(pszFolder, TextLengthW(pszFolder));
    if (g_aullSwept[ullFolder % SWEPT_FOLDERS].exchange(ullFolder) == ullFolder) return;
    if (FormatTextW(szPath, LONG_PATH_UNITS, u"%s\\*", pszFolder) < 0) return;
    const HANDLE hFind = FindFirstFileW(LongPathForm(szPath, STREAM_PATH_UNITS + 1, szLong), &data);
    if (hFind == INVALID_HANDLE_VALUE) return;
    do {
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 || !IsPartName(data.cFileName)) continue;
        if (FormatTextW(szPath, LONG_PATH_UNITS, u"%s\\%s", pszFolder, data.cFileName) >= 0)
            DeleteFileW(LongPathForm(szPath, STREAM_PATH_UNITS + 1, szLong)); // fails for one that is being written
    } while (FindNextFileW(hFind, &data));
    FindClose(hFind);
}

void ForgetSweptFolders()
{
    for (std::atomic<uint64_t> &ullFolder : g_aullSwept) ullFolder = 0;
}
