#include "sim/bridge/state_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace elatectwn4::sim::bridge {
namespace {

[[noreturn]] void Fail(const std::string& what, const std::filesystem::path& path, int error) {
    throw std::runtime_error(what + " " + path.string() + ": " + std::strerror(error));
}

// Writes all of `text` to a new file and makes it durable before the rename
// publishes it; without the fsync a power cut could leave an empty file under
// the final name.
void WriteDurably(const std::filesystem::path& path, const std::string& text) {
    // The card's keys are in it: its owner's alone, also when a leftover of
    // a crashed run had the name with a wider mode.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) Fail("cannot create", path, errno);
    if (::fchmod(fd, 0600) != 0) {
        const int error = errno;
        ::close(fd);
        Fail("cannot restrict", path, error);
    }
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            const int error = errno;
            ::close(fd);
            Fail("cannot write", path, error);
        }
        written += static_cast<std::size_t>(n);
    }
    if (::fsync(fd) != 0) {
        const int error = errno;
        ::close(fd);
        Fail("cannot flush", path, error);
    }
    if (::close(fd) != 0) Fail("cannot close", path, errno);
}

}  // namespace

std::optional<nlohmann::json> ReadStateFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::error_code ec;
        if (!std::filesystem::exists(path, ec)) return std::nullopt;
        throw std::runtime_error("cannot open " + path.string());
    }
    std::ostringstream text;
    text << in.rdbuf();
    auto document = nlohmann::json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded()) throw std::runtime_error(path.string() + " is not a JSON document");
    return document;
}

void WriteStateFile(const std::filesystem::path& path, const nlohmann::json& state) {
    // Same directory as the target, so the rename stays on one file system.
    auto temporary = path;
    temporary += ".tmp." + std::to_string(::getpid());
    try {
        WriteDurably(temporary, state.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        Fail("cannot replace", path, error);
    }
}

}  // namespace elatectwn4::sim::bridge
