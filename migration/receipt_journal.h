// receipt_journal.h: what this machine has stored of a migration, so that a file that comes again is known.
// Why      A sender that was cut off before it had the answer sends the file again, and on the wire nothing tells it
//          from another file of that destination. The journal says which files of that destination an earlier request
//          of the same migration stored, and under which name; comparing their bytes (incoming_file.h) decides.
// File     "receipts.dat" in the progress folder: 64 bytes a slot, little-endian. Slot 0 says whose migration this is,
//          the others are a ring. It has its full size from the start, so that a full disk cannot stop a note. A slot
//          counts with the right checksum and the ring's present number alone, so what is torn or old is nothing.
// Whose    One migration: one peer (computer name and user of targetinfo.ini), until the peer reports its collection
//          complete. A peer that says neither has no journal, nor has a second agent while the first one uses the file.
// Request  Files of the request under way are never taken for each other: two of its files that go to one destination
//          are two. A request ends with the peer's report (8480) or with the link.
// Threads  any; one lock of its own, held while the file is read or written.
#pragma once
#include <cstdint>

constexpr uint32_t RECEIPT_SLOTS = 4096; // files that are remembered

struct StoredReceipt {
    uint32_t nNumber;  // of the name under which it was stored (unique_name.h)
    bool     bCounted; // it is in the collection's "ProgressSize" already
};

// Notes that a file is about to get its name; a note without file, or with another one in its place, does no harm.
// A failure is traced at most: the file may then come twice.
//   pszDestination  as the peer sent it
void NoteReceipt(const char16_t *pszDestination, uint32_t nNumber, int64_t cbSize);
// Receipts of earlier requests with that destination (exactly: names that differ by case are two) and size, newest
// first. Their number, at most nMax.
uint32_t FindStoredReceipts(const char16_t *pszDestination, int64_t cbSize, StoredReceipt *pReceipts, uint32_t nMax);
// This one has been met again; no further file is compared with it in this request.
void ForgetStoredReceipt(const char16_t *pszDestination, uint32_t nNumber);
// What "ProgressSize" says now.
void NoteReceiptProgress(uint64_t ullProgress);
// The peer has reported the end of its collection. A complete one ends the migration, though not before the link's next
// file or its end: should this process die before the service has the report, the service asks for all of it again.
void EndReceiptRequest(bool bComplete);
// The link has ended.
void CloseReceiptJournal();
