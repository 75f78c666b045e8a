#include "desfire/operation.h"

#include "command/hex.h"

namespace elatectwn4::desfire {

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

int HexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

bool IsApplicationId(std::string& id) {
    return command::IsHexText(id, 6);
}

std::string HexOf(std::span<const std::uint8_t> bytes) {
    std::string hex;
    hex.reserve(2 * bytes.size());
    for (std::uint8_t b : bytes) {
        hex.push_back(kDigits[b >> 4]);
        hex.push_back(kDigits[b & 0x0F]);
    }
    return hex;
}

std::optional<SecretText> KeyDigits(const std::string& text) {
    SecretText digits;
    digits.get().reserve(text.size());
    for (char c : text) {
        if (c == ' ') continue;
        const int value = HexValue(c);
        if (value < 0) return std::nullopt;
        digits.get().push_back(kDigits[value]);
    }
    return digits;
}

void DigitsToBytes(std::string_view digits, std::span<std::uint8_t> out) noexcept {
    for (std::size_t i = 0; i < out.size() && 2 * i + 1 < digits.size(); ++i)
        out[i] = static_cast<std::uint8_t>(HexValue(digits[2 * i]) * 16 + HexValue(digits[2 * i + 1]));
}

}  // namespace elatectwn4::desfire
