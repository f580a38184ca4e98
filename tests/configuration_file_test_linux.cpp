#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>

#include "configuration_file_test_platform.h"

namespace test {
namespace {

namespace fs = std::filesystem;

/// Writes its own document, again and again, to everybody who opens the FIFO that is its argument.
CHILD(write_to_everybody) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::string document = [] {
        std::string text(static_cast<size_t>(told()), '\0');
        for (char& byte : text) byte = static_cast<char>(told());
        return text;
    }();
    for (;;) {
        const int fifo = open(argument().c_str(), O_WRONLY | O_CLOEXEC);
        if (fifo < 0) return;
        static_cast<void>(!write(fifo, document.data(), document.size()));
        close(fifo);
    }
}

void put_fifo(const fs::path& place) {
    ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
}

void put_socket(const fs::path& place) {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    place.string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(listener);
}

}  // namespace

std::vector<Special> specials() {
    return {{"folder", [](const fs::path& place) { fs::create_directory(place); }},
            {"socket", put_socket},
            {"device that never ends", [](const fs::path& place) { fs::create_symlink("/dev/zero", place); }},
            {"link to itself", [](const fs::path& place) { fs::create_symlink(place, place); }},
            {"device that blocks", [](const fs::path& place) { fs::create_symlink("/dev/ptmx", place); }},
            {"FIFO without a writer", put_fifo}};
}

void link_file(const fs::path& file, const fs::path& link) {
    fs::create_symlink(file, link);
}

PipedDocument::PipedDocument(const fs::path& folder, const std::string& document)
    : install_path_(folder / "piped"), writer_(start(write_to_everybody, install_path_ + "/etc/cluster.xml")) {
    fs::create_directories(install_path_ + "/etc");
    put_fifo(install_path_ + "/etc/cluster.xml");
    writer_.tell(document.size());
    for (const char byte : document) writer_.tell(static_cast<uint64_t>(byte));
}

}  // namespace test
