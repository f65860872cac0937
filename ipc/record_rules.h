// record_rules.h: the one table of the records that travel between the two services: which are accepted, from the own
// service or from the peer, and what a record of the peer becomes for the own service.
// A request (STON_) arrives as NTOS_ at the service that is to answer it; its answer arrives as STON_ at the service
// that had asked. The third parameter marks the leg of the system-setting and application exchanges, 0 the request and
// 1 the answer: both services test it, so the values that a row forces are part of the exchange.
// Threads  any; constant.
#pragma once
#include "ipc/ipc_message.h"
#include <cstdint>

enum class RecordOrigin { OwnService, Peer };

// What is done with a record of the peer.
enum class RecordAction : uint8_t {
    Pass,            // to the own service, as the row says
    PassLongText,    // the same with its one long text
    BeginProgress,   // nothing: the total that received special files count against
    BeginCollection, // nothing: the walk begins
    CancelAndPass,   // running transfers are cancelled first
};

constexpr uint32_t ANY_PARAM  = 0xFFFFFFFF; // of dwParam3
constexpr uint32_t KEEP_PARAM = 0xFFFFFFFF; // of the turned record's parameters

struct RecordRule {
    uint32_t     dwCommand;
    uint32_t     dwParam1First, dwParam1Last; // unsigned, both included
    uint32_t     dwParam3;                    // exactly this, or ANY_PARAM
    uint32_t     dwParam2First, dwParam2Last; // asked of the own service's records alone
    bool         bFromService;                // accepted from the own service, for the peer
    bool         bFromPeer;                   // accepted from the peer
    RecordAction eAction;
    uint32_t     dwTurned;       // the code for the own service
    uint32_t     dwTurnedParam2; // or KEEP_PARAM
    uint32_t     dwTurnedParam3; // or KEEP_PARAM
    uint8_t      nTexts;         // how many texts go with it
    uint8_t      nMapped;        // bit n: text n + 1 is a path below root P, told as one below root A
};

// The row that the record fits exactly, or null: a record that fits none is an answer on its way to somebody else, or
// an older service's, and must start nothing.
const RecordRule *FindRecordRule(const IpcMessage *pRecord, RecordOrigin eOrigin);
