// Bytes and their hex text: the one codec of the component. Hex digits are
// written upper case, two per byte; they are read in either case.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::cipher {

using ByteView = std::span<const std::uint8_t>;
using ByteArray = std::vector<std::uint8_t>;

inline constexpr std::string_view kHexDigits = "0123456789ABCDEF";

/// The value of a hex digit of either case; -1 for any other character.
constexpr int HexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

/// The upper-case digit of the low four bits.
constexpr char HexDigit(unsigned nibble) noexcept {
    return kHexDigits[nibble & 0x0F];
}

/// Appends two digits per byte to `out` (a std::string or a SecretText),
/// with `separator` between bytes unless it is '\0'.
template <typename Text>
void AppendHex(Text& out, ByteView bytes, char separator = '\0') {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (separator != '\0' && i != 0) out.push_back(separator);
        out.push_back(HexDigit(bytes[i] >> 4));
        out.push_back(HexDigit(bytes[i]));
    }
}

/// "0A1BFF", or "0A 1B FF" with a blank separator.
std::string ToHex(ByteView bytes, char separator = '\0');
std::string ToHex(std::uint8_t byte);

/// The characters of a byte string (one char per byte, 0..255) as bytes.
inline ByteView AsBytes(std::string_view byteString) noexcept {
    return {reinterpret_cast<const std::uint8_t*>(byteString.data()), byteString.size()};
}

inline constexpr bool IsBlank(char c) noexcept {
    return c == ' ';
}

/// What a hex reader accepts besides digits.
struct HexSyntax {
    /// Characters skipped wherever they stand.
    bool (*skip)(char) = IsBlank;
    /// A pair holding a character that is no digit reads as 0, as the host
    /// platform's "&h" reading did; otherwise such a character refuses the text.
    bool lenient = false;
};

/// The digits a text holds once skipped characters are left out (a lenient
/// reading counts every other character as a digit); nullopt when a strict
/// reading meets a character that is neither.
std::optional<std::size_t> CountHexDigits(std::string_view text, HexSyntax syntax = {}) noexcept;

/// Reads the digit pairs of `text` into `out`, which must hold exactly
/// (digits + 1) / 2 bytes; an odd digit count reads as if a "0" stood in
/// front ("ABC" is 0A BC). False, with `out` partly written, when the text
/// does not fit `out` or a strict reading meets a stray character.
bool DecodeHex(std::string_view text, std::span<std::uint8_t> out, HexSyntax syntax = {}) noexcept;

/// DecodeHex into a new array; nullopt where DecodeHex would fail.
std::optional<ByteArray> ParseHex(std::string_view text, HexSyntax syntax = {});

/// True when `text` holds exactly 2 * out.size() digits (blanks skipped),
/// which are then in `out`. Keys and blocks are read this way, straight into
/// their own storage.
bool DecodeHexExactly(std::string_view text, std::span<std::uint8_t> out) noexcept;

/// The value of 1 to 16 hex digits, nothing else around them.
std::optional<std::uint64_t> HexNumber(std::string_view digits) noexcept;

/// Normalises `text` (digits upper case, blanks removed) and checks that only
/// hex digits remain and, unless expectedLength is -1, exactly that many. On
/// success writes the normalised text back and returns true; on failure
/// leaves `text` unchanged and returns false.
bool IsHexText(std::string& text, int expectedLength = -1);

}  // namespace elatectwn4::cipher
