#include "cipher/convert.h"

#include <cmath>
#include <optional>
#include <string>
#include <utility>

#include "cipher/bytes.h"

namespace elatectwn4::cipher {
namespace {

[[noreturn]] void BadType() {
    throw DesError(des_message::kBadParameterType);
}

constexpr bool NoSeparator(char) noexcept {
    return false;
}

// An odd digit count reads as if a "0" stood in front, the same completion
// the component's other hex readers apply.
ByteArray ReadHex(const std::string& text, bool skipSeparators) {
    std::optional<ByteArray> bytes = ParseHex(text, {skipSeparators ? IsSeparator : NoSeparator});
    if (!bytes) throw DesError(des_message::kInvalidHex);
    return std::move(*bytes);
}

ByteArray ReadBits(const std::string& text) {
    ByteArray bytes;
    bytes.reserve(text.size() / 8);
    unsigned current = 0;
    int count = 0;
    for (char c : text) {
        if (IsSeparator(c)) continue;
        if (c != '0' && c != '1') BadType();
        current = (current << 1) | static_cast<unsigned>(c - '0');
        if (++count == 8) {
            bytes.push_back(static_cast<std::uint8_t>(current));
            current = 0;
            count = 0;
        }
    }
    if (count != 0) BadType();
    return bytes;
}

ByteArray ReadDecimals(const std::string& text) {
    ByteArray bytes;
    unsigned current = 0;
    bool inNumber = false;
    auto finish = [&] {
        if (inNumber) bytes.push_back(static_cast<std::uint8_t>(current));
        current = 0;
        inNumber = false;
    };
    for (char c : text) {
        if (IsSeparator(c)) {
            finish();
            continue;
        }
        if (c < '0' || c > '9') BadType();
        current = current * 10 + static_cast<unsigned>(c - '0');
        if (current > 255) BadType();
        inNumber = true;
    }
    finish();
    return bytes;
}

// A byte from one array element: integers and Booleans only, as the
// automation types that convert to a byte without loss.
std::uint8_t ElementByte(const Element& element) {
    if (const auto* flag = std::get_if<bool>(&element)) return *flag ? 1 : 0;
    if (const auto* integer = std::get_if<std::int64_t>(&element)) {
        if (*integer < 0 || *integer > 255) BadType();
        return static_cast<std::uint8_t>(*integer);
    }
    if (const auto* real = std::get_if<double>(&element)) {
        // A floating-point element converts like an automation byte
        // conversion: rounded to the nearest integer, ties to even.
        const double rounded = std::nearbyint(*real);
        if (!(rounded >= 0.0 && rounded <= 255.0)) BadType();
        return static_cast<std::uint8_t>(rounded);
    }
    BadType();
}

ByteArray ReadArray(const Value& data) {
    if (data.IsByteArray()) return data.Bytes();
    const auto* elements = std::get_if<MixedArray>(&data.Get());
    if (elements == nullptr) BadType();
    ByteArray bytes;
    bytes.reserve(elements->size());
    for (const Element& element : *elements)
        bytes.push_back(ElementByte(element));
    return bytes;
}

std::string WriteHex(std::span<const std::uint8_t> bytes, bool blanks) {
    return ToHex(bytes, blanks ? ' ' : '\0');
}

std::string WriteBits(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve(bytes.size() * 8);
    for (std::uint8_t b : bytes) {
        for (int bit = 7; bit >= 0; --bit)
            text.push_back((b >> bit) & 1 ? '1' : '0');
    }
    return text;
}

std::string WriteDecimals(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve(bytes.size() * 4);
    for (std::uint8_t b : bytes) {
        if (!text.empty()) text.push_back(',');
        text += std::to_string(b);
    }
    return text;
}

}  // namespace

ByteArray ReadForm(const Value& data, int form) {
    switch (static_cast<DataForm>(form)) {
        case DataForm::HexText:
            return ReadHex(data.Text(), true);
        case DataForm::CompactHex:
            return ReadHex(data.Text(), false);
        case DataForm::KeyBytes:
        case DataForm::Bytes:
            return ReadArray(data);
        case DataForm::BitText:
            return ReadBits(data.Text());
        case DataForm::DecimalList:
            return ReadDecimals(data.Text());
        case DataForm::ByteString: {
            const std::string& text = data.Text();
            return ByteArray(text.begin(), text.end());
        }
    }
    BadType();
}

Value WriteForm(std::span<const std::uint8_t> bytes, int form) {
    switch (static_cast<DataForm>(form)) {
        case DataForm::HexText:
            return Value(WriteHex(bytes, true));
        case DataForm::CompactHex:
            return Value(WriteHex(bytes, false));
        case DataForm::KeyBytes:
        case DataForm::Bytes:
            return Value(ByteArray(bytes.begin(), bytes.end()));
        case DataForm::BitText:
            return Value(WriteBits(bytes));
        case DataForm::DecimalList:
            return Value(WriteDecimals(bytes));
        case DataForm::ByteString:
            return Value(std::string(bytes.begin(), bytes.end()));
    }
    BadType();
}

}  // namespace elatectwn4::cipher
