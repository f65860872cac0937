// copies.cpp: the copy programs. scp and rsync go over ssh with the cipher that the wrapper sSsh sets; the rsync daemon
// encrypts nothing and asks for no password.
#include "bench/contenders.h"
#include <cstdio>

namespace fs = std::filesystem;

static std::vector<std::string> CommandOf(Tool eTool, const BenchOptions &options, const CopyPorts &ports,
                                          const std::string &sSource, const std::string &sCopy)
{
    switch (eTool) {
    case Tool::Scp: return {"scp", "-q", "-r", "-S", options.sSsh, "-P", ports.sSsh, sSource, "127.0.0.1:" + sCopy};
    case Tool::RsyncSsh:
        return {"rsync", "-a", "--whole-file", "-e", options.sSsh + " -p " + ports.sSsh, sSource, "127.0.0.1:" + sCopy};
    case Tool::RsyncDaemon: break;
    }
    return {"rsync", "-a", "--whole-file", sSource, "rsync://127.0.0.1:" + ports.sDaemon + "/bench/copy/"};
}

double RunCopy(Tool eTool, const BenchOptions &options, const CopyPorts &ports, const std::string &sSource)
{
    const fs::path  copy = options.sWork + "/copy";
    std::error_code error;
    RetireFolder(copy, options.sWork);
    fs::create_directories(copy, error);
    const std::vector<std::string> command = CommandOf(eTool, options, ports, sSource, copy.string());
    std::string                    sOutput;
    const auto                     begin = std::chrono::steady_clock::now();
    const int                      nExit = RunProgram(command, {}, &sOutput);
    const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (nExit != 0) std::fprintf(stderr, "%s: %s\n", command[0].c_str(), sOutput.c_str());
    RetireFolder(copy, options.sWork);
    return nExit == 0 ? dSeconds : -1;
}
