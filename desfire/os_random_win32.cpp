// Challenges come from the system's preferred random generator (CNG).
// clang-format off
#include <windows.h>
#include <bcrypt.h>
// clang-format on

#include <algorithm>
#include <limits>
#include <system_error>

#include "desfire/desfire.h"

namespace elatectwn4::desfire {

void OsRandom(std::span<std::uint8_t> out) {
    while (!out.empty()) {
        const auto chunk = static_cast<ULONG>(std::min<std::size_t>(out.size(), std::numeric_limits<ULONG>::max()));
        const NTSTATUS status = BCryptGenRandom(nullptr, out.data(), chunk, BCRYPT_USE_SYSTEM_PREFERRED_RNG);
        if (status < 0) throw std::system_error(static_cast<int>(status), std::system_category(), "BCryptGenRandom");
        out = out.subspan(chunk);
    }
}

}  // namespace elatectwn4::desfire
