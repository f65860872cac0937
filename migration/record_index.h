// record_index.h: which records recordinfo.ini holds, as hashes of section and key.
// Memory   8 bytes for each record and at most a third more, in 256 tables that grow one at a time: a million records
//          stay below 12 MiB, also while they grow. A hash has 63 bits: among a million records and as many questions,
//          a wrong "sent" has a chance of about one in ten million.
// Thread   the collection walk's.
#pragma once
#include <cstdint>

// Section and key compare without regard to case. A null key: the section itself. Bit 0 is clear, the rest not.
uint64_t HashRecord(const char16_t *pszSection, const char16_t *pszKey);
// 0 when it is not there, else 1 or 2.
int32_t FindRecord(uint64_t ullHash);
// Adds or replaces. False without memory.
bool PutRecord(uint64_t ullHash, int32_t nState);
void ClearRecords();
