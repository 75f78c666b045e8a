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
    std::string atr;                          ///< trimmed, upper case
    std::int32_t cardType = 1;                ///< sceCardTypes; 1 = unknown
    std::optional<std::int32_t> serialLength; ///< set only when an entry matched
};

/// Matches `atr` against the registered card types (first entry whose ATR
/// fragment the ATR contains wins) and, when none matches and "Add new
/// cards" is non-zero, records the ATR once as "Unknown (yyyy-mm-dd hh:mm:ss)".
/// Registry failures are kept in the registry's own last error; never throws.
CardIdentity IdentifyCardType(std::string_view atr) noexcept;

}  // namespace elatectwn4::registry
