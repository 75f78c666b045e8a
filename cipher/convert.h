// The data forms of ConvertData, one reader and one writer per form. The
// table of forms is documented with DES::ConvertData in cipher/des.h.
#pragma once

#include <cstdint>
#include <span>

#include "cipher/value.h"

namespace elatectwn4::cipher {

/// The forms ConvertData reads and writes.
enum class DataForm : int {
    HexText = 0,      ///< "0A 1B FF"; separators allowed on input
    CompactHex = 1,   ///< "0A1BFF"
    KeyBytes = 2,     ///< byte array, as Keys and the ChangeKey XOR use it
    BitText = 3,      ///< "00001010..." eight characters per byte
    DecimalList = 4,  ///< "10,27,255"
    Bytes = 5,        ///< byte array
    ByteString = 6,   ///< one char per byte
};

inline constexpr int kLastForm = 6;

/// Reads `data` in input form `form` (0..6). Throws DesError
/// "Bad parameter type" when the kind of value does not fit the form or the
/// form is unknown, "Invalid hexadecimal string" for a bad hex text.
ByteArray ReadForm(const Value& data, int form);

/// Writes `bytes` in output form `form` (0..6).
Value WriteForm(std::span<const std::uint8_t> bytes, int form);

/// True for the characters that the separated hex form skips: blank, comma,
/// tab, CR and LF.
constexpr bool IsSeparator(char c) noexcept {
    return c == ' ' || c == ',' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace elatectwn4::cipher
