#include "sim/bridge/reader_list.h"

#include <winscard.h>

namespace elatectwn4::sim::bridge {

ReaderList ListPcscReaders() {
    ReaderList result;
    SCARDCONTEXT context = 0;
    LONG rc = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context);
    if (rc != SCARD_S_SUCCESS) {
        result.code = static_cast<std::uint32_t>(rc);
        result.failedCall = "SCardEstablishContext";
        return result;
    }
    // A reader may appear between the two calls; ask again when the buffer
    // turns out too small.
    for (int attempt = 0; attempt < 3; ++attempt) {
        DWORD length = 0;
        rc = SCardListReaders(context, nullptr, nullptr, &length);
        if (rc != SCARD_S_SUCCESS) break;
        std::string buffer(length, '\0');
        rc = SCardListReaders(context, nullptr, buffer.data(), &length);
        if (rc == SCARD_E_INSUFFICIENT_BUFFER) continue;
        if (rc != SCARD_S_SUCCESS) break;
        buffer.resize(length);
        for (std::size_t start = 0; start < buffer.size();) {
            const auto end = buffer.find('\0', start);
            if (end == start || end == std::string::npos) break;
            result.names.push_back(buffer.substr(start, end - start));
            start = end + 1;
        }
        break;
    }
    if (rc == SCARD_E_NO_READERS_AVAILABLE) rc = SCARD_S_SUCCESS;
    if (rc != SCARD_S_SUCCESS) {
        result.code = static_cast<std::uint32_t>(rc);
        result.failedCall = "SCardListReaders";
    }
    SCardReleaseContext(context);
    return result;
}

}  // namespace elatectwn4::sim::bridge
