// Has a service open until its standard input ends, as a window that lists the services does: service_holder NAME.
#include <windows.h>

#include <cstdio>

int main(int, char** arguments) {
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (!manager || !OpenServiceA(manager, arguments[1], SERVICE_QUERY_STATUS)) return static_cast<int>(GetLastError());
    std::puts("open");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}
