// The host hands the optional BX byte of a sector trailer in as a variant;
// this is the conversion the host platform applied to make it a byte.
#pragma once

#include <cstdint>
#include <optional>

#include "elatectwn4/variant.h"

namespace elatectwn4::mifare {

/// The byte `value` converts to, or nullopt when it does not fit 0..255:
/// integers as they are, doubles and numeric texts ("12", " 2.5 ", "1e2",
/// "&HFF") rounded half to even, False as 0. True is -1 and byte arrays have
/// no byte value; an empty variant converts to 0.
std::optional<std::uint8_t> VariantToByte(const Variant& value) noexcept;

}  // namespace elatectwn4::mifare
