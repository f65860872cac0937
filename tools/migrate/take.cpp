// take.cpp: the new PC: the link, the questions, the order of things.
#include "tools/migrate/take.h"
#include "net/settings.h"
#include "platform/text.h"
#include "tools/migrate/conversation.h"
#include "tools/migrate/exit_codes.h"
#include "tools/migrate/machine_text.h"
#include "tools/migrate/plan.h"
#include "tools/migrate/show.h"
#include "tools/migrate/transfer_run.h"
#include <atomic>
#include <iostream>
#include <memory>
#include <thread>

using nlohmann::json;

namespace {

constexpr uint32_t LINK_MS = 180000;
constexpr int      LINKED = 2, WRONG_PIN = -3; // the agent's answers
constexpr uint32_t HELLO_MS         = 30000;
constexpr uint32_t OFFER_MS         = 60000;
constexpr uint32_t CONTENTS_MS      = 1800000; // a large folder is counted file by file
constexpr uint32_t LAST_WORD_MS     = 10000;
constexpr int      RESUME_TRIES     = 6; // the agent tries each for ten seconds
constexpr uint64_t OFFER_BYTES      = 8 << 20;
constexpr uint64_t CONTENTS_BYTES   = 1 << 30;
constexpr char     STATE_FILE[]     = "migrate.json"; // which items an interrupted transfer was of
constexpr char     REQUEST_FOLDER[] = "\\migrate\\";

std::string StateFile()
{
    return JoinPath(ParentOf(ProgressFolder()), STATE_FILE);
}

std::string AddressesLookedAt()
{
    char szCount[16], szKey[32], szAddress[ADDRESS_BYTES];
    GetConfigPath();
    ReadSetting(SECTION_SERVER_ENUM, KEY_COUNT, szCount, sizeof(szCount));
    std::string sAll;
    for (int i = 1; i <= platform::TextToInt32A(szCount) && i <= 20; i++) {
        platform::FormatTextA(szKey, sizeof(szKey), "%d", i);
        ReadSetting(SECTION_SERVER_ENUM, szKey, szAddress, sizeof(szAddress));
        sAll += (sAll.empty() ? "" : ", ") + std::string(szAddress);
    }
    return Harmless(sAll);
}

Trouble NoLinkTrouble(int nAnswer)
{
    if (nAnswer == WRONG_PIN) return {"The PIN is wrong.", "Type the one that the old PC shows now: migrate take PIN"};
    const std::string sAddresses = AddressesLookedAt();
    return {sAddresses.empty() ? "No PC that waits was found on this network."
                               : "No link came about with the addresses found: " + sAddresses + ".",
            "Look whether migrate give runs on the old PC, both are on one network, and the firewalls of both allow "
            "VornTramsaNet and VornTramsaNetMDNS."};
}

// What the agent answers to one request for a link, 0 for nothing.
int AskForLink(uint32_t dwCode, uint32_t dwParam1, uint32_t dwParam2)
{
    IpcMessage record;
    const auto Answers = [dwCode](const IpcMessage &heard) { return heard.dwCommand == dwCode; };
    if (!SendRecord(dwCode, dwParam1, dwParam2) || !AwaitRecord(LINK_MS, Answers, &record)) return 0;
    return static_cast<int32_t>(record.dwParam1);
}

int LinkAgain(int nTries)
{
    int nAnswer = 0;
    for (int nTry = 0; nAnswer != LINKED && nTry < nTries && !StopAsked(); nTry++)
        nAnswer = AskForLink(STON_NETWORKCONNECTION, 2, 0);
    return nAnswer;
}

// An old PC that has been linked once waits where it was, and is not announced any more.
bool IsPinOfLastLink(const std::string &sPin)
{
    char szLast[PASSWORD_BYTES];
    GetConfigPath();
    ReadSetting(SECTION_LAST_CLIENT, KEY_PASSWORD, szLast, sizeof(szLast));
    return sPin == szLast;
}

// True with *psPeer.
bool Link(const TakeOptions &options, std::string *psPeer)
{
    int nAnswer = 0;
    Say(options.sPin.empty() ? "Looking for the PC that this one was linked with ..." : "Looking for the old PC ...");
    if (options.sPin.empty()) nAnswer = LinkAgain(RESUME_TRIES);
    else if (IsPinOfLastLink(options.sPin)) nAnswer = LinkAgain(1);
    if (nAnswer != LINKED && !options.sPin.empty() && !StopAsked())
        nAnswer = AskForLink(STON_SETPINCCODE, 1, static_cast<uint32_t>(platform::TextToInt32A(options.sPin.c_str())));
    *psPeer = Harmless(PeerName());
    if (nAnswer == LINKED) return true;
    if (!StopAsked()) SayTrouble(NoLinkTrouble(nAnswer));
    return false;
}

// Tells the other migrate where this one is. False when it does not say that it has heard.
bool Exchange(PeerNote eNote, uint32_t dwMilliseconds)
{
    IpcMessage record;
    const auto Echoes = [eNote](const IpcMessage &heard) {
        return IsLinkLost(heard) ||
               (heard.dwCommand == NTOS_MIGRATIONOPTIONS && heard.dwParam2 == static_cast<uint32_t>(eNote));
    };
    return SendNote(eNote) && AwaitRecord(dwMilliseconds, Echoes, &record, false) && !IsLinkLost(record);
}

std::vector<std::string> AnswerPlaces(const char *pszName)
{
    return {ExchangeFile(pszName), ApplicationDataRoot() + REQUEST_FOLDER + pszName};
}

// One question and the file that answers it. Only the two places that an agent puts such a file are looked at, whatever
// the answer names.
bool Ask(uint32_t dwCode, const std::string &sItem, const char *pszFile, uint32_t dwWait, uint64_t cbMost,
         std::string *psAnswer)
{
    IpcMessage        record;
    const std::string sWanted = ApplicationDataRoot() + REQUEST_FOLDER + pszFile;
    for (const std::string &sPlace : AnswerPlaces(pszFile)) DeleteSmallFile(sPlace);
    const auto Answers = [dwCode](const IpcMessage &heard) {
        return IsLinkLost(heard) || (heard.dwCommand == dwCode && heard.dwParam1 > 1);
    };
    const bool bFolders = dwCode == STON_COLLECTIONFOLDERS;
    if (!SendRecord(dwCode, 1, 0, bFolders ? sWanted : sItem, bFolders ? "" : sWanted) ||
        !AwaitRecord(dwWait, Answers, &record) || IsLinkLost(record))
        return false;
    for (const std::string &sPlace : AnswerPlaces(pszFile))
        if (ReadSmallFile(sPlace, cbMost, psAnswer)) return true;
    return false;
}

const Trouble NO_ANSWER = {"The other PC does not answer any more.",
                           "Look whether migrate give still runs there, and start again."};

std::vector<std::string> WantedItems(const TakeOptions &options)
{
    std::string sText;
    if (!options.bResume || !options.items.empty() || !ReadSmallFile(StateFile(), OFFER_BYTES, &sText))
        return options.items;
    std::vector<std::string> items;
    const json               value = json::parse(sText, nullptr, false);
    if (value.is_array())
        for (const json &item : value)
            if (item.is_string()) items.push_back(item.get<std::string>());
    return items;
}

void KeepItems(const Plan &plan)
{
    json items = json::array();
    for (const PlannedItem &item : plan.items) items.push_back(item.contents.sPath);
    WriteSmallFile(StateFile(), items.dump(-1, ' ', false, json::error_handler_t::replace));
}

// 0, or the exit code after the trouble was said.
int MakePlan(const TakeOptions &options, Plan *pPlan)
{
    std::string sAnswer, sUnknown;
    if (!Ask(STON_COLLECTIONFOLDERS, "", ITEMS_FILE, OFFER_MS, OFFER_BYTES, &sAnswer)) {
        SayTrouble(NO_ANSWER);
        return EXIT_NOT_LINKED;
    }
    const auto offered = OfferFromJson(sAnswer);
    if (!offered) {
        SayTrouble({"The other PC's list cannot be understood.", "Use the same release on both PCs."});
        return EXIT_NOT_LINKED;
    }
    const auto chosen = ChooseItems(*offered, WantedItems(options), &sUnknown);
    if (!sUnknown.empty()) {
        SayTrouble({sUnknown + " is neither a folder's name on the other PC nor a path.",
                    "Name one of those that migrate take PIN --preview shows, or a whole path such as D:\\Photos."});
        return EXIT_USAGE;
    }
    for (const OfferedItem &item : chosen) {
        if (!Ask(STON_COLLECTIONFILES, item.sPath, CONTENTS_FILE, CONTENTS_MS, CONTENTS_BYTES, &sAnswer)) {
            if (!StopAsked()) SayTrouble(NO_ANSWER);
            return EXIT_NOT_LINKED;
        }
        auto contents = ContentsFromJson(sAnswer);
        if (!contents || !SameName(contents->sPath, item.sPath)) {
            SayTrouble({"The other PC's list of " + item.sPath + " cannot be understood.",
                        "Use the same release on both PCs."});
            return EXIT_NOT_LINKED;
        }
        AddToPlan(pPlan, item.sName, std::move(*contents), options.bResume);
    }
    for (const OfferedItem &item : *offered) {
        bool bChosen = false;
        for (const OfferedItem &other : chosen) bChosen |= SameName(item.sPath, other.sPath);
        if (!bChosen) pPlan->others.push_back(item);
    }
    return 0;
}

// The line is read on a thread of its own: no signal ends a read on every system. False for anything but yes.
bool AskPerson(const Plan &plan)
{
    struct Reply {
        std::atomic<bool> bThere{false};
        std::string       sLine;
    };
    const auto reply = std::make_shared<Reply>();
    SayPart("Move " + CountText(plan.nFiles, "file", "files") + ", " + BytesText(plan.cb) + ", to this PC? [y/N] ");
    std::thread([reply] {
        std::getline(std::cin, reply->sLine);
        reply->bThere = true;
    }).detach();
    IpcMessage record;
    while (!reply->bThere && !StopAsked())
        if (NextRecord(100, &record) && IsLinkLost(record)) return false;
    return reply->bThere && !reply->sLine.empty() && (reply->sLine[0] | 0x20) == 'y';
}

int ShowOutcome(const Plan &plan, const TransferRun &run)
{
    for (const auto &[sPath, sCause] : run.failed) {
        Tell({{"event", "failed"}, {"path", sPath}, {"cause", sCause}});
        Say("not moved: " + Harmless(sPath) + " (" + sCause + ")");
    }
    if (run.bFull) SayTrouble({"This PC's disk is full.", "Make room, then go on with: migrate take --resume"});
    if (run.nOutcome != 2) {
        if (run.bStopped) Say("Stopped. What has come stays. To go on: migrate take --resume");
        else if (!run.bFull)
            SayTrouble({"The transfer was broken off before its end: the link or the other PC went away.",
                        "What has come stays; go on with: migrate take --resume (the old PC waits, or: migrate give "
                        "--resume)"});
        return EXIT_BROKEN_OFF;
    }
    const uint64_t nThere = plan.nFiles - std::min<uint64_t>(plan.nFiles, run.failed.size());
    std::string    sSpeed;
    if (run.dSeconds > 0.05 && run.cbAfter > run.cbBefore)
        sSpeed = ", " +
                 BytesText(static_cast<uint64_t>(static_cast<double>(run.cbAfter - run.cbBefore) / run.dSeconds)) +
                 "/s";
    Say(std::to_string(nThere) + " of " + CountText(plan.nFiles, "file", "files") + " are on this PC" + sSpeed + ".");
    if (run.failed.empty()) return EXIT_ALL_THERE;
    Say("Close what keeps these files open, on both PCs, then: migrate take --resume");
    return EXIT_SOME_FAILED;
}

// The link is there. The exit code.
int TakeLinked(const TakeOptions &options, const std::string &sPeer)
{
    Plan plan;
    plan.sPeer = sPeer;
    Tell({{"event", "linked"}, {"peer", sPeer}});
    Say("Linked" + (sPeer.empty() ? "" : " with " + sPeer) + ". Asking what there is ...");
    SendRecord(STON_SETCOMPUTERROLE, 2, 0, ApplicationDataRoot());
    if (!Exchange(PeerNote::Hello, HELLO_MS)) {
        SayTrouble({"The other PC is linked, but no migrate answers there.", "Run migrate give on the old PC."});
        return EXIT_NOT_LINKED;
    }
    if (const int nExit = MakePlan(options, &plan); nExit != 0) return nExit;
    ShowPlan(plan);
    if (options.bPreview || plan.nFiles + plan.items.size() == 0 || (!options.bYes && !AskPerson(plan))) {
        Exchange(PeerNote::OnlyLooked, LAST_WORD_MS);
        Say("Nothing was moved.");
        return EXIT_ALL_THERE;
    }
    KeepItems(plan);
    Exchange(PeerNote::Moving, HELLO_MS);
    const TransferRun run   = RunTransfer(plan, options.bResume);
    const int         nExit = ShowOutcome(plan, run);
    const PeerNote    eNote = nExit == EXIT_ALL_THERE     ? PeerNote::AllThere
                              : nExit == EXIT_SOME_FAILED ? PeerNote::SomeFailed
                                                          : PeerNote::BrokenOff;
    if (nExit == EXIT_ALL_THERE) DeleteSmallFile(StateFile());
    if (run.nOutcome != 0) Exchange(eNote, LAST_WORD_MS);
    Tell({{"event", "result"},
          {"files", plan.nFiles},
          {"bytes", plan.cb},
          {"failed", run.failed.size()},
          {"seconds", run.dSeconds}});
    return nExit;
}

} // namespace

int Take(const TakeOptions &options)
{
    Trouble     trouble;
    std::string sPeer;
    int         nExit = EXIT_NOT_LINKED;
    WatchForStop();
    if (!OpenConversation(&trouble)) SayTrouble(trouble);
    else if (Link(options, &sPeer)) nExit = TakeLinked(options, sPeer);
    CloseConversation();
    Tell({{"event", "end"}, {"code", nExit}});
    return nExit;
}
