// A simulated MIFARE Classic 1K or 4K card: its memory layout, the access
// conditions of its sector trailers and the authentication state of one
// sector at a time, as the card itself enforces them.
//
// Behaviour chosen where cards and readers differ, each after the datasheet:
//  - Key A never reads back: a trailer read shows zeros in its place. Key B
//    reads back only where the trailer's condition lets key A read it, and
//    shows zeros elsewhere.
//  - Where key B is readable it "cannot serve for authentication": the card
//    completes the key-B authentication (9000) but refuses every following
//    read or write of the sector (6982), and the refusal ends the session.
//  - Every refused read or write ends the authentication, as the card drops
//    to idle on a NAK; the next access needs a new authentication.
//  - A trailer write changes only the parts (key A, access bytes 6-9, key B)
//    that the current condition lets the authenticating key write; parts it
//    may not write keep their value. A write of which no part may be written
//    is refused (6982).
//  - Access bytes whose inverted copies disagree are accepted when written,
//    as the card does not check them then; the card checks them on every
//    memory access, so from then on the sector is blocked: authentication
//    still succeeds but every read and write there is refused (6982).
//  - Block 0 (UID, check byte, SAK, ATQA, manufacturer data) is never
//    writable, whatever its access bits say.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/card.h"

namespace elatectwn4::sim {

/// The 3-bit access condition C1 C2 C3 of one block (or block group), as the
/// number C1*4 + C2*2 + C3.
using AccessCondition = std::uint8_t;

/// The access conditions of a sector: groups 0 to 2 (data blocks; in the 16
/// block sectors of a 4K card each group spans five blocks) and 3 (the trailer).
using SectorConditions = std::array<AccessCondition, 4>;

/// Bytes 6 to 8 of a trailer holding `conditions` with their inverted copies.
std::array<std::uint8_t, 3> EncodeAccessBytes(const SectorConditions& conditions);

/// The conditions that bytes 6 to 8 hold, or nullopt when an inverted copy
/// disagrees with its plain bit (the card then blocks the sector).
std::optional<SectorConditions> DecodeAccessBytes(std::span<const std::uint8_t, 3> bytes);

/// Which keys may do something: none, key A, key B or either.
enum class KeyRight : std::uint8_t { Never = 0, A = 1, B = 2, AorB = 3 };

/// True when authentication with `kind` grants `right`.
constexpr bool Grants(KeyRight right, MifareKeyKind kind) noexcept {
    const auto bits = static_cast<std::uint8_t>(right);
    return (bits & (kind == MifareKeyKind::A ? 1 : 2)) != 0;
}

/// What a data block's condition allows.
struct DataBlockRights {
    KeyRight read;
    KeyRight write;
    KeyRight increment;
    KeyRight decrementTransferRestore;
};

/// What a trailer's condition allows (key A itself is never readable).
struct TrailerRights {
    KeyRight writeKeyA;
    KeyRight readAccessBits;
    KeyRight writeAccessBits;
    KeyRight readKeyB;
    KeyRight writeKeyB;
};

DataBlockRights RightsOfDataBlock(AccessCondition condition) noexcept;
TrailerRights RightsOfTrailer(AccessCondition condition) noexcept;

/// A value block (4-byte signed value stored three times, once inverted, and
/// an address byte stored four times, twice inverted).
Block EncodeValueBlock(std::int32_t value, std::uint8_t address);
/// The value and address of a block in value-block format, or nullopt when the
/// block is not one.
struct ValueBlock {
    std::int32_t value;
    std::uint8_t address;
};
std::optional<ValueBlock> DecodeValueBlock(const Block& block);

/// Memory geometry of a 1K (16 sectors of 4 blocks) or 4K card (32 sectors of
/// 4 blocks, then 8 sectors of 16).
struct ClassicLayout {
    unsigned blockCount;

    static ClassicLayout OneK() noexcept { return {64}; }
    static ClassicLayout FourK() noexcept { return {256}; }

    unsigned SectorCount() const noexcept { return blockCount <= 128 ? blockCount / 4 : 32 + (blockCount - 128) / 16; }
    unsigned SectorOf(unsigned block) const noexcept { return block < 128 ? block / 4 : 32 + (block - 128) / 16; }
    unsigned FirstBlockOf(unsigned sector) const noexcept {
        return sector < 32 ? sector * 4 : 128 + (sector - 32) * 16;
    }
    unsigned BlocksIn(unsigned sector) const noexcept { return sector < 32 ? 4 : 16; }
    unsigned TrailerOf(unsigned sector) const noexcept { return FirstBlockOf(sector) + BlocksIn(sector) - 1; }
    bool IsTrailer(unsigned block) const noexcept { return block == TrailerOf(SectorOf(block)); }
    /// The access-bit group (0..3) governing `block`.
    unsigned GroupOf(unsigned block) const noexcept {
        const unsigned sector = SectorOf(block);
        const unsigned index = block - FirstBlockOf(sector);
        if (BlocksIn(sector) == 4) return index;
        return index == 15 ? 3 : index / 5;
    }
};

class MifareClassicCard final : public Card {
public:
    /// A card in transport state: data blocks zero, every trailer
    /// FFFFFFFFFFFF FF0780 69 FFFFFFFFFFFF, block 0 built from `uid` (4 or 7
    /// bytes; throws std::invalid_argument otherwise).
    MifareClassicCard(bool fourK, std::vector<std::uint8_t> uid);

    std::string Kind() const override;
    std::vector<std::uint8_t> Atr() const override;
    std::vector<std::uint8_t> Uid() const override { return uid_; }
    void PowerOn() override { session_.reset(); }

    std::uint16_t MifareAuthenticate(unsigned block, MifareKeyKind kind, const MifareKey& key) override;
    std::uint16_t MifareRead(unsigned block, Block& out) override;
    std::uint16_t MifareWrite(unsigned block, const Block& data) override;

    /// {"kind": "mifare1k"|"mifare4k", "uid": hex, "blocks": [hex of 16 bytes, ...]}.
    nlohmann::json Save() const override;
    void Load(const nlohmann::json& state) override;

    const ClassicLayout& Layout() const noexcept { return layout_; }
    /// The stored block, trailers as stored (keys included), for inspection.
    const Block& RawBlock(unsigned block) const { return blocks_.at(block); }
    std::uint8_t Sak() const noexcept { return fourK_ ? 0x18 : 0x08; }
    /// ATQA as sent on the air, least significant byte first.
    std::array<std::uint8_t, 2> Atqa() const noexcept;

private:
    struct Session {
        unsigned sector;
        MifareKeyKind kind;
    };

    /// The conditions of a sector, nullopt when its access bytes are inconsistent.
    std::optional<SectorConditions> ConditionsOf(unsigned sector) const;
    /// Common checks before a read or write: the block exists, the session
    /// covers it and the card would not refuse every access there. Returns 9000
    /// and the conditions when the access may go on.
    std::uint16_t CheckAccess(unsigned block, SectorConditions& conditions);
    std::uint16_t Refuse() {
        session_.reset();
        return sw::SecurityNotSatisfied;
    }
    std::uint16_t WriteTrailer(unsigned block, const Block& data, const SectorConditions& conditions);
    Block ManufacturerBlock() const;

    bool fourK_;
    ClassicLayout layout_;
    std::vector<std::uint8_t> uid_;
    std::vector<Block> blocks_;
    std::optional<Session> session_;
};

/// The ATR a PC/SC reader builds for a contactless storage card: the
/// registered application identifier of PC/SC, standard 03 (ISO/IEC 14443 A
/// up to layer 3), the two-byte card name and the check byte.
std::vector<std::uint8_t> StorageCardAtr(std::uint16_t cardName);

}  // namespace elatectwn4::sim
