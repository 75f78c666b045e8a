#include "cipher/bytes.h"

namespace elatectwn4::cipher {

std::string ToHex(ByteView bytes, char separator) {
    std::string out;
    out.reserve(bytes.size() * 3);
    AppendHex(out, bytes, separator);
    return out;
}

std::string ToHex(std::uint8_t byte) {
    return {HexDigit(byte >> 4), HexDigit(byte)};
}

std::optional<std::size_t> CountHexDigits(std::string_view text, HexSyntax syntax) noexcept {
    std::size_t digits = 0;
    for (char c : text) {
        if (syntax.skip(c)) continue;
        if (!syntax.lenient && HexValue(c) < 0) return std::nullopt;
        ++digits;
    }
    return digits;
}

bool DecodeHex(std::string_view text, std::span<std::uint8_t> out, HexSyntax syntax) noexcept {
    const std::optional<std::size_t> digits = CountHexDigits(text, syntax);
    if (!digits || (*digits + 1) / 2 != out.size()) return false;
    // An odd count starts with the low half of the first byte.
    bool high = *digits % 2 == 0;
    bool stray = false;
    std::size_t at = 0;
    int pending = 0;
    for (char c : text) {
        if (syntax.skip(c)) continue;
        const int value = HexValue(c);
        stray = stray || value < 0;
        if (high) {
            pending = value;
        } else {
            out[at++] = stray ? 0 : static_cast<std::uint8_t>(pending * 16 + value);
            stray = false;
        }
        high = !high;
    }
    return true;
}

std::optional<ByteArray> ParseHex(std::string_view text, HexSyntax syntax) {
    const std::optional<std::size_t> digits = CountHexDigits(text, syntax);
    if (!digits) return std::nullopt;
    ByteArray bytes((*digits + 1) / 2);
    DecodeHex(text, bytes, syntax);
    return bytes;
}

bool DecodeHexExactly(std::string_view text, std::span<std::uint8_t> out) noexcept {
    const std::optional<std::size_t> digits = CountHexDigits(text);
    return digits && *digits == 2 * out.size() && DecodeHex(text, out);
}

std::optional<std::uint64_t> HexNumber(std::string_view digits) noexcept {
    if (digits.empty() || digits.size() > 16) return std::nullopt;
    std::uint64_t value = 0;
    for (char c : digits) {
        const int digit = HexValue(c);
        if (digit < 0) return std::nullopt;
        value = value * 16 + static_cast<unsigned>(digit);
    }
    return value;
}

bool IsHexText(std::string& text, int expectedLength) {
    std::string normalised;
    normalised.reserve(text.size());
    for (char c : text) {
        if (IsBlank(c)) continue;
        const int value = HexValue(c);
        if (value < 0) return false;
        normalised.push_back(HexDigit(static_cast<unsigned>(value)));
    }
    if (expectedLength != -1 && static_cast<long>(normalised.size()) != expectedLength) return false;
    text = std::move(normalised);
    return true;
}

}  // namespace elatectwn4::cipher
