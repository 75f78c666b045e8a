// Hex in, hex out: the tests write APDUs as the bytes on the wire and compare
// answers as text, so a failure prints the status word it got.
#pragma once

#include <cctype>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "sim/reader.h"

namespace simtest {

using Bytes = std::vector<std::uint8_t>;

/// "FF CA 00 00 00" -> bytes (blanks ignored).
inline Bytes B(std::string_view text) {
    std::string digits;
    for (char c : text) {
        if (c != ' ') digits.push_back(c);
    }
    if (digits.size() % 2 != 0) throw std::invalid_argument("odd hex text");
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string H(const Bytes& bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (auto b : bytes) {
        text.push_back(kDigits[b >> 4]);
        text.push_back(kDigits[b & 15]);
    }
    return text;
}

template <std::size_t N>
std::string H(const std::array<std::uint8_t, N>& bytes) {
    return H(Bytes(bytes.begin(), bytes.end()));
}

/// The status word of an answer ("9000"), or a description when there is none.
inline std::string Sw(const Bytes& answer) {
    if (answer.size() < 2) return "<" + std::to_string(answer.size()) + " byte answer " + H(answer) + ">";
    return H(Bytes(answer.end() - 2, answer.end()));
}

/// The data part of an answer (all but the status word).
inline std::string Data(const Bytes& answer) {
    return answer.size() < 2 ? std::string() : H(Bytes(answer.begin(), answer.end() - 2));
}

inline std::string Answer(elatectwn4::sim::Reader& reader, std::string_view apdu) {
    return H(reader.Transmit(B(apdu)));
}

inline char HexDigit(unsigned v) {
    return "0123456789ABCDEF"[v & 15];
}
inline std::string Hex2(unsigned v) {
    return {HexDigit(v >> 4), HexDigit(v)};
}
inline std::string Block16(unsigned block) {
    return Hex2(block >> 8) + " " + Hex2(block);
}

inline std::string LoadKey(unsigned slot, std::string_view key) {
    return "FF 82 00 " + Hex2(slot) + " 06 " + std::string(key);
}
/// kind 'A' or 'B'.
inline std::string Auth(unsigned block, char kind, unsigned slot) {
    return "FF 86 00 00 05 01 " + Block16(block) + (kind == 'A' ? " 60 " : " 61 ") + Hex2(slot);
}
inline std::string Read(unsigned block) {
    return "FF B0 " + Block16(block) + " 00";
}
inline std::string Write(unsigned block, std::string_view data) {
    return "FF D6 " + Block16(block) + " 10 " + std::string(data);
}

/// Loads `key` into slot 1 and authenticates to `block` with it; the status word.
inline std::string Open(elatectwn4::sim::Reader& reader, unsigned block, char kind, std::string_view key) {
    const auto loaded = Sw(reader.Transmit(B(LoadKey(1, key))));
    if (loaded != "9000") return "LOAD KEYS " + loaded;
    return Sw(reader.Transmit(B(Auth(block, kind, 1))));
}

}  // namespace simtest
