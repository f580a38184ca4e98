// The library is loaded into a process and unloaded from it: the DLL's entry point.
#include <windows.h>

#include "frame.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    switch (reason) {
        case DLL_PROCESS_ATTACH:
            return shmnm::load_library();
        case DLL_PROCESS_DETACH:
            shmnm::unload_library();
            return TRUE;
        default:
            return TRUE;
    }
}
