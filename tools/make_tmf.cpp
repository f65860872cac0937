// make_tmf.cpp: writes the trace message format file of the agent from the one message table.
//   make-tmf FILE      0 written, 1 the file cannot be written, 2 wrong command line
#include "trace/tmf_text.h"
#include <cstdio>

int main(int nArgs, char **ppszArgs)
{
    if (nArgs != 2 || ppszArgs[1][0] == '-') {
        std::fputs("usage: make-tmf FILE\n", stderr);
        return 2;
    }
    static char  szText[TMF_TEXT_BYTES];
    const size_t cbText = FormatTmfText(szText, sizeof(szText));
    std::FILE   *pFile  = std::fopen(ppszArgs[1], "wb");
    bool         bDone  = cbText != 0 && pFile != nullptr && std::fwrite(szText, 1, cbText, pFile) == cbText;
    if (pFile != nullptr && std::fclose(pFile) != 0) bDone = false;
    if (!bDone) {
        std::fprintf(stderr, "make-tmf: cannot write %s\n", ppszArgs[1]);
        std::remove(ppszArgs[1]);
        return 1;
    }
    return 0;
}
