// Byte-level shapes of MIFARE Classic data: a 16-byte block, a 6-byte key,
// the value-block layout and the sector trailer. Text forms (32 and 12 hex
// digits) exist only where the host hands them in or gets them back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "cipher/secret.h"

namespace elatectwn4::mifare {

inline constexpr std::size_t BlockSize = 16;
inline constexpr std::size_t KeySize = 6;

/// Blocks and keys are key material: they wipe themselves.
using Block = cipher::DataBlock;
using MifareKey = cipher::MifareKey;

/// Reader slot every key is loaded into before an authentication.
inline constexpr std::int32_t ReaderKeySlot = 1;

/// The last block of a sector, the one that holds its keys: every fourth
/// block among the 4-block sectors (blocks 0..127), every sixteenth in the
/// 16-block sectors of a 4K card.
constexpr bool IsSectorTrailer(std::int32_t block) noexcept {
    if (block < 0) return false;
    return block < 128 ? block % 4 == 3 : block % 16 == 15;
}

/// The value block for `value`: value, its inverse, the value again, then
/// the address byte FFh with its inverse, twice. Throws
/// command::RuntimeError (Overflow) for a negative value, whose per-byte
/// remainders do not fit a byte.
Block ValueBlock(std::int32_t value);

/// Trailer bytes 6, 7 and 8: the access bits of the sector's four blocks.
using AccessBytes = std::array<std::uint8_t, 3>;

/// The last block of a sector.
struct SectorTrailer {
    MifareKey keyA;
    AccessBytes access{};
    std::uint8_t bx = 0;  ///< byte 9, free for the host
    MifareKey keyB;

    Block ToBlock() const noexcept;
};

/// A 32-bit result of block arithmetic; throws command::RuntimeError
/// (Overflow) when `value` leaves the 32-bit range, as the host platform's
/// Long arithmetic did.
std::int32_t CheckedLong(std::int64_t value);

}  // namespace elatectwn4::mifare
