// receipt_journal.cpp: a ring of small notes in a file of fixed size.
// The order of things decides what a kill can do. A note is written before the file gets its name: killed in between,
// it names a file that is not there (or not the same, which the comparison finds), and the file is stored as if nothing
// had been. Killed later, the file that comes again is known. "ProgressSize" grows before the peer gets its answer, so
// a file that is not sent again has been counted; the last note tells, by the value from before, whether its file has.
#include "migration/receipt_journal.h"
#include "migration/machine_info.h"
#include "migration/state_files.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/made_once.h"
#include "platform/profile.h"
#include "platform/security.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <new>

using namespace platform;

constexpr char16_t RECEIPT_FILE[]  = u"receipts.dat";
constexpr uint32_t JOURNAL_MARK    = 0x4A524E56; // "VNRJ"
constexpr uint32_t JOURNAL_VERSION = 1;
constexpr uint32_t RECEIPT_MARK    = 0x54434552; // "RECT"
constexpr size_t   IDENTITY_UNITS  = 260;
constexpr uint64_t HASH_START      = 14695981039346656037u; // FNV-1a
constexpr uint64_t HASH_FACTOR     = 1099511628211u;

static_assert(std::endian::native == std::endian::little, "slots go out as they lie in memory");

struct HeaderSlot {
    uint32_t dwMark;
    uint32_t dwVersion;
    uint64_t ullRing; // the number that this ring's receipts carry
    uint64_t ullPeer; // hash of computer name and user
    uint8_t  aReserved[32];
    uint64_t ullChecksum; // of the bytes before
};
struct ReceiptSlot {
    uint32_t dwMark;
    uint32_t nNumber;
    uint64_t ullRing;
    uint64_t ullSequence;    // one more than the slot's before
    uint64_t ullDestination; // hash
    int64_t  cbSize;
    uint64_t ullProgress; // "ProgressSize" before this file was counted
    uint8_t  aReserved[8];
    uint64_t ullChecksum;
};
constexpr uint32_t SLOT_BYTES = 64;
static_assert(sizeof(HeaderSlot) == SLOT_BYTES && offsetof(HeaderSlot, ullPeer) == 16 &&
              offsetof(HeaderSlot, ullChecksum) == 56);
static_assert(sizeof(ReceiptSlot) == SLOT_BYTES && offsetof(ReceiptSlot, ullSequence) == 16 &&
              offsetof(ReceiptSlot, ullProgress) == 40 && offsetof(ReceiptSlot, ullChecksum) == 56);
constexpr uint32_t JOURNAL_BYTES = (RECEIPT_SLOTS + 1) * SLOT_BYTES;

static CRITICAL_SECTION g_csReceipts;

// [g_csReceipts] The journal while it is open: from a request's first file to the request's end.
struct Journal {
    bool         bTried; // opened, or found impossible: not tried again in this request
    HANDLE       hFile;
    uint64_t     ullRing;
    uint64_t     ullNext;  // the next receipt's sequence
    ReceiptSlot *pEarlier; // receipts of earlier requests, oldest first; a forgotten one has no mark
    uint32_t     nEarlier;
    uint64_t     ullUncounted; // sequence of the last one if its file has not been counted, else 0
    uint64_t     ullProgress;  // as last heard
};
static Journal g_journal         = {false, INVALID_HANDLE_VALUE, 0, 1, nullptr, 0, 0, 0};
static bool    g_bMigrationEnded = false; // [g_csReceipts] the next opening, or the link's end, begins a new ring

static uint64_t HashBytes(uint64_t ullHash, const void *pBytes, size_t cb)
{
    const auto *pb = static_cast<const uint8_t *>(pBytes);
    for (size_t i = 0; i < cb; ++i) ullHash = (ullHash ^ pb[i]) * HASH_FACTOR;
    return ullHash;
}

static uint64_t HashText(uint64_t ullHash, const char16_t *pszText)
{
    return HashBytes(ullHash, pszText, (TextLengthW(pszText) + 1) * sizeof(char16_t));
}

template <class Slot> static uint64_t ChecksumOf(const Slot &slot)
{
    return HashBytes(HASH_START, &slot, offsetof(Slot, ullChecksum));
}

// What names the peer of this migration; 0 when it does not say who it is.
static uint64_t HashPeer()
{
    char16_t szFile[STATE_PATH_UNITS], szName[IDENTITY_UNITS], szUser[IDENTITY_UNITS];
    if (!GetProgressFile(TARGET_INFO_FILE, szFile)) return 0;
    GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, COMPUTER_NAME_KEY, u"", szName, IDENTITY_UNITS, szFile);
    GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, CURRENT_USER_KEY, u"", szUser, IDENTITY_UNITS, szFile);
    if (szName[0] == 0 && szUser[0] == 0) return 0;
    return HashText(HashText(HASH_START, szName), szUser);
}

static bool WriteAt(HANDLE hFile, int64_t cbOffset, const void *pBytes, uint32_t cb)
{
    uint32_t cbWritten = 0;
    return SetFilePointerEx(hFile, cbOffset, nullptr, FILE_BEGIN) &&
           WriteFile(hFile, pBytes, cb, &cbWritten, nullptr) && cbWritten == cb;
}

// A ring of its own for this peer: what the old one's slots hold is nothing from here on.
static bool BeginRing(uint64_t ullPeer, uint64_t ullOldRing)
{
    HeaderSlot header  = {JOURNAL_MARK, JOURNAL_VERSION, std::max(ullOldRing + 1, GetTickCount64()), ullPeer, {}, 0};
    header.ullChecksum = ChecksumOf(header);
    if (!WriteAt(g_journal.hFile, 0, &header, sizeof(header))) return false;
    g_journal.ullRing = header.ullRing;
    return true;
}

// The file in its full size, with a slot 0 that counts for nothing yet.
static HANDLE CreateJournal(const char16_t *pszFile)
{
    auto                *pZeros    = new (std::nothrow) uint8_t[JOURNAL_BYTES]();
    SECURITY_ATTRIBUTES *pSecurity = CreateEveryoneSecurity(FILE_EVERYONE_ACCESS);
    HANDLE               hFile     = INVALID_HANDLE_VALUE;
    if (pZeros != nullptr && pSecurity != nullptr) // the agent of another session may carry on
        hFile = CreateFileW(pszFile, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, pSecurity, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE && !WriteAt(hFile, 0, pZeros, JOURNAL_BYTES)) {
        const uint32_t dwError = GetLastError();
        CloseHandle(hFile);
        DeleteFileW(pszFile);
        SetLastError(dwError);
        hFile = INVALID_HANDLE_VALUE;
    }
    FreeSecurity(pSecurity);
    delete[] pZeros;
    return hFile;
}

// The receipts of the ring into pEarlier, oldest first.
static void TakeReceipts(const uint8_t *pbFile)
{
    for (uint32_t i = 1; i <= RECEIPT_SLOTS; ++i) {
        ReceiptSlot slot;
        std::memcpy(&slot, pbFile + static_cast<size_t>(i) * SLOT_BYTES, sizeof(slot));
        if (slot.dwMark == RECEIPT_MARK && slot.ullRing == g_journal.ullRing && slot.ullChecksum == ChecksumOf(slot))
            g_journal.pEarlier[g_journal.nEarlier++] = slot;
    }
    std::sort(g_journal.pEarlier, g_journal.pEarlier + g_journal.nEarlier,
              [](const ReceiptSlot &a, const ReceiptSlot &b) { return a.ullSequence < b.ullSequence; });
    if (g_journal.nEarlier == 0) return;
    const ReceiptSlot &last = g_journal.pEarlier[g_journal.nEarlier - 1];
    g_journal.ullNext       = last.ullSequence + 1;
    if (last.ullProgress == g_journal.ullProgress) g_journal.ullUncounted = last.ullSequence;
}

// Reads the file and takes its ring, or begins one. False: nothing can be noted.
static bool LoadJournal(uint64_t ullPeer)
{
    HeaderSlot header  = {};
    uint32_t   cbRead  = 0;
    auto      *pbFile  = new (std::nothrow) uint8_t[JOURNAL_BYTES]();
    g_journal.pEarlier = new (std::nothrow) ReceiptSlot[RECEIPT_SLOTS];
    bool bLoaded       = pbFile != nullptr && g_journal.pEarlier != nullptr &&
                   ReadFile(g_journal.hFile, pbFile, JOURNAL_BYTES, &cbRead, nullptr);
    if (bLoaded) {
        std::memcpy(&header, pbFile, sizeof(header));
        const bool bWhole = cbRead == JOURNAL_BYTES && header.dwMark == JOURNAL_MARK &&
                            header.dwVersion == JOURNAL_VERSION && header.ullChecksum == ChecksumOf(header);
        if (bWhole && header.ullPeer == ullPeer && !g_bMigrationEnded) {
            g_journal.ullRing = header.ullRing;
            TakeReceipts(pbFile);
        } else {
            bLoaded = BeginRing(ullPeer, bWhole ? header.ullRing : 0);
        }
    }
    delete[] pbFile;
    return bLoaded;
}

static void CloseJournal()
{
    if (g_journal.hFile != INVALID_HANDLE_VALUE) CloseHandle(g_journal.hFile);
    delete[] g_journal.pEarlier;
    g_journal = {false, INVALID_HANDLE_VALUE, 0, 1, nullptr, 0, 0, 0};
}

// The file, made when it may be; positioned at its beginning.
static HANDLE OpenJournalFile(const char16_t *pszFile, bool bMayMake)
{
    int64_t cbFile = 0;
    HANDLE  hFile  = CreateFileW(pszFile, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE && GetFileSizeEx(hFile, &cbFile) && cbFile == JOURNAL_BYTES) return hFile;
    const bool bOther = hFile != INVALID_HANDLE_VALUE; // cut short, or another version's
    if (bOther) CloseHandle(hFile);
    else if (GetLastError() != ERROR_FILE_NOT_FOUND || !bMayMake) return INVALID_HANDLE_VALUE;
    hFile = CreateJournal(pszFile);
    if (hFile != INVALID_HANDLE_VALUE) SetFilePointerEx(hFile, 0, nullptr, FILE_BEGIN);
    return hFile;
}

// True while there is a journal.
static bool OpenJournal(bool bMayMake)
{
    char16_t szFile[STATE_PATH_UNITS];
    if (g_journal.bTried && !g_bMigrationEnded) return g_journal.hFile != INVALID_HANDLE_VALUE;
    CloseJournal();
    g_journal.bTried       = true;
    g_journal.ullProgress  = GetProgressSize(0);
    const uint64_t ullPeer = HashPeer();
    if (ullPeer != 0 && GetProgressFile(RECEIPT_FILE, szFile)) {
        g_journal.hFile = OpenJournalFile(szFile, bMayMake);
        if (g_journal.hFile == INVALID_HANDLE_VALUE ? bMayMake : !LoadJournal(ullPeer)) {
            TraceValueText("!!OpenJournal", GetLastError(), szFile, STATE_PATH_UNITS);
            CloseJournal();
            g_journal.bTried = true;
        }
    }
    g_bMigrationEnded = false;
    return g_journal.hFile != INVALID_HANDLE_VALUE;
}

static void Note(uint64_t ullDestination, uint32_t nNumber, int64_t cbSize)
{
    ReceiptSlot slot = {
        RECEIPT_MARK, nNumber, g_journal.ullRing, g_journal.ullNext, ullDestination, cbSize, g_journal.ullProgress,
        {},           0};
    slot.ullChecksum       = ChecksumOf(slot);
    const uint64_t ullSlot = 1 + g_journal.ullNext % RECEIPT_SLOTS;
    ++g_journal.ullNext;
    if (!WriteAt(g_journal.hFile, static_cast<int64_t>(ullSlot * SLOT_BYTES), &slot, sizeof(slot)))
        TraceValueText("!!NoteReceipt", GetLastError(), RECEIPT_FILE, STATE_PATH_UNITS);
}

static uint32_t Find(uint64_t ullDestination, int64_t cbSize, StoredReceipt *pReceipts, uint32_t nMax)
{
    uint32_t nFound = 0;
    for (uint32_t i = g_journal.nEarlier; i > 0 && nFound < nMax; --i) {
        const ReceiptSlot &slot = g_journal.pEarlier[i - 1];
        if (slot.dwMark != RECEIPT_MARK || slot.ullDestination != ullDestination || slot.cbSize != cbSize) continue;
        const bool bKnown = std::any_of(pReceipts, pReceipts + nFound,
                                        [&](const StoredReceipt &receipt) { return receipt.nNumber == slot.nNumber; });
        if (!bKnown) pReceipts[nFound++] = {slot.nNumber, slot.ullSequence != g_journal.ullUncounted};
    }
    return nFound;
}

static void EnterJournal()
{
    EnterCriticalSection(MadeOnce<&g_csReceipts>());
}
static void LeaveJournal()
{
    LeaveCriticalSection(MadeOnce<&g_csReceipts>());
}

void NoteReceipt(const char16_t *pszDestination, uint32_t nNumber, int64_t cbSize)
{
    EnterJournal();
    if (OpenJournal(true)) Note(HashText(HASH_START, pszDestination), nNumber, cbSize);
    LeaveJournal();
}

uint32_t FindStoredReceipts(const char16_t *pszDestination, int64_t cbSize, StoredReceipt *pReceipts, uint32_t nMax)
{
    EnterJournal();
    const bool     bAny   = OpenJournal(true) && g_journal.nEarlier != 0;
    const uint32_t nFound = bAny ? Find(HashText(HASH_START, pszDestination), cbSize, pReceipts, nMax) : 0;
    LeaveJournal();
    return nFound;
}

void ForgetStoredReceipt(const char16_t *pszDestination, uint32_t nNumber)
{
    const uint64_t ullDestination = HashText(HASH_START, pszDestination);
    EnterJournal();
    for (uint32_t i = 0; i < g_journal.nEarlier; ++i) {
        ReceiptSlot &slot = g_journal.pEarlier[i];
        if (slot.ullDestination == ullDestination && slot.nNumber == nNumber) slot.dwMark = 0;
    }
    LeaveJournal();
}

void NoteReceiptProgress(uint64_t ullProgress)
{
    EnterJournal();
    g_journal.ullProgress = ullProgress;
    LeaveJournal();
}

void EndReceiptRequest(bool bComplete)
{
    EnterJournal();
    if (bComplete) g_bMigrationEnded = true;
    else CloseJournal();
    LeaveJournal();
}

void CloseReceiptJournal()
{
    EnterJournal();
    if (g_bMigrationEnded) OpenJournal(false); // which begins the new ring
    CloseJournal();
    LeaveJournal();
}
