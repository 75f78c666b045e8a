#include <time.h>

#include "registry/local_time.h"

namespace elatectwn4::registry {

std::tm LocalTime(std::time_t t) noexcept {
    std::tm local{};
    ::localtime_s(&local, &t);
    return local;
}

}  // namespace elatectwn4::registry
