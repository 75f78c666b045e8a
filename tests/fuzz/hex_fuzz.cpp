// The hex codec: whatever text comes in, a strict reading either refuses it
// or reads back to the same digits, and bytes survive a round trip.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "cipher/bytes.h"
#include "fuzz_support.h"

namespace {

using namespace elatectwn4::cipher;
using elatectwn4::fuzz::Check;

std::string DigitsOf(std::string_view text) {
    std::string digits;
    for (char c : text) {
        if (IsBlank(c)) continue;
        digits.push_back(c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c);
    }
    return digits;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const ByteView bytes(data, size);
    const auto back = ParseHex(ToHex(bytes, ' '));
    Check(back && ByteArray(bytes.begin(), bytes.end()) == *back, "bytes survive their hex");

    const auto parsed = ParseHex(text);
    const auto count = CountHexDigits(text);
    Check(parsed.has_value() == count.has_value(), "counting agrees with parsing");
    std::string normalised(text);
    const bool isHex = IsHexText(normalised);
    Check(isHex == parsed.has_value(), "the test agrees with parsing");
    if (parsed) {
        Check(parsed->size() == (*count + 1) / 2, "two digits a byte");
        std::string digits = DigitsOf(text);
        if (digits.size() % 2 != 0) digits.insert(digits.begin(), '0');
        Check(ToHex(*parsed) == digits, "the digits come back");
        Check(normalised == DigitsOf(text), "normalising gives the digits");
    } else {
        Check(normalised == text, "refused text stays as it was");
    }

    // A lenient reading never refuses, and agrees with the strict one on hex text.
    const auto lenient = ParseHex(text, HexSyntax{IsBlank, true});
    Check(lenient.has_value(), "a lenient reading never refuses");
    if (parsed) Check(*lenient == *parsed, "lenient and strict agree");
    return 0;
}
