#include "mifare/access_bits.h"

#include <array>
#include <span>

namespace elatectwn4::mifare {

namespace {

struct DataBlockRow {
    std::int32_t security;
    std::size_t overrideEntry;  // 1-based, as the host numbers the overrides
    std::string_view builtIn;
};

// Key A alone: only the key-A term counts, so every value has a row. Key B
// readable by key A is what makes key A the only usable key here, hence the
// read-only choice "001" for "A read".
constexpr std::array kKeyAOnlyRows{
    DataBlockRow{scbs_A_Nothing, 1, "111"},
    DataBlockRow{scbs_A_Read, 2, "001"},
    DataBlockRow{scbs_A_Write, 3, "000"},
    DataBlockRow{scbs_A_ReadWrite, 3, "000"},
};

// Key B in use: a key-A right without a matching key-B right (1, 2, 3, 6, 7)
// has no condition on the card and is refused on purpose.
constexpr std::array kKeyABRows{
    DataBlockRow{scbs_A_Nothing | scbs_B_Nothing, 4, "111"},
    DataBlockRow{scbs_B_Read, 5, "101"},
    DataBlockRow{scbs_A_Read | scbs_B_Read, 6, "001"},
    DataBlockRow{scbs_B_Write, 7, "011"},
    DataBlockRow{scbs_B_ReadWrite, 7, "011"},
    DataBlockRow{scbs_A_Read | scbs_B_Write, 8, "110"},
    DataBlockRow{scbs_A_Read | scbs_B_ReadWrite, 8, "110"},
    DataBlockRow{scbs_A_Write | scbs_B_Write, 9, "000"},
    DataBlockRow{scbs_A_ReadWrite | scbs_B_Write, 9, "000"},
    DataBlockRow{scbs_A_Write | scbs_B_ReadWrite, 9, "000"},
    DataBlockRow{scbs_A_ReadWrite | scbs_B_ReadWrite, 9, "000"},
};

struct TrailerRow {
    std::int32_t conditions;
    std::string_view text;
};

constexpr std::array kTrailerKeyAOnlyRows{
    TrailerRow{scss_A_Nothing, "010"},
    TrailerRow{scss_A_WriteKeys, "000"},
    TrailerRow{scss_A_WriteConditions, "001"},
    TrailerRow{scss_A_WriteKeysConditions, "001"},
};

constexpr std::array kTrailerKeyABRows{
    TrailerRow{scss_A_Nothing | scss_B_Nothing, "111"},
    TrailerRow{scss_B_WriteKeys, "100"},
    TrailerRow{scss_B_WriteConditions, "101"},
    TrailerRow{scss_B_WriteKeysConditions, "011"},
};

// Indexed by C1*4 + C2*2 + C3.
constexpr std::array<std::int32_t, 8> kReportedDataSecurity{
    scbs_A_ReadWrite | scbs_B_ReadWrite,  // 000
    scbs_A_Read | scbs_B_Read,            // 001
    scbs_A_Read | scbs_B_Read,            // 010
    scbs_B_ReadWrite,                     // 011
    scbs_A_Read | scbs_B_ReadWrite,       // 100
    scbs_B_ReadWrite,                     // 101
    scbs_A_Read | scbs_B_ReadWrite,       // 110
    scbs_A_Nothing | scbs_B_Nothing,      // 111
};

constexpr std::array<TrailerSecurity, 8> kReportedTrailerSecurity{
    TrailerSecurity{KeySchemeAOnly, scss_A_WriteKeys},            // 000
    TrailerSecurity{KeySchemeAOnly, scss_A_WriteKeysConditions},  // 001
    TrailerSecurity{KeySchemeAOnly, scss_A_Nothing},              // 010
    TrailerSecurity{KeySchemeAB, scss_B_WriteKeysConditions},     // 011
    TrailerSecurity{KeySchemeAB, scss_B_WriteKeys},               // 100
    TrailerSecurity{KeySchemeAB, scss_B_WriteConditions},         // 101
    TrailerSecurity{KeySchemeAB, scss_B_Nothing},                 // 110
    TrailerSecurity{KeySchemeAB, scss_B_Nothing},                 // 111
};

// The key-B terms are multiples of 4, so "And 3" keeps the key-A term.
constexpr std::int32_t KeyATerm(std::int32_t value) noexcept {
    return value & 3;
}

std::uint8_t Bit(char c) noexcept {
    return c == '1' ? 1 : 0;
}

}  // namespace

bool IsAccessConditionText(std::string_view text) noexcept {
    if (text.size() != 3) return false;
    for (char c : text) {
        if (c != '0' && c != '1') return false;
    }
    return true;
}

std::optional<std::string_view> DataBlockConditionText(const AccessConditionTable& overrides, std::int32_t security,
                                                       std::uint8_t keyScheme) noexcept {
    const bool keyAOnly = keyScheme == KeySchemeAOnly;
    const std::int32_t value = keyAOnly ? KeyATerm(security) : security;
    const std::span<const DataBlockRow> rows =
        keyAOnly ? std::span<const DataBlockRow>(kKeyAOnlyRows) : std::span<const DataBlockRow>(kKeyABRows);
    for (const auto& row : rows) {
        if (row.security != value) continue;
        const std::string& chosen = overrides[row.overrideEntry - 1];
        return chosen.empty() ? row.builtIn : std::string_view(chosen);
    }
    return std::nullopt;
}

std::optional<std::string_view> TrailerConditionText(std::int32_t conditions, std::uint8_t keyScheme) noexcept {
    const bool keyAOnly = keyScheme == KeySchemeAOnly;
    const std::int32_t value = keyAOnly ? KeyATerm(conditions) : conditions;
    const std::span<const TrailerRow> rows =
        keyAOnly ? std::span<const TrailerRow>(kTrailerKeyAOnlyRows) : std::span<const TrailerRow>(kTrailerKeyABRows);
    for (const auto& row : rows) {
        if (row.conditions == value) return row.text;
    }
    return std::nullopt;
}

void SetAccessBits(std::string_view text, std::uint8_t mask, AccessBytes& access) noexcept {
    const std::uint8_t c1 = text.size() > 0 ? Bit(text[0]) : 0;
    const std::uint8_t c2 = text.size() > 1 ? Bit(text[1]) : 0;
    const std::uint8_t c3 = text.size() > 2 ? Bit(text[2]) : 0;
    const auto m = static_cast<unsigned>(mask);
    const auto keep = static_cast<std::uint8_t>(~(m * 17u));
    access[0] = static_cast<std::uint8_t>((access[0] & keep) | ((1u - c1) * m) | ((1u - c2) * m * 16u));
    access[1] = static_cast<std::uint8_t>((access[1] & keep) | ((1u - c3) * m) | (c1 * m * 16u));
    access[2] = static_cast<std::uint8_t>((access[2] & keep) | (c2 * m) | (c3 * m * 16u));
}

sceReturnCode EncodeDataBlockCondition(const AccessConditionTable& overrides, std::int32_t security,
                                       std::uint8_t keyScheme, std::uint8_t mask, AccessBytes& access) noexcept {
    if (security < 0) return sceSuccess;
    const auto text = DataBlockConditionText(overrides, security, keyScheme);
    if (!text) return sceError;
    SetAccessBits(*text, mask, access);
    return sceSuccess;
}

sceReturnCode EncodeTrailerCondition(std::int32_t conditions, std::uint8_t keyScheme, std::uint8_t mask,
                                     AccessBytes& access) noexcept {
    if (conditions < 0) return sceSuccess;
    const auto text = TrailerConditionText(conditions, keyScheme);
    if (!text) return sceError;
    SetAccessBits(*text, mask, access);
    return sceSuccess;
}

bool AccessBytesConsistent(const AccessBytes& access) noexcept {
    // Byte 6 holds NOT C2 | NOT C1, byte 7 C1 | NOT C3, byte 8 C3 | C2 (high | low nibble).
    const auto low = [](unsigned byte) { return byte & 0x0Fu; };
    const auto high = [](unsigned byte) { return byte >> 4; };
    const auto inverse = [](unsigned nibble) { return ~nibble & 0x0Fu; };
    return low(access[0]) == inverse(high(access[1])) && high(access[0]) == inverse(low(access[2])) &&
           low(access[1]) == inverse(high(access[2]));
}

unsigned ConditionOfBlock(const AccessBytes& access, unsigned blockInSector) noexcept {
    const unsigned c1 = (access[1] >> (4 + blockInSector)) & 1u;
    const unsigned c2 = (access[2] >> blockInSector) & 1u;
    const unsigned c3 = (access[2] >> (4 + blockInSector)) & 1u;
    return c1 * 4 + c2 * 2 + c3;
}

std::int32_t DataBlockSecurityOf(unsigned condition) noexcept {
    return kReportedDataSecurity[condition & 7u];
}

TrailerSecurity TrailerSecurityOf(unsigned condition) noexcept {
    return kReportedTrailerSecurity[condition & 7u];
}

}  // namespace elatectwn4::mifare
