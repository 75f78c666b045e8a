// Little-endian fields of DESFire native frames.
#pragma once

#include <cstdint>

#include "sim/desfire/desfire_crypto.h"

namespace elatectwn4::sim::desfire {

inline std::uint32_t Le24(ByteSpan bytes) noexcept {
    return static_cast<std::uint32_t>(bytes[0] | bytes[1] << 8 | bytes[2] << 16);
}

inline std::int32_t Le32(ByteSpan bytes) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
                                     static_cast<std::uint32_t>(bytes[2]) << 16 |
                                     static_cast<std::uint32_t>(bytes[3]) << 24);
}

inline void PutLe24(Bytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 24; shift += 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

inline void PutLe32(Bytes& out, std::int32_t value) {
    const auto bits = static_cast<std::uint32_t>(value);
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<std::uint8_t>(bits >> shift));
}

}  // namespace elatectwn4::sim::desfire
