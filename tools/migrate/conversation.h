// conversation.h: migrate as the service of its own agent: starts it, sends records, waits for records.
#pragma once
#include "ipc/ipc_message.h"
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>

// What the two migrates tell each other in parameter 2 of the options' record (8224, heard as 8240).
enum class PeerNote : uint32_t { Hello = 1001, Moving, AllThere, SomeFailed, BrokenOff, OnlyLooked };

struct Trouble { // one sentence each
    std::string sCause, sAdvice;
};

// Becomes the service, and starts the agent beside this program unless one runs. False with *pTrouble.
bool OpenConversation(Trouble *pTrouble);
// Ends the link, and the agent when this program started it.
void CloseConversation();

bool SendRecord(uint32_t dwCode, uint32_t dwParam1, uint32_t dwParam2 = 0, const std::string &sText1 = {},
                const std::string &sText2 = {});
bool SendNote(PeerNote eNote);
// The next record that came, in order. False when none came within the time, or when the person has asked to stop
// (StopAsked) and bStoppable.
bool NextRecord(uint32_t dwMilliseconds, IpcMessage *pRecord, bool bStoppable = true);
// Records before the one that matches are dropped.
bool AwaitRecord(uint32_t dwMilliseconds, const std::function<bool(const IpcMessage &)> &matches, IpcMessage *pRecord,
                 bool bStoppable = true);
bool IsLinkLost(const IpcMessage &record); // 818 with 102, or 821

void        WatchForStop(); // Ctrl-C from now on only sets the flag
bool        StopAsked();
void        ForgetStop();
std::string Text1Of(const IpcMessage &record);
