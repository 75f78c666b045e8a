// The card side of legacy (DESFire native, D40-compatible) secure messaging:
// CRC_A, DES / two-key Triple-DES in the card's direction, and the 4-byte MAC.
//
// In the legacy scheme the card only ever enciphers: what it sends is
// enciphered in ordinary CBC from a zero vector, and what it receives (which
// the host produced by deciphering, y_i = D(x_i XOR y_(i-1))) it restores by
// enciphering, x_i = E(y_i) XOR y_(i-1). Every command starts from a zero
// vector; nothing chains from one command to the next.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace elatectwn4::sim::desfire {

using Bytes = std::vector<std::uint8_t>;
using ByteSpan = std::span<const std::uint8_t>;

inline constexpr std::size_t kBlockSize = 8;

/// A DESFire legacy key: always 16 bytes; equal halves make it a single-DES key.
using LegacyKey = std::array<std::uint8_t, 16>;
using Mac = std::array<std::uint8_t, 4>;

/// The ISO/IEC 14443-3 CRC_A (initial value 0x6363) that legacy frames carry.
std::uint16_t Crc16(ByteSpan data) noexcept;
/// Appends the CRC_A of `data` to `out`, low byte first.
void AppendCrc16(Bytes& out, ByteSpan data);

/// True when the key's two halves are equal, i.e. the key acts as single DES.
bool IsSingleDes(const LegacyKey& key) noexcept;
/// The key version a legacy card reports: the parity bits (bit 0) of the
/// first eight key bytes, the first byte giving the most significant bit.
std::uint8_t KeyVersion(const LegacyKey& key) noexcept;

/// Overwrites key material so that it does not linger in memory.
void Wipe(std::span<std::uint8_t> secret) noexcept;

// The cipher library's part, one file per library (OpenSSL on Linux,
// libgcrypt in the Windows test build): never the component's own DES.

/// Two-key Triple-DES (EDE with K1, K2, K1; equal halves act as single DES)
/// over whole blocks from a zero vector, each block alone or chained (CBC).
/// Throws std::invalid_argument when the input is not whole blocks and
/// std::runtime_error when the library fails.
Bytes RunEde(const LegacyKey& key, ByteSpan blocks, bool chained);

/// Random bytes for the card's challenges. Throws std::runtime_error.
void DrawRandom(std::span<std::uint8_t> out);

/// DES / two-key Triple-DES (EDE with K1, K2, K1) operations of the card.
/// Throws std::runtime_error when the cipher library fails, std::invalid_argument when
/// a length is not a whole number of blocks.
class LegacyCipher {
public:
    explicit LegacyCipher(const LegacyKey& key) noexcept : key_(key) {}
    ~LegacyCipher() { Wipe(key_); }
    LegacyCipher(const LegacyCipher&) = delete;
    LegacyCipher& operator=(const LegacyCipher&) = delete;

    /// Enciphers whole blocks independently (the raw cipher function E).
    Bytes Encipher(ByteSpan blocks) const;
    /// What the card sends: CBC encipherment from a zero vector.
    Bytes EncipherCbc(ByteSpan blocks) const;
    /// What the card receives: x_i = E(y_i) XOR y_(i-1), y_0 = 0.
    Bytes UndoSendMode(ByteSpan blocks) const;
    /// The legacy MAC: the data zero-padded to whole blocks, CBC-enciphered
    /// from a zero vector, first four bytes of the last block.
    Mac ComputeMac(ByteSpan data) const;

private:
    LegacyKey key_;
};

/// data + CRC_A(data) + zero bytes up to a whole number of blocks.
Bytes WithCrcAndPadding(ByteSpan data);

}  // namespace elatectwn4::sim::desfire
