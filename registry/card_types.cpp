#include "registry/card_types.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "registry/local_time.h"
#include "registry/registry.h"

namespace elatectwn4::registry {
namespace {

constexpr std::int32_t kUnknownType = 1;  // sceUnknownType
constexpr char kFieldSeparator = ';';
constexpr std::size_t kEntryFieldCount = 3;  // card type; ATR fragment; serial length
constexpr std::string_view kTextWriteData = "Error while writing data in the Registry";

// Names of recorded ATRs carry the time to the second; a second ATR in the
// same second waits for the next one rather than overwrite the first.
constexpr int kNameAttempts = 3;

std::string TrimSpaces(std::string_view s) {
    const auto first = s.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return std::string(s.substr(first, s.find_last_not_of(' ') - first + 1));
}

std::string Upper(std::string_view s) {
    std::string out(s);
    for (auto& c : out) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return out;
}

// An empty text has no fields at all, not one empty field.
std::vector<std::string> SplitFields(std::string_view text) {
    std::vector<std::string> fields;
    if (text.empty()) return fields;
    std::size_t start = 0;
    while (true) {
        const auto end = text.find(kFieldSeparator, start);
        fields.emplace_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return fields;
        start = end + 1;
    }
}

// A field of hexadecimal digits as a 32-bit number; nullopt leaves the
// target unchanged, as a failed conversion did in the original table reader.
std::optional<std::int32_t> HexField(std::string_view field) {
    const auto digits = TrimSpaces(field);
    if (digits.empty() || digits.size() > 8) return std::nullopt;
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (ec != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
    return static_cast<std::int32_t>(value);
}

// A text that is not a number counts as 0.
bool IsNonZeroText(std::string_view text) {
    const auto digits = TrimSpaces(text);
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return ec == std::errc{} && end == digits.data() + digits.size() && value != 0;
}

bool IsNonZero(const RegValue& value) {
    if (const auto* number = std::get_if<std::uint32_t>(&value)) return *number != 0;
    return IsNonZeroText(std::get<std::string>(value));
}

std::string AsText(const RegValue& value) {
    if (const auto* number = std::get_if<std::uint32_t>(&value)) return std::to_string(*number);
    return std::get<std::string>(value);
}

struct TableMatch {
    std::optional<std::vector<std::string>> entry;  ///< the fields of the first matching entry
    bool recorded = false;                          ///< some value's first field is this very ATR
};

// Blanks between the ATR's bytes are separators, not content: card-type files
// kept for other systems write fragments both as "3B 81 80" and as "3B8180".
std::string WithoutBlanks(std::string_view s) {
    std::string out;
    for (char c : s) {
        if (c != ' ') out.push_back(c);
    }
    return out;
}

TableMatch MatchTable(const std::string& atr, const std::vector<NamedText>& values) {
    TableMatch match;
    const std::string compactAtr = WithoutBlanks(atr);
    for (const auto& value : values) {
        auto fields = SplitFields(value.text);
        // Recorded ATRs ("Unknown (...)" values) have one field, the ATR itself.
        if (!fields.empty() && Upper(fields[0]) == atr) match.recorded = true;
        if (fields.size() == kEntryFieldCount && !fields[1].empty() &&
            compactAtr.find(WithoutBlanks(Upper(fields[1]))) != std::string::npos) {
            match.entry = std::move(fields);
            break;
        }
    }
    return match;
}

void ApplyEntry(CardIdentity& identity, const std::vector<std::string>& fields) {
    if (const auto type = HexField(fields[0])) identity.cardType = *type;
    if (const auto length = HexField(fields[2])) identity.serialLength = *length;
}

std::string UnknownValueName(std::chrono::system_clock::time_point when) {
    const std::time_t t = std::chrono::system_clock::to_time_t(when);
    const std::tm local = LocalTime(t);
    std::array<char, 64> buffer{};
    const int n =
        std::snprintf(buffer.data(), buffer.size(), "Unknown (%04d-%02d-%02d %02d:%02d:%02d)", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return std::string(buffer.data(), static_cast<std::size_t>(std::max(n, 0)));
}

bool HasValueNamed(const std::vector<NamedText>& values, std::string_view name) {
    return std::any_of(values.begin(), values.end(), [&](const NamedText& v) { return EqualsNoCase(v.name, name); });
}

// Records the ATR under the store's lock, after checking again what other
// processes recorded or named meanwhile, so each ATR is recorded once.
void RecordUnknownAtr(CardIdentity& identity) {
    bool nameCollision = false;
    WriteRegValueIf(
        Root::LocalMachine, kCardTypesKey, [&](const std::vector<NamedText>& now) -> std::optional<NewTextValue> {
            const auto addNew = std::find_if(
                now.begin(), now.end(), [](const NamedText& v) { return EqualsNoCase(v.name, kAddNewCardsValue); });
            if (addNew == now.end() || !IsNonZeroText(addNew->text)) return std::nullopt;
            const auto fresh = MatchTable(identity.atr, now);
            if (fresh.entry) {
                CardIdentity named = identity;
                ApplyEntry(named, *fresh.entry);
                if (named.cardType != kUnknownType) {
                    identity = std::move(named);
                    return std::nullopt;
                }
            }
            if (fresh.recorded) return std::nullopt;
            for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
                const auto clock = std::chrono::system_clock::now();
                auto name = UnknownValueName(clock);
                if (!HasValueNamed(now, name)) return NewTextValue{std::move(name), identity.atr};
                std::this_thread::sleep_until(std::chrono::floor<std::chrono::seconds>(clock) +
                                              std::chrono::seconds{1} + std::chrono::milliseconds{1});
            }
            nameCollision = true;
            return std::nullopt;
        });
    if (nameCollision) RecordRegistryError(result::kAlreadyExists, kTextWriteData);
}

}  // namespace

CardIdentity IdentifyCardType(std::string_view atr) noexcept {
    CardIdentity identity;
    try {
        identity.atr = Upper(TrimSpaces(atr));
        identity.cardType = kUnknownType;
        bool addNew = IsNonZero(ReadRegValue(Root::LocalMachine, kCardTypesKey, kAddNewCardsValue, RegValue{0u}));
        if (identity.atr.empty()) return identity;

        std::vector<std::string> names;
        EnumRegValueNames(Root::LocalMachine, kCardTypesKey, names);
        std::vector<NamedText> values;
        values.reserve(names.size());
        for (auto& name : names) {
            auto text = AsText(ReadRegValue(Root::LocalMachine, kCardTypesKey, name, RegValue{std::string{}}));
            values.push_back(NamedText{std::move(name), std::move(text)});
        }
        const auto match = MatchTable(identity.atr, values);
        if (match.recorded) addNew = false;
        if (match.entry) ApplyEntry(identity, *match.entry);
        if (identity.cardType == kUnknownType && addNew) RecordUnknownAtr(identity);
    } catch (...) {
        // Out of memory at worst: the card stays of unknown type.
    }
    return identity;
}

}  // namespace elatectwn4::registry
