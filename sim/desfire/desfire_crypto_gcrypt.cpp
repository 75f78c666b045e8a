// The simulated card's cipher library in the Windows test build: libgcrypt.
#include <gcrypt.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "sim/desfire/desfire_crypto.h"

namespace elatectwn4::sim::desfire {
namespace {

struct HandleCloser {
    void operator()(gcry_cipher_hd_t h) const noexcept { gcry_cipher_close(h); }
};
using CipherHandle = std::unique_ptr<std::remove_pointer_t<gcry_cipher_hd_t>, HandleCloser>;

void Initialise() {
    static const bool ready = [] {
        if (gcry_check_version(GCRYPT_VERSION) == nullptr) throw std::runtime_error("libgcrypt version mismatch");
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        return true;
    }();
    (void)ready;
}

}  // namespace

// libgcrypt's Triple-DES takes three keys: K1, K2, K1 gives two-key EDE, and
// single DES when the halves are equal.
Bytes RunEde(const LegacyKey& key, ByteSpan input, bool chained) {
    if (input.size() % kBlockSize != 0) throw std::invalid_argument("DESFire cipher input is not whole blocks");
    Initialise();
    gcry_cipher_hd_t raw = nullptr;
    if (gcry_cipher_open(&raw, GCRY_CIPHER_3DES, chained ? GCRY_CIPHER_MODE_CBC : GCRY_CIPHER_MODE_ECB, 0) != 0)
        throw std::runtime_error("gcry_cipher_open failed");
    CipherHandle handle(raw);
    std::array<std::uint8_t, 24> threeKeys{};
    std::copy(key.begin(), key.end(), threeKeys.begin());
    std::copy(key.begin(), key.begin() + 8, threeKeys.begin() + 16);
    // libgcrypt refuses keys it deems weak unless told to accept them; a card takes any key.
    gcry_cipher_ctl(handle.get(), GCRYCTL_SET_ALLOW_WEAK_KEY, nullptr, 1);
    const gcry_error_t keyError = gcry_cipher_setkey(handle.get(), threeKeys.data(), threeKeys.size());
    Wipe(threeKeys);
    if (keyError != 0 && gcry_err_code(keyError) != GPG_ERR_WEAK_KEY)
        throw std::runtime_error("gcry_cipher_setkey failed");
    const std::array<std::uint8_t, kBlockSize> zeroVector{};
    if (chained && gcry_cipher_setiv(handle.get(), zeroVector.data(), zeroVector.size()) != 0)
        throw std::runtime_error("gcry_cipher_setiv failed");
    Bytes output(input.size());
    if (!input.empty() &&
        gcry_cipher_encrypt(handle.get(), output.data(), output.size(), input.data(), input.size()) != 0)
        throw std::runtime_error("gcry_cipher_encrypt failed");
    return output;
}

void DrawRandom(std::span<std::uint8_t> out) {
    Initialise();
    gcry_randomize(out.data(), out.size(), GCRY_STRONG_RANDOM);
}

void Wipe(std::span<std::uint8_t> secret) noexcept {
    volatile std::uint8_t* p = secret.data();
    for (std::size_t i = 0; i < secret.size(); ++i)
        p[i] = 0;
}

}  // namespace elatectwn4::sim::desfire
