// Starts a program, reads its first line, closes the pipe that it writes to, and ends as the program ends:
// closing_reader PROGRAM [ARGUMENT...].
#include "piped_child.h"

int main(int count, char** arguments) {
    PipedChild child;
    if (const int error = child.start(count, arguments)) return error;
    child.pass_on();
    CloseHandle(child.read);
    return child.status();
}
