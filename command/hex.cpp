#include "command/hex.h"

#include <algorithm>

namespace elatectwn4::command {

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

int DigitValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// A pair that is not hex reads as 0, as the host platform's "&h" reading did.
std::uint8_t PairValue(char high, char low) noexcept {
    const int h = DigitValue(high);
    const int l = DigitValue(low);
    if (h < 0 || l < 0) return 0;
    return static_cast<std::uint8_t>(h * 16 + l);
}

std::string WithoutBlanks(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c != ' ') out.push_back(c);
    }
    return out;
}

}  // namespace

std::string ByteHex(std::uint8_t value) {
    return {kDigits[value >> 4], kDigits[value & 0x0F]};
}

bool IsHexText(std::string& text, int expectedLength) {
    std::string normalised;
    normalised.reserve(text.size());
    for (char c : text) {
        if (c == ' ') continue;
        const int value = DigitValue(c);
        if (value < 0) return false;
        normalised.push_back(kDigits[value]);
    }
    if (expectedLength != -1 && static_cast<long>(normalised.size()) != expectedLength) return false;
    text = std::move(normalised);
    return true;
}

std::string BytesToHex(std::string_view data, long firstChar, long lastChar, bool withBlanks) {
    const long size = static_cast<long>(data.size());
    if (lastChar < 0 || lastChar > size) lastChar = size;
    if (firstChar < 1) firstChar = 1;
    std::string out;
    if (firstChar > lastChar) return out;
    out.reserve(static_cast<std::size_t>(lastChar - firstChar + 1) * 3);
    for (long i = firstChar; i <= lastChar; ++i) {
        out += ByteHex(static_cast<std::uint8_t>(data[static_cast<std::size_t>(i - 1)]));
        if (withBlanks) out.push_back(' ');
    }
    if (withBlanks && !out.empty()) out.pop_back();
    return out;
}

std::string HexToBytes(std::string_view hex, long firstByte, long lastByte) {
    const std::string digits = WithoutBlanks(hex);
    const long count = static_cast<long>((digits.size() + 1) / 2);
    if (lastByte < 0 || lastByte > count) lastByte = count;
    if (firstByte < 1) firstByte = 1;
    std::string out;
    for (long i = firstByte; i <= lastByte; ++i) {
        const std::size_t at = static_cast<std::size_t>(i - 1) * 2;
        if (at + 1 < digits.size()) {
            out.push_back(static_cast<char>(PairValue(digits[at], digits[at + 1])));
        } else {
            out.push_back(static_cast<char>(PairValue('0', digits[at])));
        }
    }
    return out;
}

std::vector<std::uint8_t> HexToByteArray(std::string_view text) {
    std::string digits = WithoutBlanks(text);
    if (digits.size() % 2 != 0) digits.insert(digits.begin(), '0');
    std::vector<std::uint8_t> bytes(digits.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = PairValue(digits[2 * i], digits[2 * i + 1]);
    return bytes;
}

void SplitAnswer(bool iso, std::span<const std::uint8_t> bytes, std::string& data, std::string& status) {
    data.clear();
    status.clear();
    if (iso) {
        if (bytes.size() >= 3) data.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size() - 2);
        if (bytes.size() >= 2) status = ByteHex(bytes[bytes.size() - 2]) + ByteHex(bytes[bytes.size() - 1]);
    } else if (!bytes.empty()) {
        status = ByteHex(bytes[0]);
        data.assign(reinterpret_cast<const char*>(bytes.data()) + 1, bytes.size() - 1);
    }
}

std::string FormatByteArray(std::span<const std::uint8_t> bytes) {
    std::string out = "Array(";
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out += ", ";
        out += ByteHex(bytes[i]);
    }
    out += ')';
    return out;
}

std::vector<std::uint8_t> ToBytes(std::string_view byteString) {
    return {byteString.begin(), byteString.end()};
}

std::string ToByteString(std::span<const std::uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace elatectwn4::command
