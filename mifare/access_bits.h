// Access conditions of a MIFARE Classic sector: the host's coarse security
// wishes (SCBS_/SCSS_SecurityLevelEnum sums) turned into the card's three
// bits C1 C2 C3 per block, and the trailer's access bytes read back.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "elatectwn4/types.h"
#include "mifare/block.h"
#include "mifare/mifare.h"

namespace elatectwn4::mifare {

/// Key scheme value that runs a sector with key A alone; any other value
/// uses key B too (and the trailer decoding reports KeyScheme2).
inline constexpr std::uint8_t KeySchemeAOnly = 1;
inline constexpr std::uint8_t KeySchemeAB = 2;

/// Block masks within a nibble of the access bytes: blocks 0..2 and the trailer.
inline constexpr std::uint8_t MaskOfBlock(unsigned blockInSector) noexcept {
    return static_cast<std::uint8_t>(1u << blockInSector);
}

/// True for "000".."111": three characters, each "0" or "1".
bool IsAccessConditionText(std::string_view text) noexcept;

/// The access condition text (C1 C2 C3) the data-block tables choose for a
/// security value under a key scheme, the host overrides in `overrides`
/// taking precedence; nullopt for a combination without a row.
std::optional<std::string_view> DataBlockConditionText(const AccessConditionTable& overrides, std::int32_t security,
                                                       std::uint8_t keyScheme) noexcept;
/// The same for the trailer's own conditions (no overrides).
std::optional<std::string_view> TrailerConditionText(std::int32_t conditions, std::uint8_t keyScheme) noexcept;

/// Puts the access condition `text` (C1 C2 C3, "0"/"1" each) of the block
/// with `mask` (1, 2, 4 or 8) into the access bytes, plain and inverted.
void SetAccessBits(std::string_view text, std::uint8_t mask, AccessBytes& access) noexcept;

/// Encodes a data block's security; a negative value keeps the bytes as they
/// are. sceError (bytes unchanged) for a value without a row.
sceReturnCode EncodeDataBlockCondition(const AccessConditionTable& overrides, std::int32_t security,
                                       std::uint8_t keyScheme, std::uint8_t mask, AccessBytes& access) noexcept;
/// Encodes the trailer's own conditions, the same way.
sceReturnCode EncodeTrailerCondition(std::int32_t conditions, std::uint8_t keyScheme, std::uint8_t mask,
                                     AccessBytes& access) noexcept;

/// True when every access bit in bytes 7 and 8 has its inverted copy (in
/// bytes 6 and 7) beside it, as on every trailer a card can hold: a card
/// never accepts a trailer whose copies disagree.
bool AccessBytesConsistent(const AccessBytes& access) noexcept;

/// C1*4 + C2*2 + C3 of block `blockInSector` (0..3), from bytes 7 and 8 (the
/// inverted copies are checked by AccessBytesConsistent, not here).
unsigned ConditionOfBlock(const AccessBytes& access, unsigned blockInSector) noexcept;

/// What a data block's condition is reported as: deliberately coarser than
/// the card's own meaning, and not the inverse of the encoding tables.
std::int32_t DataBlockSecurityOf(unsigned condition) noexcept;

struct TrailerSecurity {
    std::uint8_t keysUsed;
    std::int32_t conditions;
};
/// The key scheme and trailer conditions a trailer condition is reported as.
TrailerSecurity TrailerSecurityOf(unsigned condition) noexcept;

}  // namespace elatectwn4::mifare
