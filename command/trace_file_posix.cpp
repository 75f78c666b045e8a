#include <fcntl.h>
#include <unistd.h>

#include "command/trace_file.h"

namespace elatectwn4::command {

std::FILE* OpenPrivateLog(const char* path) noexcept {
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    std::FILE* file = ::fdopen(fd, "a");
    if (file == nullptr) ::close(fd);
    return file;
}

}  // namespace elatectwn4::command
