// A host for the simulated DESFire card, written independently of the card:
// its own CRC_A (bit by bit), its own chaining over OpenSSL's three-key EDE
// block function, and the host's side of the legacy conventions (the host
// only deciphers: send mode for what it sends, CBC deciphering for what it
// receives).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/card.h"

namespace desfire_test {

using Bytes = std::vector<std::uint8_t>;
using ByteSpan = std::span<const std::uint8_t>;
using Key = std::array<std::uint8_t, 16>;

/// "0A 1B2C" -> {0x0A, 0x1B, 0x2C}; blanks are ignored.
Bytes Hex(std::string_view text);
std::string ToHex(ByteSpan bytes);
/// A 16-byte key from 32 hex digits, or from 16 digits doubled (single DES).
Key MakeKey(std::string_view hex);

Bytes Concat(std::initializer_list<ByteSpan> parts);
Bytes Le24(std::uint32_t value);
Bytes Le32(std::int32_t value);

/// CRC_A of ISO/IEC 14443-3, computed bit by bit (reflected 0x8408, preset 0x6363).
std::uint16_t CrcA(ByteSpan data);
/// data + CRC_A (low byte first) + zero bytes to a whole number of blocks.
Bytes WithCrc(ByteSpan data);

/// The raw block cipher, DES-EDE with K1, K2, K1.
Bytes Cipher(const Key& key, ByteSpan blocks, bool encipher);
/// Host send mode: y_i = D(x_i XOR y_(i-1)), y_0 = 0.
Bytes SendMode(const Key& key, ByteSpan plain);
/// CBC deciphering: x_i = D(z_i) XOR z_(i-1), z_0 = 0.
Bytes ReceiveMode(const Key& key, ByteSpan cipher);
/// Legacy MAC: zero-padded CBC encipherment, first 4 bytes of the last block.
Bytes LegacyMac(const Key& key, ByteSpan data);

struct Answer {
    std::uint8_t status = 0xFF;
    Bytes data;
};

/// Drives a card with native frames and keeps the host's session key.
class Host {
public:
    explicit Host(elatectwn4::sim::Card& card) : card_(card) {}

    /// One frame, one answer.
    Answer Send(ByteSpan frame);
    /// One command; AF answers are followed with AF frames, data concatenated.
    Answer Exchange(ByteSpan frame);
    /// A command whose frame is cut into a first frame of at most `first`
    /// bytes (command included) and AF frames of at most `next` bytes of data.
    Answer SendChained(ByteSpan frame, std::size_t first = 53, std::size_t next = 59);

    std::uint8_t Select(ByteSpan aid);
    /// The three-pass legacy authentication; returns the card's last status,
    /// or 0xFF when the card's proof of RndA does not check out.
    std::uint8_t Authenticate(std::uint8_t keyNumber, const Key& key);

    const Key& Session() const { return session_; }
    /// WithCrc(data) in send mode with the session key.
    Bytes Encipher(ByteSpan data) const { return SendMode(session_, WithCrc(data)); }
    Bytes Mac(ByteSpan data) const { return LegacyMac(session_, data); }
    /// Deciphers an enciphered answer of `length` data bytes and checks CRC and padding.
    std::optional<Bytes> Decipher(ByteSpan answer, std::size_t length) const;

private:
    elatectwn4::sim::Card& card_;
    Key session_{};
};

}  // namespace desfire_test
