#include "mifare/variant_byte.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace elatectwn4::mifare {

namespace {

std::optional<std::uint8_t> FromInteger(std::int64_t value) noexcept {
    if (value < 0 || value > 255) return std::nullopt;
    return static_cast<std::uint8_t>(value);
}

// Conversions to a byte round to the nearest integer, ties to even (2.5 -> 2,
// 3.5 -> 4), which is what nearbyint does in the default rounding mode.
std::optional<std::uint8_t> FromDouble(double value) noexcept {
    if (!std::isfinite(value)) return std::nullopt;
    const double rounded = std::nearbyint(value);
    if (rounded < 0.0 || rounded > 255.0) return std::nullopt;
    return static_cast<std::uint8_t>(rounded);
}

std::string_view Trim(std::string_view text) noexcept {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// "&H" literals: up to four digits are a 16-bit Integer, up to eight a 32-bit
// Long, both two's complement ("&HFFFF" is -1).
std::optional<std::int64_t> HexLiteral(std::string_view digits) noexcept {
    if (digits.empty() || digits.size() > 8) return std::nullopt;
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (ec != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
    if (digits.size() <= 4) return static_cast<std::int16_t>(static_cast<std::uint16_t>(value));
    return static_cast<std::int32_t>(value);
}

std::optional<std::uint8_t> FromText(std::string_view text) noexcept {
    text = Trim(text);
    if (text.size() > 2 && text[0] == '&' && (text[1] == 'H' || text[1] == 'h')) {
        const auto value = HexLiteral(text.substr(2));
        if (!value) return std::nullopt;
        return FromInteger(*value);
    }
    std::string_view number = text;
    bool negative = false;
    if (!number.empty() && (number[0] == '+' || number[0] == '-')) {
        negative = number[0] == '-';
        number.remove_prefix(1);
    }
    // Only plain decimal notation: from_chars would also take "inf" and "nan".
    if (number.empty() || !(std::isdigit(static_cast<unsigned char>(number[0])) || number[0] == '.')) {
        return std::nullopt;
    }
    double value = 0.0;
    const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (ec != std::errc{} || end != number.data() + number.size()) return std::nullopt;
    return FromDouble(negative ? -value : value);
}

}  // namespace

std::optional<std::uint8_t> VariantToByte(const Variant& value) noexcept {
    return std::visit(
        [](const auto& v) -> std::optional<std::uint8_t> {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                return std::uint8_t{0};
            } else if constexpr (std::is_same_v<T, bool>) {
                // True is -1 on the host platform, which is not a byte.
                return v ? std::nullopt : std::optional<std::uint8_t>(0);
            } else if constexpr (std::is_same_v<T, std::uint8_t>) {
                return v;
            } else if constexpr (std::is_same_v<T, std::int32_t>) {
                return FromInteger(v);
            } else if constexpr (std::is_same_v<T, double>) {
                return FromDouble(v);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return FromText(v);
            } else {
                return std::nullopt;
            }
        },
        value);
}

}  // namespace elatectwn4::mifare
