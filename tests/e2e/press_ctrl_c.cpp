// Presses Ctrl-C in the console of another process: press_ctrl_c PROCESS
// This needs a process of its own: it has to join the other console, and it gets the event, too.
#include <windows.h>

#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    ::FreeConsole();
    if (!::AttachConsole(static_cast<DWORD>(std::atoi(argv[1])))) return 1;
    ::SetConsoleCtrlHandler(nullptr, TRUE);
    return ::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0) ? 0 : 1;
}
