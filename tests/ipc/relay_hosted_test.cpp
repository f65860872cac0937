// relay_hosted_test.cpp: what the relay traces.
#include "ipc/relay.h"
#include "migration/special_files.h"
#include "migration/special_folders.h"
#include "tests/ipc/fake_service.h"
#include "tests/trace/trace_session_hosted.h"

using RelayTrace = ServiceTest;

TEST_F(RelayTrace, EachRecordItsPathsAndWhatBecomesOfItAreTraced)
{
    using Lines               = std::vector<std::string>;
    const std::string sIn     = "27 VornTramsaNet: CallTransferFromNetwork, ";
    static const char szMap[] = "28 VornTramsaNet: TransferProgramDataToAppData, changed ";
    SetSpecialRoot(SpecialRoot::AppData, u"A:\\a");
    SetSpecialRoot(SpecialRoot::ProgramData, u"P:\\p");
    TraceSession session;
    IpcMessage   record = MakeRecord(4401, 2, 5, 6, u"P:\\p\\1", u"p:\\P\\2", u"C:\\3");
    EXPECT_EQ(1, CallTransferFromNetwork(&record));
    EXPECT_EQ((Lines{sIn + "NTOS_COLLECTIONFILES, 2, 5, 6, P:\\p\\1, p:\\P\\2, C:\\3",
                     std::string(szMap) + "1, from p:\\P\\2 to A:\\a\\2", std::string(szMap) + "0, from C:\\3 to C:\\3",
                     "34 VornTramsaNet: Net, CallServiceNamedPipe 0x1121, 2, 5, 0, P:\\p\\1, A:\\a\\2, C:\\3"}),
              session.Take());
    record = MakeRecord(835, 3, 0, 0, u"one", u"two");
    EXPECT_EQ(0, CallTransferFromNetwork(&record));
    EXPECT_EQ((Lines{"25 VornTramsaNet: CallTransferFromNetwork, ATOS_FAILITEMS, 3, 0, 0, one",
                     "10 VornTramsaNet: ## Unhandle Command"}),
              session.Take());
    ClearSpecialFolders();
}
