// record_rules.cpp: the table.
#include "ipc/record_rules.h"
#include <iterator>

constexpr uint32_t REQUEST = IPC_PARAM_REQUEST, DONE = IPC_PARAM_DONE, FAILED = IPC_PARAM_FAILED;
constexpr uint32_t ANY = ANY_PARAM, KEEP = KEEP_PARAM, MOST = 0xFFFFFFFF;
constexpr bool     OWN = true, PEER = true, NO = false;
constexpr auto     PASS = RecordAction::Pass;

// clang-format off
constexpr RecordRule RULES[] = {
    // code, first parameter, third, the own service's second, from whom, what is done,
    //     turned into: code, second and third parameter, texts, mapped ones
    {NTOS_ERRORCONTROL, 101, MOST, ANY, 0, MOST, NO, PEER, PASS, NTOS_ERRORCONTROL, KEEP, KEEP, 0, 0},
    {NTOS_FAILITEMS, 0, 2, ANY, 0, MOST, NO, PEER, RecordAction::PassLongText, NTOS_FAILITEMS, KEEP, KEEP, 0, 0},
    {NTOS_USERCONTROL, 1, 1, ANY, 0, MOST, NO, PEER, PASS, NTOS_USERCONTROL, KEEP, KEEP, 0, 0},
    {ATOS_UPDATEPERCENTAGE, 0, 100, ANY, 0, MOST, OWN, PEER, PASS, ATOS_UPDATEPERCENTAGE, KEEP, KEEP, 1, 0},
    {ATOS_UPDATEPERCENTAGE, IPC_PARAM_TOTAL, IPC_PARAM_TOTAL, ANY, 0, MOST, OWN, PEER, RecordAction::BeginProgress,
     0, KEEP, KEEP, 0, 0},
    {STON_COLLECTIONFOLDERS, REQUEST, REQUEST, ANY, 0, MOST, OWN, PEER, PASS,
     NTOS_COLLECTIONFOLDERS, KEEP, KEEP, 2, 0},
    {NTOS_COLLECTIONFOLDERS, 2, 27, ANY, 0, MOST, OWN, PEER, PASS, STON_COLLECTIONFOLDERS, KEEP, KEEP, 2, 0b011},
    {STON_COLLECTIONFILES, REQUEST, REQUEST, ANY, 0, MOST, OWN, PEER, PASS, NTOS_COLLECTIONFILES, KEEP, KEEP, 3, 0},
    {NTOS_COLLECTIONFILES, DONE, DONE, ANY, 0, MOST, OWN, PEER, PASS, STON_COLLECTIONFILES, KEEP, 0, 3, 0b110},
    {STON_SYSTEMSETTINGSUPPORTED, REQUEST, REQUEST, ANY, 0, MOST, OWN, PEER, PASS,
     NTOS_SYSTEMSETTINGSUPPORTED, KEEP, KEEP, 1, 0},
    {NTOS_SYSTEMSETTINGSUPPORTED, DONE, DONE, ANY, 0, MOST, OWN, PEER, PASS,
     STON_SYSTEMSETTINGSUPPORTED, KEEP, KEEP, 1, 0b001},
    {STON_APPLICATIONSUPPORTED, REQUEST, REQUEST, ANY, 0, MOST, OWN, PEER, PASS,
     NTOS_APPLICATIONSUPPORTED, 0, 1, 1, 0},
    {NTOS_APPLICATIONSUPPORTED, DONE, DONE, ANY, 0, MOST, OWN, PEER, PASS,
     STON_APPLICATIONSUPPORTED, KEEP, 1, 1, 0b001},
    {STON_MIGRATIONOPTIONS, REQUEST, REQUEST, ANY, 0, MOST, OWN, PEER, PASS, NTOS_MIGRATIONOPTIONS, KEEP, 0, 0, 0},
    {STON_MIGRATIONCOLLECTION, REQUEST, REQUEST, ANY, 0, 0, OWN, PEER, RecordAction::BeginCollection,
     0, KEEP, KEEP, 1, 0},
    {STON_MIGRATIONCOLLECTION, DONE, DONE, ANY, 0, MOST, NO, PEER, PASS, STON_MIGRATIONCOLLECTION, 0, 0, 1, 0},
    {STON_MIGRATIONCOLLECTION, FAILED, FAILED, ANY, 0, MOST, NO, PEER, PASS, STON_MIGRATIONCOLLECTION, 0, 0, 1, 0},
    {STON_MIGRATIONSYSTEMSETTING, REQUEST, REQUEST, 0, 1, 11, OWN, PEER, PASS,
     NTOS_MIGRATIONSYSTEMSETTING, KEEP, 1, 1, 0},
    {NTOS_MIGRATIONSYSTEMSETTING, DONE, DONE, 1, 1, 11, OWN, PEER, PASS, STON_MIGRATIONSYSTEMSETTING, KEEP, 0, 1, 0},
    {NTOS_MIGRATIONSYSTEMSETTING, FAILED, FAILED, 1, 1, 11, OWN, PEER, PASS,
     STON_MIGRATIONSYSTEMSETTING, KEEP, 0, 1, 0},
    {STON_MIGRATIONAPPLICATION, REQUEST, REQUEST, 0, 0, MOST, OWN, PEER, PASS,
     NTOS_MIGRATIONAPPLICATION, KEEP, 1, 2, 0},
    {NTOS_MIGRATIONAPPLICATION, DONE, DONE, 1, 0, MOST, OWN, PEER, PASS, STON_MIGRATIONAPPLICATION, KEEP, 0, 2, 0},
    {NTOS_MIGRATIONAPPLICATION, FAILED, FAILED, 1, 0, MOST, OWN, PEER, PASS,
     STON_MIGRATIONAPPLICATION, KEEP, 0, 2, 0},
    {STON_SETPROGRESS, 3, 4, ANY, 0, MOST, OWN, PEER, RecordAction::CancelAndPass, NTOS_SETPROGRESS, 0, 0, 0, 0},
};
// clang-format on

static bool Fits(const RecordRule &rule, const IpcMessage *pRecord, RecordOrigin eOrigin)
{
    const bool bOwn = eOrigin == RecordOrigin::OwnService;
    if (rule.dwCommand != pRecord->dwCommand || !(bOwn ? rule.bFromService : rule.bFromPeer)) return false;
    if (pRecord->dwParam1 < rule.dwParam1First || pRecord->dwParam1 > rule.dwParam1Last) return false;
    if (rule.dwParam3 != ANY_PARAM && pRecord->dwParam3 != rule.dwParam3) return false;
    return !bOwn || (pRecord->dwParam2 >= rule.dwParam2First && pRecord->dwParam2 <= rule.dwParam2Last);
}

const RecordRule *FindRecordRule(const IpcMessage *pRecord, RecordOrigin eOrigin)
{
    for (const RecordRule &rule : RULES)
        if (Fits(rule, pRecord, eOrigin)) return &rule;
    return nullptr;
}
