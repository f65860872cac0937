// give.cpp: the old PC. It decides nothing: it shows the PIN, tells what there is, and says what goes out.
#include "tools/migrate/give.h"
#include "migration/state_files.h"
#include "platform/kernel.h"
#include "tools/migrate/conversation.h"
#include "tools/migrate/exit_codes.h"
#include "tools/migrate/items.h"
#include "tools/migrate/machine_text.h"
#include "tools/migrate/show.h"
#include "tools/record_text.h"

namespace {

constexpr uint32_t LOOK_MS    = 500;
constexpr uint32_t LEAVE_MS   = 2000; // a link whose end was told is not waited for longer
constexpr uint32_t OFFER_KIND = 3;    // of an answer 4400: one file, in text 1

struct GiveState {
    bool     bLinked = false, bMoving = false, bOver = false;
    uint64_t ullLeft = 0; // when the new PC said that it goes; 0: it has not
    int      nExit   = EXIT_NOT_LINKED;
};

void ShowPin(uint32_t dwPin)
{
    const std::string sPin = std::to_string(dwPin);
    Tell({{"event", "pin"}, {"pin", sPin}});
    Say("Type this PIN on the new PC:  migrate take " + sPin + "\n\n" + LargePin(sPin));
    Say("If Windows asks whether VornTramsaNet may use the network: allow it for private networks.\n"
        "Waiting for the new PC. Ctrl-C ends.");
}

void OnLinked(GiveState *pState)
{
    const std::string sPeer = Harmless(PeerName());
    pState->bLinked         = true;
    Tell({{"event", "linked"}, {"peer", sPeer}});
    Say("Linked with " + sPeer + ".");
}

void AnswerOffer()
{
    const auto        items = ListOfferedItems();
    const std::string sFile = ExchangeFile(ITEMS_FILE);
    WriteSmallFile(sFile, OfferToJson(items));
    SendRecord(NTOS_COLLECTIONFOLDERS, OFFER_KIND, static_cast<uint32_t>(items.size()), sFile);
}

void AnswerContents(const std::string &sPath)
{
    static PathMap s_map; // 3 KB and lists; built anew each time, since the peer may have changed
    char16_t       szInfo[STATE_PATH_UNITS];
    GetProgressFile(TARGET_INFO_FILE, szInfo);
    InitPathMap(&s_map, szInfo, 0);
    const ItemContents contents = ListContents(sPath, &s_map);
    ReleasePathMap(&s_map);
    const std::string sFile = ExchangeFile(CONTENTS_FILE);
    WriteSmallFile(sFile, ContentsToJson(contents));
    Tell({{"event", "asked"}, {"path", sPath}, {"files", contents.nFiles}, {"bytes", contents.cb}});
    Say("  asked for: " + Harmless(sPath) + "  " + CountText(contents.nFiles, "file", "files") + ", " +
        BytesText(contents.cb));
    SendRecord(NTOS_COLLECTIONFILES, IPC_PARAM_DONE, static_cast<uint32_t>(contents.nFiles), sPath, sFile);
}

// What the other migrate says of itself; it is told that it was heard.
void OnNote(GiveState *pState, PeerNote eNote)
{
    switch (eNote) {
    case PeerNote::Hello: break;
    case PeerNote::Moving:
        pState->bMoving = true;
        pState->nExit   = EXIT_BROKEN_OFF;
        Say("The new PC takes them now.");
        break;
    case PeerNote::AllThere:
        pState->bOver = true;
        pState->nExit = EXIT_ALL_THERE;
        Say("Everything is on the new PC.");
        break;
    case PeerNote::SomeFailed:
        pState->bMoving = false;
        pState->nExit   = EXIT_SOME_FAILED;
        Say("Some items did not arrive; the new PC lists them. It can ask again with: migrate take --resume");
        break;
    case PeerNote::BrokenOff:
        pState->bMoving = false;
        pState->nExit   = EXIT_BROKEN_OFF;
        Say("Broken off by the new PC. It goes on with: migrate take --resume");
        break;
    case PeerNote::OnlyLooked:
        pState->nExit = EXIT_ALL_THERE;
        Say("The new PC has only looked.");
        break;
    default: return; // another service's options
    }
    Tell({{"event", "note"}, {"note", static_cast<uint32_t>(eNote) - static_cast<uint32_t>(PeerNote::Hello)}});
    SendNote(eNote);
    if (eNote != PeerNote::Hello && eNote != PeerNote::Moving) pState->ullLeft = platform::GetTickCount64();
}

void OnLinkLost(GiveState *pState)
{
    if (!pState->bLinked) return;
    pState->bLinked = false;
    pState->ullLeft = 0;
    if (pState->bOver) return;
    Tell({{"event", "unlinked"}});
    Say("The link has ended. Waiting for the new PC to come again. Ctrl-C ends.");
    SendRecord(STON_NETWORKCONNECTION, 1);
}

void OnRecord(GiveState *pState, const IpcMessage &record)
{
    const auto nAnswer = static_cast<int32_t>(record.dwParam1);
    if (IsLinkLost(record)) return OnLinkLost(pState);
    switch (record.dwCommand) {
    case STON_GETPINCODE:
        if (nAnswer == 3) ShowPin(record.dwParam2);
        else if (nAnswer == 2) OnLinked(pState);
        break;
    case STON_NETWORKCONNECTION:
        if (nAnswer == 2) OnLinked(pState);
        else if (nAnswer == -4 && !pState->bLinked && !pState->bOver) SendRecord(STON_NETWORKCONNECTION, 1);
        break;
    case NTOS_MIGRATIONOPTIONS: OnNote(pState, static_cast<PeerNote>(record.dwParam2)); break;
    case NTOS_COLLECTIONFOLDERS:
        if (nAnswer == 1) AnswerOffer();
        break;
    case NTOS_COLLECTIONFILES:
        if (nAnswer == 1) AnswerContents(Text1Of(record));
        break;
    case NTOS_SETPROGRESS: Say("The new PC has cancelled."); break;
    default: break;
    }
}

} // namespace

int Give(bool bResume)
{
    GiveState  state;
    IpcMessage record;
    Trouble    trouble;
    WatchForStop();
    if (!OpenConversation(&trouble)) {
        SayTrouble(trouble);
        return EXIT_NOT_LINKED;
    }
    if (bResume) Say("Waiting for the new PC that this one was linked with (migrate take --resume). Ctrl-C ends.");
    if (!(bResume ? SendRecord(STON_NETWORKCONNECTION, 1) : SendRecord(STON_GETPINCODE, 1))) {
        SayTrouble({"The agent does not take requests.", "Start again; if it stays so, restart this PC."});
        CloseConversation();
        return EXIT_NOT_LINKED;
    }
    while (!StopAsked() && !(state.bOver && !state.bLinked)) {
        if (NextRecord(LOOK_MS, &record)) OnRecord(&state, record);
        if (state.ullLeft == 0 || platform::GetTickCount64() - state.ullLeft < LEAVE_MS) continue;
        // The agent may be told of the other one's leaving much later, and would not be found until then.
        SendRecord(STON_NETWORKCONNECTION, 3);
        platform::Sleep(LOOK_MS);
        OnLinkLost(&state);
    }
    if (StopAsked() && state.bMoving && !state.bOver) {
        SendRecord(STON_SETPROGRESS, 3); // in order: the file under way ends, the rest stays recorded
        platform::Sleep(LOOK_MS);
        Say("Stopped. To go on: migrate give --resume here, migrate take --resume on the new PC.");
    }
    CloseConversation();
    Tell({{"event", "end"}, {"code", state.nExit}});
    return state.nExit;
}
