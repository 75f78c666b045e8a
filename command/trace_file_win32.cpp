#include "command/trace_file.h"

namespace elatectwn4::command {

// A new file takes the access rights of its folder, as every other file the
// user creates there does.
std::FILE* OpenPrivateLog(const char* path) noexcept {
    return std::fopen(path, "a");
}

}  // namespace elatectwn4::command
