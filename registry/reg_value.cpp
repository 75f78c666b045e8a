#include "registry/reg_value.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace elatectwn4::registry {
namespace {

// Significant digits of the host's text form of single and double numbers.
constexpr int kSingleDigits = 7;
constexpr int kDoubleDigits = 15;

// Day zero of the host's dates: a date on it is a time of day alone.
constexpr std::chrono::year_month_day kDateZero{std::chrono::year{1899}, std::chrono::December, std::chrono::day{30}};

std::string FormatNumberText(double value, int digits) {
    std::array<char, 64> buffer{};
    const auto end =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::general, digits).ptr;
    std::string text(buffer.data(), end);
    for (auto& c : text) {
        if (c == 'e') c = 'E';  // the host writes 1E+15
    }
    return text;
}

std::string FormatSingleText(float value) {
    std::array<char, 64> buffer{};
    const auto end =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::general, kSingleDigits)
            .ptr;
    std::string text(buffer.data(), end);
    for (auto& c : text) {
        if (c == 'e') c = 'E';
    }
    return text;
}

// The "General date" form, in the ISO order the card-type table also uses:
// date and time, the date alone at midnight, the time alone on day zero.
std::string GeneralDateText(RegDate when) {
    using namespace std::chrono;
    const auto day = floor<days>(when);
    const year_month_day ymd{day};
    const hh_mm_ss time{when - day};
    std::array<char, 48> buffer{};
    int n = 0;
    if (ymd == kDateZero) {
        n = std::snprintf(buffer.data(), buffer.size(), "%02d:%02d:%02d", static_cast<int>(time.hours().count()),
                          static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
    } else if (time.to_duration() == seconds{0}) {
        n = std::snprintf(buffer.data(), buffer.size(), "%04d-%02u-%02u", static_cast<int>(ymd.year()),
                          static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()));
    } else {
        n = std::snprintf(buffer.data(), buffer.size(), "%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(ymd.year()),
                          static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                          static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                          static_cast<int>(time.seconds().count()));
    }
    return std::string(buffer.data(), static_cast<std::size_t>(std::max(n, 0)));
}

// What a caller's value becomes in the store; nullopt for kinds the
// registry cannot hold.
}  // namespace

std::optional<StorableData> ToStorable(const RegData& value) {
    struct Visitor {
        std::optional<StorableData> operator()(std::monostate) const { return std::nullopt; }
        // Booleans are left open by the host; 1 reads naturally in the file and
        // every reader of the table tests for non-zero.
        std::optional<StorableData> operator()(bool v) const {
            return std::optional<StorableData>{std::in_place, std::uint32_t{v ? 1u : 0u}};
        }
        std::optional<StorableData> operator()(std::uint8_t v) const {
            return std::optional<StorableData>{std::in_place, std::uint32_t{v}};
        }
        std::optional<StorableData> operator()(std::int16_t v) const {
            return std::optional<StorableData>{std::in_place, static_cast<std::uint32_t>(static_cast<std::int32_t>(v))};
        }
        std::optional<StorableData> operator()(std::int32_t v) const {
            return std::optional<StorableData>{std::in_place, static_cast<std::uint32_t>(v)};
        }
        std::optional<StorableData> operator()(std::uint32_t v) const {
            return std::optional<StorableData>{std::in_place, v};
        }
        std::optional<StorableData> operator()(float v) const {
            if (!std::isfinite(v)) return std::nullopt;
            return std::optional<StorableData>{std::in_place, FormatSingleText(v)};
        }
        std::optional<StorableData> operator()(double v) const {
            if (!std::isfinite(v)) return std::nullopt;
            return std::optional<StorableData>{std::in_place, FormatNumberText(v, kDoubleDigits)};
        }
        // The text goes to the registry as a C string: whatever follows a NUL never arrives.
        std::optional<StorableData> operator()(const std::string& v) const {
            return std::optional<StorableData>{std::in_place, v.substr(0, v.find('\0'))};
        }
        std::optional<StorableData> operator()(RegDate v) const {
            return std::optional<StorableData>{std::in_place, GeneralDateText(v)};
        }
        std::optional<StorableData> operator()(const std::vector<std::uint8_t>&) const { return std::nullopt; }
    };
    return std::visit(Visitor{}, value);
}

Root NormalizeRoot(Root root) noexcept {
    return IsKnownRoot(root) ? root : Root::CurrentUser;
}

RegValue ReadValue(Root root, std::string_view key, std::string_view name, const RegValue& fallback,
                   std::string_view computer) noexcept {
    return ReadRegValue(NormalizeRoot(root), key, name, fallback, computer);
}

bool WriteValue(Root root, std::string_view key, std::string_view name, const RegData& value,
                std::string_view computer) noexcept {
    return WriteRegValue(NormalizeRoot(root), key, name, value, computer);
}

std::int32_t EnumValueNames(Root root, std::string_view key, std::vector<std::string>& names,
                            std::string_view computer) noexcept {
    return EnumRegValueNames(NormalizeRoot(root), key, names, computer);
}

}  // namespace elatectwn4::registry
