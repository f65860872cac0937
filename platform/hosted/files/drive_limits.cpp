// drive_limits.cpp: how much further data a drive takes, as a test or the environment sets it.
// What counts is growth: a write over existing bytes needs no room.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include <atomic>

namespace hosted {
namespace {

constexpr int64_t NO_LIMIT = INT64_MAX;

std::atomic<int64_t> g_aRoom[26] = {NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT,
                                    NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT,
                                    NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT,
                                    NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT};

const OnUseMachine g_Reset([] {
    for (std::atomic<int64_t> &cbRoom : g_aRoom) cbRoom.store(NO_LIMIT);
});

} // namespace

void SetDriveLimit(char chDrive, int64_t cbFree)
{
    const int nDrive = (chDrive & ~32) - 'A';
    if (nDrive < 0 || nDrive >= 26) Fatal("SetDriveLimit: no drive '%c'", chDrive);
    g_aRoom[nDrive].store(cbFree < 0 ? NO_LIMIT : cbFree);
}

bool TakeRoom(char chDrive, int64_t cb)
{
    if (cb <= 0) return true;
    std::atomic<int64_t> &cbRoom = g_aRoom[chDrive - 'A'];
    int64_t               cbHere = cbRoom.load(std::memory_order_relaxed);
    do {
        if (cbHere == NO_LIMIT) return true;
        if (cbHere < cb) {
            SetError(platform::ERROR_DISK_FULL);
            return false;
        }
    } while (!cbRoom.compare_exchange_weak(cbHere, cbHere - cb));
    return true;
}

} // namespace hosted
