// trace_session_hosted.h: a trace session on the current machine for the life of a test, and what it recorded.
#pragma once
#include "platform/hosted/control.h"
#include "platform/hosted/trace/trace_sessions.h"
#include "trace/trace_log.h"
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

// Registers the program's providers with the session on; both end with the object. dwFlags 3 opens both gates.
class TraceSession {
  public:
    explicit TraceSession(uint32_t dwFlags = 3)
    {
        EXPECT_TRUE(hosted::StartTraceSession(hosted::MachineFolder(), "test", 5, dwFlags));
        RegisterTraceProviders();
    }
    ~TraceSession()
    {
        UnregisterTraceProviders();
        hosted::StopTraceSession(hosted::MachineFolder(), "test");
    }
    TraceSession(const TraceSession &)            = delete;
    TraceSession &operator=(const TraceSession &) = delete;

    // "NUMBER TEXT" of every message since the last call.
    std::vector<std::string> Take()
    {
        std::vector<std::string> aLines;
        std::ifstream            file(hosted::TraceLogFile(hosted::MachineFolder(), "test"));
        file.seekg(m_nRead);
        for (std::string sLine; std::getline(file, sLine) && !file.eof();) { // its end: a line half written
            m_nRead += static_cast<std::streamoff>(sLine.size() + 1);
            const std::string sClass = " eab78ba6/";
            const size_t      nClass = sLine.find(sClass);
            const size_t      nColon = sLine.find(": ", nClass);
            if (nClass == sLine.npos || nColon == sLine.npos) {
                ADD_FAILURE() << "another message class: " << sLine;
                continue;
            }
            const size_t nNumber = nClass + sClass.size();
            aLines.push_back(sLine.substr(nNumber, nColon - nNumber) + " " + sLine.substr(nColon + 2));
        }
        return aLines;
    }
    // True when a line contains the text; adds to what was taken before.
    bool Saw(const std::string &sText)
    {
        for (std::string &sLine : Take()) m_aSeen.push_back(std::move(sLine));
        for (const std::string &sLine : m_aSeen)
            if (sLine.find(sText) != sLine.npos) return true;
        return false;
    }

  private:
    std::streamoff           m_nRead = 0;
    std::vector<std::string> m_aSeen;
};
