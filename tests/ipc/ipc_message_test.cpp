// ipc_message_test.cpp: labels of command codes.
#include "ipc/ipc_message.h"
#include <gtest/gtest.h>
#include <string>

TEST(IpcMessageLabels, DirectionAndNameByTheBitsOfTheCode)
{
    static const struct {
        uint32_t    dwCommand;
        const char *pszLabel;
    } aCases[] = {
        {545, "STON_FORCEEXIT"}, {816, "NTOS_IPCREADY"}, {0x305, "STOA_USERCONTROL"}, {0x306, "STOA_"},
        {0x212, "NSTOA_"}, {0x510, "NSTOA_LAUNCHOPTIONS"}, {4384, "STON_COLLECTIONFOLDERS"},
        {4401, "NTOS_COLLECTIONFILES"}, {0x1122, "STON_"}, {0x124E, "ATOS_QUICKACCESSSUPPORTED"},
        {9008, "NTOS_MIGRATIONSYSTEMSETTING"}, {12321, "STON_SETPROGRESS"}, {0x0353, "UNKNOWN_FAILITEMS"},
        {0x00F0, "UNKNOWN_"}, {0xFFFFFFFF, "UNKNOWN_"}, {0xABCD0335, "NTOS_USERCONTROL"}, {0x0120, "STON_"},
    };
    for (const auto &c : aCases) {
        char szText[IPC_LABEL_BYTES];
        GetIpcCommandLabel(c.dwCommand, szText);
        EXPECT_STREQ(c.pszLabel, szText) << c.dwCommand;
        GetIpcCommandName(c.dwCommand, szText, 1);
        EXPECT_EQ("NetHandleIPC, " + std::string(c.pszLabel), szText);
        GetIpcCommandName(c.dwCommand, szText, 0);
        EXPECT_EQ("CallTransferFromNetwork, " + std::string(c.pszLabel), szText);
    }
}
