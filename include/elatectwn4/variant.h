// The value type of arguments whose kind is decided at run time: the optional
// BX byte of a sector-trailer write, the DESFire version answer (a byte, a
// number or a byte array), and every argument of a call dispatched by name.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace elatectwn4 {

/// Empty (std::monostate) means "not given".
using Variant =
    std::variant<std::monostate, bool, std::uint8_t, std::int32_t, double, std::string, std::vector<std::uint8_t>>;

/// True when the variant holds nothing.
inline bool IsEmpty(const Variant& v) noexcept {
    return std::holds_alternative<std::monostate>(v);
}

}  // namespace elatectwn4
