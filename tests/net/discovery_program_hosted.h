// discovery_program_hosted.h: a discovery program for tests: it notes each run, and in client mode "finds" what it is
// told to, after a moment.
#pragma once
#include "net/settings.h"
#include "platform/hosted/control.h"
#include "platform/path.h"
#include "platform/text.h"
#include "tests/support/test_machine.h"
#include <climits>
#include <filesystem>
#include <fstream>
#include <sstream>

class DiscoveryProgram {
  public:
    // sFound: the lines of the section ServerEnum that a run in client mode adds to Socket.dat. GetConfigPath has run.
    explicit DiscoveryProgram(const std::string &sFound = "")
    {
        const std::string sProgram = HostFile(g_szmDNSPath), sPart = sProgram + ".new";
        std::filesystem::create_directories(std::filesystem::path(sProgram).parent_path());
        std::ofstream(sPart) << "#!/bin/sh\necho \"$@\" >> '" << HostFile("C:\\discovery-runs.txt") << "'\n"
                             << "[ \"$1\" = client ] && sleep 0.1 && printf '"
                             << (sFound.empty() ? "" : "[ServerEnum]\\r\\n" + sFound) << "' >> '"
                             << HostFile(g_szConfigPath) << "'\nexit 0\n";
        std::filesystem::permissions(sPart, std::filesystem::perms::owner_all);
        std::filesystem::rename(sPart, sProgram);
    }
    // One line of arguments for each run so far.
    std::string Runs() const { return ReadTestFile(u"C:\\discovery-runs.txt"); }
    // How many of them began with this argument.
    int RunsOf(const std::string &sFirst) const
    {
        std::istringstream all(Runs());
        int                n = 0;
        for (std::string sLine; std::getline(all, sLine);) n += sLine.substr(0, sLine.find(' ')) == sFirst;
        return n;
    }

  private:
    static std::string HostFile(const char *pszPath)
    {
        char16_t szWide[260];
        char     szHost[PATH_MAX] = "";
        platform::MultiByteToWideChar(platform::CP_UTF8, 0, pszPath, -1, szWide, 260);
        EXPECT_TRUE(hosted::HostPath(szWide, szHost, sizeof(szHost))) << pszPath;
        return szHost;
    }
};
