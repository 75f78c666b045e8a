// Hex in, hex out: the tests write APDUs as the bytes on the wire and compare
// answers as text, so a failure prints the status word it got.
#pragma once

#include <cstdint>
#include <cstdio>
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
    for (char c : text)
        if (c != ' ') digits.push_back(c);
    auto bytes = elatectwn4::sim::FromHex(digits);
    if (!bytes) throw std::invalid_argument("not hex: " + std::string(text));
    return *bytes;
}

inline std::string H(std::span<const std::uint8_t> bytes) {
    return elatectwn4::sim::ToHex(bytes);
}

/// The last two bytes of an answer as hex: its status word.
inline std::string Sw(const std::string& answer) {
    return answer.size() < 4 ? answer : answer.substr(answer.size() - 4);
}

inline std::string Answer(elatectwn4::sim::Reader& reader, std::string_view apdu) {
    return H(reader.Transmit(B(apdu)));
}

/// The block (or key slot) as it travels: `bytes` big-endian bytes of hex.
inline std::string Num(unsigned v, int bytes = 2) {
    char text[8];
    std::snprintf(text, sizeof text, bytes == 2 ? "%04X" : "%02X", v);
    return text;
}
inline std::string LoadKey(unsigned slot, std::string_view key) {
    return "FF 82 00 " + Num(slot, 1) + " 06 " + std::string(key);
}
/// kind 'A' or 'B', with the key of slot 1.
inline std::string Auth(unsigned block, char kind) {
    return "FF 86 00 00 05 01 " + Num(block) + (kind == 'A' ? " 60 01" : " 61 01");
}
inline std::string Read(unsigned block) {
    return "FF B0 " + Num(block) + " 00";
}
inline std::string Write(unsigned block, std::string_view data) {
    return "FF D6 " + Num(block) + " 10 " + std::string(data);
}

/// Loads `key` into slot 1 and authenticates to `block` with it; the status word.
inline std::string Open(elatectwn4::sim::Reader& reader, unsigned block, char kind, std::string_view key) {
    const auto loaded = Answer(reader, LoadKey(1, key));
    return loaded != "9000" ? "LOAD KEYS " + loaded : Answer(reader, Auth(block, kind));
}

}  // namespace simtest
