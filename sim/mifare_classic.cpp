#include "sim/mifare_classic.h"

#include <algorithm>
#include <stdexcept>

#include "sim/hex_util.h"

namespace elatectwn4::sim {

namespace {

using enum KeyRight;

// Indexed by C1*4 + C2*2 + C3, from the card's datasheet.
constexpr std::array<DataBlockRights, 8> kDataBlockRights{{
    {AorB, AorB, AorB, AorB},      // 000: transport configuration
    {AorB, Never, Never, AorB},    // 001: value block, decrement only
    {AorB, Never, Never, Never},   // 010: read only
    {B, B, Never, Never},          // 011
    {AorB, B, Never, Never},       // 100
    {B, Never, Never, Never},      // 101
    {AorB, B, B, AorB},            // 110: value block, recharged with key B
    {Never, Never, Never, Never},  // 111: blocked
}};

constexpr std::array<TrailerRights, 8> kTrailerRights{{
    // write A, read access, write access, read B, write B
    {A, A, Never, A, A},                 // 000: key B readable
    {A, A, A, A, A},                     // 001: transport configuration, key B readable
    {Never, A, Never, A, Never},         // 010: key B readable
    {B, AorB, B, Never, B},              // 011
    {B, AorB, Never, Never, B},          // 100
    {Never, AorB, B, Never, Never},      // 101
    {Never, AorB, Never, Never, Never},  // 110
    {Never, AorB, Never, Never, Never},  // 111
}};

// NXP's manufacturer data as found after the ATQA on factory cards.
constexpr std::array<std::uint8_t, 8> kManufacturerData{0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69};

constexpr std::array<std::uint8_t, 4> kTransportAccess{0xFF, 0x07, 0x80, 0x69};

constexpr std::size_t kKeyAOffset = 0;
constexpr std::size_t kAccessOffset = 6;  // bytes 6-8 and the free byte 9 share their rights
constexpr std::size_t kKeyBOffset = 10;

}  // namespace

std::array<std::uint8_t, 3> EncodeAccessBytes(const SectorConditions& conditions) {
    unsigned c1 = 0, c2 = 0, c3 = 0;
    for (unsigned group = 0; group < 4; ++group) {
        c1 |= ((conditions[group] >> 2) & 1u) << group;
        c2 |= ((conditions[group] >> 1) & 1u) << group;
        c3 |= (conditions[group] & 1u) << group;
    }
    return {static_cast<std::uint8_t>(((~c2 & 0x0F) << 4) | (~c1 & 0x0F)),
            static_cast<std::uint8_t>((c1 << 4) | (~c3 & 0x0F)), static_cast<std::uint8_t>((c3 << 4) | c2)};
}

std::optional<SectorConditions> DecodeAccessBytes(std::span<const std::uint8_t, 3> bytes) {
    const unsigned c1 = bytes[1] >> 4;
    const unsigned c2 = bytes[2] & 0x0F;
    const unsigned c3 = bytes[2] >> 4;
    const bool consistent =
        (bytes[0] & 0x0F) == (~c1 & 0x0F) && (bytes[0] >> 4) == (~c2 & 0x0F) && (bytes[1] & 0x0F) == (~c3 & 0x0F);
    if (!consistent) return std::nullopt;
    SectorConditions conditions{};
    for (unsigned group = 0; group < 4; ++group) {
        conditions[group] = static_cast<AccessCondition>((((c1 >> group) & 1u) << 2) | (((c2 >> group) & 1u) << 1) |
                                                         ((c3 >> group) & 1u));
    }
    return conditions;
}

DataBlockRights RightsOfDataBlock(AccessCondition condition) noexcept {
    return kDataBlockRights[condition & 7u];
}

TrailerRights RightsOfTrailer(AccessCondition condition) noexcept {
    return kTrailerRights[condition & 7u];
}

Block EncodeValueBlock(std::int32_t value, std::uint8_t address) {
    const auto v = static_cast<std::uint32_t>(value);
    Block block{};
    for (unsigned i = 0; i < 4; ++i) {
        const auto byte = static_cast<std::uint8_t>(v >> (8 * i));
        block[i] = byte;
        block[4 + i] = static_cast<std::uint8_t>(~byte);
        block[8 + i] = byte;
    }
    block[12] = address;
    block[13] = static_cast<std::uint8_t>(~address);
    block[14] = address;
    block[15] = static_cast<std::uint8_t>(~address);
    return block;
}

std::optional<ValueBlock> DecodeValueBlock(const Block& block) {
    for (unsigned i = 0; i < 4; ++i) {
        if (block[i] != block[8 + i] || block[i] != static_cast<std::uint8_t>(~block[4 + i])) return std::nullopt;
    }
    if (block[12] != block[14] || block[13] != block[15] || block[12] != static_cast<std::uint8_t>(~block[13])) {
        return std::nullopt;
    }
    std::uint32_t v = 0;
    for (unsigned i = 0; i < 4; ++i)
        v |= static_cast<std::uint32_t>(block[i]) << (8 * i);
    return ValueBlock{static_cast<std::int32_t>(v), block[12]};
}

std::vector<std::uint8_t> StorageCardAtr(std::uint16_t cardName) {
    std::vector<std::uint8_t> atr{0x3B,
                                  0x8F,
                                  0x80,
                                  0x01,
                                  0x80,
                                  0x4F,
                                  0x0C,
                                  0xA0,
                                  0x00,
                                  0x00,
                                  0x03,
                                  0x06,
                                  0x03,
                                  static_cast<std::uint8_t>(cardName >> 8),
                                  static_cast<std::uint8_t>(cardName),
                                  0x00,
                                  0x00,
                                  0x00,
                                  0x00};
    std::uint8_t check = 0;
    for (std::size_t i = 1; i < atr.size(); ++i)
        check ^= atr[i];  // T0 up to the last historical byte
    atr.push_back(check);
    return atr;
}

MifareClassicCard::MifareClassicCard(bool fourK, std::vector<std::uint8_t> uid)
    : fourK_(fourK), layout_(fourK ? ClassicLayout::FourK() : ClassicLayout::OneK()), uid_(std::move(uid)) {
    if (uid_.size() != 4 && uid_.size() != 7) {
        throw std::invalid_argument("a MIFARE Classic UID has 4 or 7 bytes, not " + std::to_string(uid_.size()));
    }
    blocks_.assign(layout_.blockCount, Block{});
    for (unsigned sector = 0; sector < layout_.SectorCount(); ++sector) {
        Block& trailer = blocks_[layout_.TrailerOf(sector)];
        std::fill(trailer.begin(), trailer.end(), 0xFF);
        std::copy(kTransportAccess.begin(), kTransportAccess.end(), trailer.begin() + kAccessOffset);
    }
    blocks_[0] = ManufacturerBlock();
}

std::string MifareClassicCard::Kind() const {
    return fourK_ ? "mifare4k" : "mifare1k";
}

std::vector<std::uint8_t> MifareClassicCard::Atr() const {
    return StorageCardAtr(fourK_ ? 0x0002 : 0x0001);
}

std::array<std::uint8_t, 2> MifareClassicCard::Atqa() const noexcept {
    // Bits 7-6 of the ATQA give the UID size (00 single, 01 double).
    const std::uint8_t sizeBits = uid_.size() == 7 ? 0x40 : 0x00;
    return {static_cast<std::uint8_t>(sizeBits | (fourK_ ? 0x02 : 0x04)), 0x00};
}

Block MifareClassicCard::ManufacturerBlock() const {
    Block block{};
    auto out = std::copy(uid_.begin(), uid_.end(), block.begin());
    if (uid_.size() == 4) {
        *out++ = static_cast<std::uint8_t>(uid_[0] ^ uid_[1] ^ uid_[2] ^ uid_[3]);
    }
    *out++ = Sak();
    const auto atqa = Atqa();
    *out++ = atqa[0];
    *out++ = atqa[1];
    const auto left = static_cast<std::size_t>(block.end() - out);
    std::copy_n(kManufacturerData.begin(), left, out);
    return block;
}

std::optional<SectorConditions> MifareClassicCard::ConditionsOf(unsigned sector) const {
    const Block& trailer = blocks_[layout_.TrailerOf(sector)];
    return DecodeAccessBytes(std::span<const std::uint8_t, 3>(trailer.data() + kAccessOffset, 3));
}

std::uint16_t MifareClassicCard::MifareAuthenticate(unsigned block, MifareKeyKind kind, const MifareKey& key) {
    session_.reset();
    if (block >= layout_.blockCount) return sw::NoSuchBlock;
    const unsigned sector = layout_.SectorOf(block);
    const Block& trailer = blocks_[layout_.TrailerOf(sector)];
    const auto stored = trailer.begin() + (kind == MifareKeyKind::A ? kKeyAOffset : kKeyBOffset);
    if (!std::equal(key.begin(), key.end(), stored)) return sw::AuthFailed;
    session_ = Session{sector, kind};
    return sw::Ok;
}

std::uint16_t MifareClassicCard::CheckAccess(unsigned block, SectorConditions& conditions) {
    // The reader knows the card's size and refuses such an address itself.
    if (block >= layout_.blockCount) return sw::NoSuchBlock;
    if (!session_ || session_->sector != layout_.SectorOf(block)) return Refuse();
    const auto decoded = ConditionsOf(session_->sector);
    if (!decoded) return Refuse();
    if (session_->kind == MifareKeyKind::B && RightsOfTrailer((*decoded)[3]).readKeyB != KeyRight::Never) {
        return Refuse();
    }
    conditions = *decoded;
    return sw::Ok;
}

std::uint16_t MifareClassicCard::MifareRead(unsigned block, Block& out) {
    SectorConditions conditions{};
    if (const auto status = CheckAccess(block, conditions); status != sw::Ok) return status;
    const MifareKeyKind kind = session_->kind;
    if (layout_.IsTrailer(block)) {
        const TrailerRights rights = RightsOfTrailer(conditions[3]);
        if (!Grants(rights.readAccessBits, kind)) return Refuse();
        const Block& stored = blocks_[block];
        out.fill(0x00);  // key A never leaves the card
        std::copy_n(stored.begin() + kAccessOffset, 4, out.begin() + kAccessOffset);
        if (Grants(rights.readKeyB, kind)) std::copy_n(stored.begin() + kKeyBOffset, 6, out.begin() + kKeyBOffset);
        return sw::Ok;
    }
    if (!Grants(RightsOfDataBlock(conditions[layout_.GroupOf(block)]).read, kind)) return Refuse();
    out = blocks_[block];
    return sw::Ok;
}

std::uint16_t MifareClassicCard::MifareWrite(unsigned block, const Block& data) {
    SectorConditions conditions{};
    if (const auto status = CheckAccess(block, conditions); status != sw::Ok) return status;
    if (block == 0) return Refuse();
    if (layout_.IsTrailer(block)) return WriteTrailer(block, data, conditions);
    if (!Grants(RightsOfDataBlock(conditions[layout_.GroupOf(block)]).write, session_->kind)) return Refuse();
    blocks_[block] = data;
    return sw::Ok;
}

std::uint16_t MifareClassicCard::WriteTrailer(unsigned block, const Block& data, const SectorConditions& conditions) {
    const TrailerRights rights = RightsOfTrailer(conditions[3]);
    const MifareKeyKind kind = session_->kind;
    const bool keyA = Grants(rights.writeKeyA, kind);
    const bool access = Grants(rights.writeAccessBits, kind);
    const bool keyB = Grants(rights.writeKeyB, kind);
    if (!keyA && !access && !keyB) return Refuse();
    Block& stored = blocks_[block];
    if (keyA) std::copy_n(data.begin() + kKeyAOffset, 6, stored.begin() + kKeyAOffset);
    if (access) std::copy_n(data.begin() + kAccessOffset, 4, stored.begin() + kAccessOffset);
    if (keyB) std::copy_n(data.begin() + kKeyBOffset, 6, stored.begin() + kKeyBOffset);
    return sw::Ok;
}

nlohmann::json MifareClassicCard::Save() const {
    nlohmann::json blocks = nlohmann::json::array();
    for (const Block& block : blocks_)
        blocks.push_back(ToHex(block));
    return {{"kind", Kind()}, {"uid", ToHex(uid_)}, {"blocks", std::move(blocks)}};
}

void MifareClassicCard::Load(const nlohmann::json& state) {
    const auto fail = [](const std::string& why) { throw std::runtime_error("MIFARE Classic state: " + why); };
    if (!state.is_object()) fail("not a JSON object");
    const auto kind = state.find("kind");
    if (kind == state.end() || !kind->is_string() || kind->get<std::string>() != Kind()) {
        fail("\"kind\" is not \"" + Kind() + "\"");
    }
    const auto uidText = state.find("uid");
    if (uidText == state.end() || !uidText->is_string()) fail("no \"uid\" text");
    const auto uid = FromHex(uidText->get<std::string>());
    if (!uid || (uid->size() != 4 && uid->size() != 7)) fail("\"uid\" is not 4 or 7 bytes of hex");
    const auto blockList = state.find("blocks");
    if (blockList == state.end() || !blockList->is_array() || blockList->size() != layout_.blockCount) {
        fail("\"blocks\" is not an array of " + std::to_string(layout_.blockCount) + " blocks");
    }
    std::vector<Block> blocks(layout_.blockCount);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const auto& entry = (*blockList)[i];
        const auto bytes = entry.is_string() ? FromHex(entry.get<std::string>()) : std::nullopt;
        if (!bytes || bytes->size() != 16) fail("block " + std::to_string(i) + " is not 32 hex digits");
        std::copy(bytes->begin(), bytes->end(), blocks[i].begin());
    }
    if (!std::equal(uid->begin(), uid->end(), blocks[0].begin())) fail("block 0 does not begin with the UID");
    uid_ = *uid;
    blocks_ = std::move(blocks);
    session_.reset();
}

}  // namespace elatectwn4::sim
