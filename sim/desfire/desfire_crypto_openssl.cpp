// The simulated card's cipher library on Linux: OpenSSL.
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>
#include <stdexcept>

#include "sim/desfire/desfire_crypto.h"

namespace elatectwn4::sim::desfire {
namespace {

struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX* ctx) const noexcept { EVP_CIPHER_CTX_free(ctx); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;

}  // namespace

// Two-key EDE covers single DES too (K1 = K2 collapses to one DES pass), and
// keeps us in OpenSSL's default provider, where plain DES no longer lives.
Bytes RunEde(const LegacyKey& key, ByteSpan input, bool chained) {
    if (input.size() % kBlockSize != 0) throw std::invalid_argument("DESFire cipher input is not whole blocks");
    CipherContext ctx(EVP_CIPHER_CTX_new());
    if (!ctx) throw std::runtime_error("EVP_CIPHER_CTX_new failed");
    const std::array<std::uint8_t, kBlockSize> zeroVector{};
    if (EVP_EncryptInit_ex(ctx.get(), chained ? EVP_des_ede_cbc() : EVP_des_ede_ecb(), nullptr, key.data(),
                           zeroVector.data()) != 1 ||
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

void DrawRandom(std::span<std::uint8_t> out) {
    if (RAND_bytes(out.data(), static_cast<int>(out.size())) != 1) throw std::runtime_error("RAND_bytes failed");
}

void Wipe(std::span<std::uint8_t> secret) noexcept {
    if (!secret.empty()) OPENSSL_cleanse(secret.data(), secret.size());
}

}  // namespace elatectwn4::sim::desfire
