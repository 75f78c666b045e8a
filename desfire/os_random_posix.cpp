// Challenges come from the kernel's random source.
#include <sys/random.h>

#include <cerrno>
#include <system_error>

#include "desfire/desfire.h"

namespace elatectwn4::desfire {

void OsRandom(std::span<std::uint8_t> out) {
    std::size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = getrandom(out.data() + done, out.size() - done, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace elatectwn4::desfire
