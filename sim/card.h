// A simulated contactless card as the simulated reader sees it. The reader
// owns the PC/SC storage-card commands (class FF) and the volatile key slots;
// it calls into the card for what the card itself decides.
#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace elatectwn4::sim {

/// ISO 7816 status words the reader answers with.
namespace sw {
inline constexpr std::uint16_t Ok = 0x9000;
inline constexpr std::uint16_t AuthFailed = 0x6300;
inline constexpr std::uint16_t WrongLength = 0x6700;
inline constexpr std::uint16_t SecurityNotSatisfied = 0x6982;
inline constexpr std::uint16_t FunctionNotSupported = 0x6A81;
inline constexpr std::uint16_t NoSuchBlock = 0x6A82;
inline constexpr std::uint16_t WrongP1P2 = 0x6B00;
inline constexpr std::uint16_t InsNotSupported = 0x6D00;
inline constexpr std::uint16_t ClaNotSupported = 0x6E00;
}  // namespace sw

enum class MifareKeyKind { A, B };
using MifareKey = std::array<std::uint8_t, 6>;
using Block = std::array<std::uint8_t, 16>;

class Card {
public:
    virtual ~Card() = default;

    /// "mifare1k", "mifare4k" or "desfire".
    virtual std::string Kind() const = 0;
    /// The ATR a PC/SC reader reports for this card.
    virtual std::vector<std::uint8_t> Atr() const = 0;
    /// The UID that GET DATA (FF CA 00 00 00) returns.
    virtual std::vector<std::uint8_t> Uid() const = 0;
    /// The card enters the field (or is reset): every volatile state
    /// (authentication, selection, pending frames) is lost.
    virtual void PowerOn() = 0;

    /// MIFARE Classic crypto authentication of the sector holding `block`.
    /// Returns a status word (9000, 6300, 6A82, 6A81 when not a Classic card).
    virtual std::uint16_t MifareAuthenticate(unsigned block, MifareKeyKind kind, const MifareKey& key) {
        (void)block, (void)kind, (void)key;
        return sw::FunctionNotSupported;
    }
    /// Read of one 16-byte block under the current authentication.
    virtual std::uint16_t MifareRead(unsigned block, Block& out) {
        (void)block, (void)out;
        return sw::FunctionNotSupported;
    }
    /// Write of one 16-byte block under the current authentication.
    virtual std::uint16_t MifareWrite(unsigned block, const Block& data) {
        (void)block, (void)data;
        return sw::FunctionNotSupported;
    }

    /// A DESFire native frame (command byte + data); the answer is the status
    /// byte followed by data. nullopt when the card does not speak DESFire.
    virtual std::optional<std::vector<std::uint8_t>> DesfireCommand(std::span<const std::uint8_t> frame) {
        (void)frame;
        return std::nullopt;
    }

    /// The persistent contents (keys, blocks, applications, files).
    virtual nlohmann::json Save() const = 0;
    /// Replaces the persistent contents; throws std::runtime_error on a malformed document.
    virtual void Load(const nlohmann::json& state) = 0;
};

}  // namespace elatectwn4::sim
