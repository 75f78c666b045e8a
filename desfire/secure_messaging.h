// Legacy DESFire secure messaging. The host never enciphers: what it sends
// is deciphered in send mode (out_i = D(in_i XOR out_i-1)), what it receives
// is deciphered in CBC, both from the zero vector, with K1, K2, K1.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <variant>

#include "cipher/des.h"
#include "cipher/secret.h"
#include "cipher/value.h"
#include "cipher/wipe.h"
#include "desfire/desfire.h"

namespace elatectwn4::desfire {

/// A value of the DES engine that holds key material (a key's hex text, a
/// block); whatever text or bytes it holds are overwritten when it ends.
class SecretValue {
public:
    explicit SecretValue(cipher::Value value) noexcept : value_(std::move(value)) {}
    SecretValue(const SecretValue&) = delete;
    SecretValue& operator=(const SecretValue&) = delete;
    SecretValue(SecretValue&& other) noexcept : value_(std::move(other.value_)) { Wipe(other.value_); }
    SecretValue& operator=(SecretValue&&) = delete;
    ~SecretValue() { Wipe(value_); }

    cipher::Value& get() noexcept { return value_; }
    const cipher::Value& get() const noexcept { return value_; }

private:
    static void Wipe(cipher::Value& value) noexcept {
        auto& storage = value.Get();
        if (auto* text = std::get_if<std::string>(&storage)) cipher::SecureWipe(*text);
        if (auto* bytes = std::get_if<cipher::ByteArray>(&storage)) cipher::SecureWipe(*bytes);
    }

    cipher::Value value_;
};

/// One piece of an enciphered frame: its data, the data's CRC16, then
/// `zeroBytes` zero bytes; the piece ends padded to a block boundary.
struct FramePiece {
    std::span<const std::uint8_t> data;
    std::size_t zeroBytes = 0;
};

/// CRC_A of ISO/IEC 14443-3 over `data`, low byte first.
std::array<std::uint8_t, 2> Crc16(std::span<const std::uint8_t> data);

/// Loads K1, K2, K1 (hex text, as the engine reads keys) and the zero vector.
void LoadKeys(cipher::DES& engine, const cipher::Value& k1, const cipher::Value& k2);
/// The same from the session key; returns the algorithm it calls for:
/// single DES when the halves are equal, Triple-DES otherwise.
std::int32_t LoadSessionKey(Session& session);

/// Runs the engine with `options` over whole blocks.
cipher::SecretBuffer Transform(cipher::DES& engine, std::int32_t options, std::span<const std::uint8_t> data);

/// Whole blocks of plain data as the card receives them: send mode with the
/// session key, one chain from the zero vector.
cipher::SecretBuffer EncipherForCard(Session& session, std::span<const std::uint8_t> plain);

/// The pieces one after another, each with its CRC, zero bytes and padding,
/// then enciphered for the card as one chain.
cipher::SecretBuffer BuildEncipheredFrame(Session& session, std::span<const FramePiece> pieces);

}  // namespace elatectwn4::desfire
