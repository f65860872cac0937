// test_machine_hosted.cpp: a new machine folder for every test; the old one is removed.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <unistd.h>

namespace {

std::string g_sCurrent;
pid_t       g_nOwner = 0;

void RemoveCurrent()
{
    std::error_code ignored;
    if (!g_sCurrent.empty() && getpid() == g_nOwner) std::filesystem::remove_all(g_sCurrent, ignored);
}

} // namespace

bool UnderWine()
{
    return false;
}

void FreshMachine()
{
    static int s_nMachines = 0;
    // What a test started and did not wait for ends before its machine goes.
    for (int n = 0; n < 2000 && hosted::LiveThreads() > 0; n++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (s_nMachines == 0) atexit(RemoveCurrent);
    g_nOwner = getpid();
    const std::string sNew =
        std::string(VORN_TEST_FOLDER) + "/" + std::to_string(g_nOwner) + "-" + std::to_string(++s_nMachines);
    std::error_code ignored;
    std::filesystem::remove_all(sNew, ignored); // of an earlier process with the same number
    ASSERT_TRUE(hosted::UseMachine(sNew.c_str())) << "no machine at " << sNew << ", error " << platform::GetLastError();
    RemoveCurrent();
    g_sCurrent = sNew;
    platform::SetLastError(0);
}
