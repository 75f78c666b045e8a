// Hex text for the simulator's saved state and diagnostics. The simulator
// keeps its own (it must not lean on the component it referees).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::sim {

/// Upper-case hex digits, two per byte, no separators.
std::string ToHex(std::span<const std::uint8_t> bytes);

/// The bytes of a text of hex digit pairs (either case, no separators);
/// nullopt for an odd count or a non-hex character.
std::optional<std::vector<std::uint8_t>> FromHex(std::string_view text);

}  // namespace elatectwn4::sim
