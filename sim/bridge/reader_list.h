// The readers the system's PC/SC service knows, for scripts that wait for the
// virtual readers to appear.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace elatectwn4::sim::bridge {

struct ReaderList {
    std::uint32_t code = 0;  ///< PC/SC return code; 0 on success
    std::string failedCall;  ///< the call that failed, when code is not 0
    std::vector<std::string> names;
};

/// Asks pcscd for its readers. No readers at all is a success with an empty list.
ReaderList ListPcscReaders();

}  // namespace elatectwn4::sim::bridge
