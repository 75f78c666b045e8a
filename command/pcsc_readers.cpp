// Reader-list helpers shared by the production PC/SC boundaries.
#include <algorithm>

#include "command/pcsc_system.h"
#include "elatectwn4/pcsc.h"

namespace elatectwn4 {

namespace command {

std::vector<std::string> SplitMultiString(std::string_view multi) {
    std::vector<std::string> names;
    while (!multi.empty()) {
        const std::size_t end = multi.find('\0');
        const std::string_view name = multi.substr(0, end);
        if (name.empty()) break;
        names.emplace_back(name);
        if (end == std::string_view::npos) break;
        multi.remove_prefix(end + 1);
    }
    return names;
}

std::uint32_t ListReadersRetrying(const std::function<std::uint32_t(char* buffer, std::size_t& length)>& list,
                                  std::uint32_t insufficientBuffer, std::vector<std::string>& readers, int attempts) {
    readers.clear();
    std::uint32_t rc = insufficientBuffer;
    for (int attempt = 0; attempt < attempts && rc == insufficientBuffer; ++attempt) {
        std::size_t length = 0;
        rc = list(nullptr, length);
        if (rc != pcsc_code::Success) return rc;
        std::string buffer(length, '\0');
        rc = list(buffer.data(), length);
        if (rc == pcsc_code::Success) {
            buffer.resize(std::min(length, buffer.size()));
            readers = SplitMultiString(buffer);
        }
    }
    return rc;
}

}  // namespace command

}  // namespace elatectwn4
