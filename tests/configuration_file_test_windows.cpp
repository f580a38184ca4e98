#include <windows.h>

#include <stdexcept>

#include "configuration_file_test_platform.h"

namespace test {
namespace {

namespace fs = std::filesystem;

/// Writes its own document, again and again, to everybody who opens the named pipe that is its argument.
CHILD(write_to_everybody) {
    std::string document(static_cast<size_t>(told()), '\0');
    for (char& byte : document) byte = static_cast<char>(told());
    HANDLE pipe = INVALID_HANDLE_VALUE;
    for (bool first = true;; first = false) {
        const HANDLE next = CreateNamedPipeA(argument().c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE | PIPE_WAIT,
                                             PIPE_UNLIMITED_INSTANCES, 4096, 4096, 0, nullptr);
        if (!first) CloseHandle(pipe);
        pipe = next;
        if (first) report(pipe != INVALID_HANDLE_VALUE);
        DWORD written = 0;
        ConnectNamedPipe(pipe, nullptr);
        WriteFile(pipe, document.data(), static_cast<DWORD>(document.size()), &written, nullptr);
        FlushFileBuffers(pipe);
    }
}

}  // namespace

std::vector<Special> specials() {
    return {{"folder", [](const fs::path& place) { fs::create_directory(place); }}};
}

void link_file(const fs::path& file, const fs::path& link) {
    fs::create_hard_link(file, link);
}

PipedDocument::PipedDocument(const fs::path&, const std::string& document)
    : install_path_(R"(\\.\pipe\shmnm-test-)" + std::to_string(process_id())),
      writer_(start(write_to_everybody, install_path_ + R"(\etc\cluster.xml)")) {
    writer_.tell(document.size());
    for (const char byte : document) writer_.tell(static_cast<uint64_t>(byte));
    if (writer_.reported() == 0) throw std::runtime_error("no named pipe");
}

}  // namespace test
