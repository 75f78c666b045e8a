// Byte-level shapes of MIFARE Classic data: a 16-byte block, a 6-byte key,
// the value-block layout and the sector trailer. Text forms (32 and 12 hex
// digits) exist only where the host hands them in or gets them back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace elatectwn4::mifare {

inline constexpr std::size_t BlockSize = 16;
inline constexpr std::size_t KeySize = 6;
inline constexpr std::size_t BlockHexDigits = 2 * BlockSize;

using Block = std::array<std::uint8_t, BlockSize>;
using MifareKey = std::array<std::uint8_t, KeySize>;

/// Reader slot every key is loaded into before an authentication.
inline constexpr std::int32_t ReaderKeySlot = 1;

/// Exactly 2 * N hex digits (blanks allowed, either case) as N bytes.
template <std::size_t N>
std::optional<std::array<std::uint8_t, N>> ParseHexBytes(std::string_view text) {
    std::array<std::uint8_t, N> out{};
    std::size_t digits = 0;
    for (char c : text) {
        if (c == ' ') continue;
        int value = -1;
        if (c >= '0' && c <= '9') value = c - '0';
        if (c >= 'A' && c <= 'F') value = c - 'A' + 10;
        if (c >= 'a' && c <= 'f') value = c - 'a' + 10;
        if (value < 0 || digits >= 2 * N) return std::nullopt;
        out[digits / 2] = static_cast<std::uint8_t>((out[digits / 2] << 4) | value);
        ++digits;
    }
    if (digits != 2 * N) return std::nullopt;
    return out;
}

/// Contiguous upper-case hex digits.
std::string ToHex(std::span<const std::uint8_t> bytes);

/// Byte `index` (0-based) of contiguous hex text; a byte the text does not
/// hold (too short, not hex) reads as 0, as the host platform's "&h" reading
/// of an empty or broken pair did.
std::uint8_t HexByteAt(std::string_view hex, std::size_t index) noexcept;

/// The value block for `value`: value, its inverse, the value again, then
/// the address byte FFh with its inverse, twice. Throws
/// command::RuntimeError (Overflow) for a negative value, whose per-byte
/// remainders do not fit a byte.
Block ValueBlock(std::int32_t value);

/// Trailer bytes 6, 7 and 8: the access bits of the sector's four blocks.
using AccessBytes = std::array<std::uint8_t, 3>;

/// The last block of a sector.
struct SectorTrailer {
    MifareKey keyA{};
    AccessBytes access{};
    std::uint8_t bx = 0;  ///< byte 9, free for the host
    MifareKey keyB{};

    Block ToBlock() const noexcept;
    ~SectorTrailer() { Wipe(); }
    void Wipe() noexcept;
};

/// A 32-bit result of block arithmetic; throws command::RuntimeError
/// (Overflow) when `value` leaves the 32-bit range, as the host platform's
/// Long arithmetic did.
std::int32_t CheckedLong(std::int64_t value);

}  // namespace elatectwn4::mifare
