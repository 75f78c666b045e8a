// The card-type table: which ATR fragment means which card type and serial
// length, and the recording of ATRs nobody has named yet.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace elatectwn4::registry {

/// Where the table lives, under HKEY_LOCAL_MACHINE.
inline constexpr std::string_view kCardTypesKey = "Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types";
inline constexpr std::string_view kAddNewCardsValue = "Add new cards";

/// What IdentifyCardType found for an ATR.
struct CardIdentity {
    std::string atr;                           ///< trimmed, upper case
    std::int32_t cardType = 1;                 ///< sceCardTypes; 1 = unknown
    std::optional<std::int32_t> serialLength;  ///< set only when an entry matched
};

/// Matches `atr` (trimmed of blanks, upper-cased) against the registered card
/// types: the first value, in file order, made of three ";"-separated fields
/// whose second field the ATR contains gives the card type and serial length
/// (both in hex). Blanks are ignored on both sides, so "3B8180" and
/// "3B 81 80" both match "3B 81 80 01 80 80". When nothing matches, "Add new cards" is non-zero and no
/// value's first field is the ATR already, the ATR is recorded as
/// "Unknown (yyyy-mm-dd hh:mm:ss)"; that check is repeated under the store's
/// lock, so processes seeing the same new card at once record it once.
/// Registry failures are kept in the registry's own last error; never throws.
CardIdentity IdentifyCardType(std::string_view atr) noexcept;

}  // namespace elatectwn4::registry
