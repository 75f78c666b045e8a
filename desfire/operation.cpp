#include "desfire/operation.h"

#include "cipher/bytes.h"

namespace elatectwn4::desfire {

bool IsApplicationId(std::string& id) {
    return cipher::IsHexText(id, 6);
}

std::optional<cipher::SecretText> KeyDigits(std::string_view text) {
    const std::optional<std::size_t> count = cipher::CountHexDigits(text);
    if (!count) return std::nullopt;
    cipher::SecretText digits;
    digits.Reserve(*count);
    for (char c : text) {
        const int value = cipher::HexValue(c);
        if (value >= 0) digits.push_back(cipher::HexDigit(static_cast<unsigned>(value)));
    }
    return digits;
}

}  // namespace elatectwn4::desfire
