// record_index.cpp: open addressing with linear steps in 256 tables chosen by the hash's top bits, so that no growth
// ever holds two copies of more than a small part of the whole.
#include "migration/record_index.h"
#include "platform/text.h"
#include <new>

using namespace platform;

constexpr uint32_t TABLES        = 256;
constexpr uint32_t FIRST_SLOTS   = 16;
constexpr uint64_t FOLDER_BIT    = 1; // of a slot: state 2
constexpr uint64_t HASH_MULTIPLY = 0x9E3779B97F4A7C15;

struct RecordTable {
    uint64_t *pSlots; // 0: free
    uint32_t  nSlots;
    uint32_t  nUsed;
};
static RecordTable g_aTables[TABLES];

static uint64_t MixText(uint64_t ullHash, const char16_t *pszText)
{
    for (; *pszText != 0; ++pszText) {
        ullHash = (ullHash ^ *pszText) * HASH_MULTIPLY;
        ullHash ^= ullHash >> 32;
    }
    return (ullHash ^ 0xFFFF0000) * HASH_MULTIPLY; // no unit has this value: where the text ends counts
}

uint64_t HashRecord(const char16_t *pszSection, const char16_t *pszKey)
{
    uint64_t ullHash = MixText(0x243F6A8885A308D3, pszSection);
    if (pszKey != nullptr) ullHash = MixText(ullHash ^ ullHash >> 29, pszKey);
    ullHash ^= ullHash >> 30;
    ullHash *= 0xBF58476D1CE4E5B9;
    ullHash ^= ullHash >> 27;
    ullHash *= 0x94D049BB133111EB;
    ullHash ^= ullHash >> 31;
    ullHash &= ~FOLDER_BIT;
    return ullHash != 0 ? ullHash : FOLDER_BIT << 1;
}

// The slot that holds the hash, or the free one where it belongs.
static uint64_t *SlotOf(const RecordTable *pTable, uint64_t ullHash)
{
    auto i = static_cast<uint32_t>(((ullHash >> 1 & 0xFFFFFFFF) * pTable->nSlots) >> 32);
    while (pTable->pSlots[i] != 0 && (pTable->pSlots[i] & ~FOLDER_BIT) != ullHash)
        i = i + 1 < pTable->nSlots ? i + 1 : 0;
    return &pTable->pSlots[i];
}

static bool GrowTable(RecordTable *pTable)
{
    const uint32_t nSlots = pTable->nSlots == 0 ? FIRST_SLOTS : pTable->nSlots + pTable->nSlots / 4;
    RecordTable    larger = {new (std::nothrow) uint64_t[nSlots](), nSlots, pTable->nUsed};
    if (larger.pSlots == nullptr) return false;
    for (uint32_t i = 0; i < pTable->nSlots; ++i)
        if (pTable->pSlots[i] != 0) *SlotOf(&larger, pTable->pSlots[i] & ~FOLDER_BIT) = pTable->pSlots[i];
    delete[] pTable->pSlots;
    *pTable = larger;
    return true;
}

int32_t FindRecord(uint64_t ullHash)
{
    const RecordTable *pTable = &g_aTables[ullHash >> 56];
    if (pTable->nSlots == 0) return 0;
    const uint64_t ullSlot = *SlotOf(pTable, ullHash);
    return ullSlot == 0 ? 0 : (ullSlot & FOLDER_BIT) != 0 ? 2 : 1;
}

bool PutRecord(uint64_t ullHash, int32_t nState)
{
    RecordTable *pTable = &g_aTables[ullHash >> 56];
    if (FindRecord(ullHash) == 0) {
        if (pTable->nUsed >= pTable->nSlots - pTable->nSlots / 8 && !GrowTable(pTable)) return false;
        ++pTable->nUsed;
    }
    *SlotOf(pTable, ullHash) = nState == 2 ? ullHash | FOLDER_BIT : ullHash;
    return true;
}

void ClearRecords()
{
    for (auto &table : g_aTables) {
        delete[] table.pSlots;
        table = {};
    }
}
