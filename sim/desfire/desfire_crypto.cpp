#include "sim/desfire/desfire_crypto.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace elatectwn4::sim::desfire {
namespace {

struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX* ctx) const noexcept { EVP_CIPHER_CTX_free(ctx); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;

// Two-key EDE covers single DES too (K1 = K2 collapses to one DES pass), and
// keeps us in OpenSSL's default provider, where plain DES no longer lives.
Bytes RunCipher(const EVP_CIPHER* cipher, const LegacyKey& key, ByteSpan input) {
    if (input.size() % kBlockSize != 0) throw std::invalid_argument("DESFire cipher input is not whole blocks");
    CipherContext ctx(EVP_CIPHER_CTX_new());
    if (!ctx) throw std::runtime_error("EVP_CIPHER_CTX_new failed");
    const std::array<std::uint8_t, kBlockSize> zeroVector{};
    if (EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, key.data(), zeroVector.data()) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
        throw std::runtime_error("EVP_EncryptInit_ex failed");
    }
    Bytes output(input.size() + kBlockSize);
    int written = 0;
    if (!input.empty() &&
        EVP_EncryptUpdate(ctx.get(), output.data(), &written, input.data(), static_cast<int>(input.size())) != 1) {
        throw std::runtime_error("EVP_EncryptUpdate failed");
    }
    output.resize(static_cast<std::size_t>(written));
    return output;
}

}  // namespace

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

void Wipe(std::span<std::uint8_t> secret) noexcept {
    if (!secret.empty()) OPENSSL_cleanse(secret.data(), secret.size());
}

Bytes LegacyCipher::Encipher(ByteSpan blocks) const {
    return RunCipher(EVP_des_ede_ecb(), key_, blocks);
}

Bytes LegacyCipher::EncipherCbc(ByteSpan blocks) const {
    return RunCipher(EVP_des_ede_cbc(), key_, blocks);
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
