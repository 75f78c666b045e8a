// Helpers shared by the DES engine tests. Hex goes through the component's
// codec, which the hex fuzz target holds to its round trips.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>

#include "cipher/bytes.h"
#include "cipher/des.h"

namespace elatectwn4::cipher {

/// Shows a Value in assertion failures as its kind and contents.
inline void PrintTo(const Value& value, std::ostream* os) {
    std::visit(
        [os](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>) {
                *os << "Text \"" << v << '"';
            } else if constexpr (std::is_same_v<T, ByteArray>) {
                *os << "ByteArray(" << ToHex(v, ' ') << ')';
            } else if constexpr (std::is_same_v<T, MixedArray>) {
                *os << "MixedArray of " << v.size();
            } else if constexpr (!std::is_same_v<T, std::monostate>) {
                *os << v;
            }
        },
        value.Get());
}

}  // namespace elatectwn4::cipher

namespace elatectwn4::cipher::testing {

inline ByteArray RandomBytes(std::mt19937& random, std::size_t count) {
    std::uniform_int_distribution<int> byte(0, 255);
    ByteArray bytes(count);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(byte(random));
    return bytes;
}

/// The message of the DesError that `action` throws ("(no error)" when none);
/// its number must be 0x80040201.
inline std::string DesErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const DesError& error) {
        EXPECT_EQ(error.number(), 0x80040201LL) << error.what();
        return error.what();
    }
    return "(no error)";
}

}  // namespace elatectwn4::cipher::testing
