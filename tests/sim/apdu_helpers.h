// Hex in, hex out: the tests write APDUs as the bytes on the wire and compare
// answers as text, so a failure prints the status word it got.
#pragma once

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "sim/hex_util.h"
#include "sim/reader.h"

namespace simtest {

using Bytes = std::vector<std::uint8_t>;

/// "FF CA 00 00 00" -> bytes (blanks ignored).
inline Bytes B(std::string_view text) {
    std::string digits;
    for (char c : text) {
        if (c != ' ') digits.push_back(c);
    }
    auto bytes = elatectwn4::sim::FromHex(digits);
    if (!bytes) throw std::invalid_argument("not hex: " + std::string(text));
    return *bytes;
}

inline std::string H(std::span<const std::uint8_t> bytes) {
    return elatectwn4::sim::ToHex(bytes);
}

/// The status word of an answer ("9000"), or a description when there is none.
inline std::string Sw(const Bytes& answer) {
    if (answer.size() < 2) return "<" + std::to_string(answer.size()) + " byte answer " + H(answer) + ">";
    return H(std::span(answer).last(2));
}

inline std::string Answer(elatectwn4::sim::Reader& reader, std::string_view apdu) {
    return H(reader.Transmit(B(apdu)));
}

inline std::string Hex2(unsigned v) {
    return H(std::array{static_cast<std::uint8_t>(v)});
}

inline std::string LoadKey(unsigned slot, std::string_view key) {
    return "FF 82 00 " + Hex2(slot) + " 06 " + std::string(key);
}
/// kind 'A' or 'B'; the block travels as two bytes.
inline std::string Auth(unsigned block, char kind, unsigned slot) {
    return "FF 86 00 00 05 01 " + Hex2(block >> 8) + Hex2(block) + (kind == 'A' ? " 60 " : " 61 ") + Hex2(slot);
}
inline std::string Read(unsigned block) {
    return "FF B0 " + Hex2(block >> 8) + Hex2(block) + " 00";
}
inline std::string Write(unsigned block, std::string_view data) {
    return "FF D6 " + Hex2(block >> 8) + Hex2(block) + " 10 " + std::string(data);
}

/// Loads `key` into slot 1 and authenticates to `block` with it; the status word.
inline std::string Open(elatectwn4::sim::Reader& reader, unsigned block, char kind, std::string_view key) {
    const auto loaded = Sw(reader.Transmit(B(LoadKey(1, key))));
    if (loaded != "9000") return "LOAD KEYS " + loaded;
    return Sw(reader.Transmit(B(Auth(block, kind, 1))));
}

}  // namespace simtest
