// A file of its own, so that the picture library does not load shell32 with the programs' arguments.
#include <windows.h>

#include <shellapi.h>

#include <memory>

#include "picture/platform.h"
#include "wide_path.h"

namespace picture::platform {

std::vector<std::string> arguments(int, char**) {
    int count = 0;
    const std::unique_ptr<wchar_t*, void (*)(wchar_t**)> words(CommandLineToArgvW(GetCommandLineW(), &count),
                                                               [](wchar_t** memory) { LocalFree(memory); });
    std::vector<std::string> all;
    for (int i = 1; words && i < count; ++i) all.push_back(wide_path::to_utf8(words.get()[i]));
    return all;
}

}  // namespace picture::platform
