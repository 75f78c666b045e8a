// Conversions between the component's two data representations: hex text
// ("FF CA 00 00 00", "A0A1A2A3A4A5") and byte strings (std::string holding one
// raw byte 0..255 per char). None of these throws or reads out of bounds.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::command {

/// Normalises `text` (upper case, trimmed, every blank removed) and checks that
/// only hex digits remain and, unless expectedLength is -1, that exactly
/// expectedLength digits remain. On success writes the normalised text back
/// and returns true; on failure leaves `text` unchanged and returns false.
bool IsHexText(std::string& text, int expectedLength = -1);

/// Two upper-case hex digits per byte of data[firstChar-1 .. lastChar-1]
/// (1-based, inclusive; a negative lastChar means "to the end"), a blank after
/// each when withBlanks, the result trimmed. Positions outside the data are
/// clamped.
std::string BytesToHex(std::string_view data, long firstChar = 1, long lastChar = -1, bool withBlanks = false);

/// Byte string from hex text (blanks removed first): one byte per digit pair
/// from byte position firstByte to lastByte (1-based; negative lastByte = to
/// the end). A pair that is not hex yields 0; a lone trailing digit is read
/// as that single digit.
std::string HexToBytes(std::string_view hex, long firstByte = 1, long lastByte = -1);

/// Bytes of a hex text: blanks removed, an odd digit count completed with a
/// leading "0", each pair read as hex (non-hex pair = 0).
std::vector<std::uint8_t> HexToByteArray(std::string_view text);

/// Splits a received answer. iso: data = all but the last two bytes, status =
/// the last two bytes as 4 hex digits. Native (DESFire): status = first byte as
/// 2 hex digits, data = the rest. Parts that do not exist stay empty.
void SplitAnswer(bool iso, std::span<const std::uint8_t> bytes, std::string& data, std::string& status);

/// "Array(00, 1F, FF)".
std::string FormatByteArray(std::span<const std::uint8_t> bytes);

/// Two upper-case hex digits of one byte.
std::string ByteHex(std::uint8_t value);

/// Bytes of a byte string, and back.
std::vector<std::uint8_t> ToBytes(std::string_view byteString);
std::string ToByteString(std::span<const std::uint8_t> bytes);

}  // namespace elatectwn4::command
