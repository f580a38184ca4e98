/* Starts a program, waits for the first byte of its output, and writes a dump of it: dump_writer FILE COMMAND. The
 * program ends when this one does, because then its input ends. */
#include <windows.h>

#include <dbghelp.h>

/* Wine's dbghelp crashes after it has written the file. */
static LONG WINAPI end(EXCEPTION_POINTERS* exception) {
    (void)exception;
    TerminateProcess(GetCurrentProcess(), 0);
    return EXCEPTION_EXECUTE_HANDLER;
}

int wmain(int count, wchar_t** words) {
    SetUnhandledExceptionFilter(end);
    HANDLE input, input_end, output, output_end;
    SECURITY_ATTRIBUTES inherited = {.nLength = sizeof inherited, .bInheritHandle = TRUE};
    if (count != 3 || !CreatePipe(&input_end, &input, &inherited, 0) ||
        !CreatePipe(&output, &output_end, &inherited, 0))
        return 1;
    SetHandleInformation(input, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW start = {.cb = sizeof start,
                          .dwFlags = STARTF_USESTDHANDLES,
                          .hStdInput = input_end,
                          .hStdOutput = output_end,
                          .hStdError = output_end};
    PROCESS_INFORMATION process;
    if (!CreateProcessW(NULL, words[2], NULL, NULL, TRUE, 0, NULL, NULL, &start, &process)) return 2;
    CloseHandle(input_end);
    CloseHandle(output_end);
    char first;
    DWORD read;
    if (!ReadFile(output, &first, 1, &read, NULL)) return 3;
    HANDLE file = CreateFileW(words[1], GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
    return MiniDumpWriteDump(process.hProcess, process.dwProcessId, file, MiniDumpWithFullMemory, NULL, NULL, NULL) ? 0
                                                                                                                    : 4;
}
