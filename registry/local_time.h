// The calendar fields of a moment in the computer's own time zone.
#pragma once

#include <ctime>

namespace elatectwn4::registry {

/// Local date and time of `t` (thread-safe).
std::tm LocalTime(std::time_t t) noexcept;

}  // namespace elatectwn4::registry
