// main.cpp: the program's entry. Everything it does is RunAgent, so that tests can link the rest.
#include "app/lifecycle.h"
#include "platform/entry.h"

extern "C" int WinMain(platform::HINSTANCE hInstance, platform::HINSTANCE, char *, int)
{
    return RunAgent(hInstance);
}
