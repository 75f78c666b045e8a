#include "sim/desfire/desfire_crypto.h"

#include <algorithm>
#include <stdexcept>

namespace elatectwn4::sim::desfire {
std::uint16_t Crc16(ByteSpan data) noexcept {
    std::uint16_t crc = 0x6363;
    for (std::uint8_t byte : data) {
        byte ^= static_cast<std::uint8_t>(crc & 0xFF);
        byte ^= static_cast<std::uint8_t>(byte << 4);
        crc = static_cast<std::uint16_t>((crc >> 8) ^ (byte << 8) ^ (byte << 3) ^ (byte >> 4));
    }
    return crc;
}

void AppendCrc16(Bytes& out, ByteSpan data) {
    const std::uint16_t crc = Crc16(data);
    out.push_back(static_cast<std::uint8_t>(crc & 0xFF));
    out.push_back(static_cast<std::uint8_t>(crc >> 8));
}

bool IsSingleDes(const LegacyKey& key) noexcept {
    return std::equal(key.begin(), key.begin() + 8, key.begin() + 8);
}

std::uint8_t KeyVersion(const LegacyKey& key) noexcept {
    std::uint8_t version = 0;
    for (std::size_t i = 0; i < 8; ++i)
        version = static_cast<std::uint8_t>((version << 1) | (key[i] & 0x01));
    return version;
}

Bytes LegacyCipher::Encipher(ByteSpan blocks) const {
    return RunEde(key_, blocks, false);
}

Bytes LegacyCipher::EncipherCbc(ByteSpan blocks) const {
    return RunEde(key_, blocks, true);
}

Bytes LegacyCipher::UndoSendMode(ByteSpan blocks) const {
    Bytes plain = Encipher(blocks);
    for (std::size_t i = kBlockSize; i < plain.size(); ++i)
        plain[i] ^= blocks[i - kBlockSize];
    return plain;
}

Mac LegacyCipher::ComputeMac(ByteSpan data) const {
    Bytes padded(data.begin(), data.end());
    padded.resize((data.size() + kBlockSize - 1) / kBlockSize * kBlockSize, 0x00);
    if (padded.empty()) padded.resize(kBlockSize, 0x00);
    const Bytes chained = EncipherCbc(padded);
    Mac mac{};
    std::copy_n(chained.end() - kBlockSize, mac.size(), mac.begin());
    return mac;
}

Bytes WithCrcAndPadding(ByteSpan data) {
    Bytes out(data.begin(), data.end());
    AppendCrc16(out, data);
    out.resize((out.size() + kBlockSize - 1) / kBlockSize * kBlockSize, 0x00);
    return out;
}

}  // namespace elatectwn4::sim::desfire
