// Starts a program on a console of its own, waits for its first line, sends Ctrl-C to all of that console, and ends as
// the program ends: console_interrupt PROGRAM [ARGUMENT...]. What the program writes is written on.
#include "piped_child.h"

int main(int count, char** arguments) {
    FreeConsole();
    if (!AllocConsole()) return failed("AllocConsole");
    SetConsoleCtrlHandler([](DWORD) -> BOOL { return TRUE; }, TRUE);

    PipedChild child;
    if (const int error = child.start(count, arguments)) return error;
    if (child.pass_on() && !GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0)) {
        TerminateProcess(child.process.hProcess, 98);
        return failed("GenerateConsoleCtrlEvent");
    }
    while (child.pass_on()) {
    }
    return child.status();
}
