#include "service/command_line.h"

#include <algorithm>

namespace service {

std::wstring quoted(const std::wstring& argument) {
    std::wstring text = L"\"";
    size_t backslashes = 0;
    for (const wchar_t letter : argument) {
        if (letter == L'\\') {
            ++backslashes;
            continue;
        }
        if (letter == L'"') backslashes = 2 * backslashes + 1;
        text.append(backslashes, L'\\');
        backslashes = 0;
        text += letter;
    }
    text.append(2 * backslashes, L'\\');
    return text + L"\"";
}

std::wstring command_line(const std::wstring& program, const std::vector<std::wstring>& arguments) {
    std::wstring line = quoted(program);
    for (const std::wstring& argument : arguments) {
        const bool is_plain = !argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos;
        line += L' ';
        line += is_plain ? argument : quoted(argument);
    }
    return line;
}

bool is_service(const std::vector<std::string>& arguments) {
    const auto has = [&](const char* word) {
        return std::find(arguments.begin(), arguments.end(), word) != arguments.end();
    };
    return has("--service") && !has("--check-arguments");
}

}  // namespace service
