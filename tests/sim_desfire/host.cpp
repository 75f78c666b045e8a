#include "host.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace desfire_test {

Bytes Hex(std::string_view text) {
    std::string digits;
    for (char c : text)
        if (c != ' ') digits += c;
    if (digits.size() % 2 || digits.find_first_not_of("0123456789ABCDEFabcdef") != std::string::npos)
        throw std::invalid_argument("not hex");
    Bytes out;
    for (std::size_t at = 0; at < digits.size(); at += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    return out;
}

std::string ToHex(ByteSpan bytes) {
    static const char* digits = "0123456789ABCDEF";
    std::string s;
    for (auto b : bytes) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

Key MakeKey(std::string_view hex) {
    Bytes bytes = Hex(hex);
    if (bytes.size() == 8) bytes.insert(bytes.end(), bytes.begin(), bytes.end());
    if (bytes.size() != 16) throw std::invalid_argument("key length");
    Key key{};
    std::copy(bytes.begin(), bytes.end(), key.begin());
    return key;
}

Bytes Concat(std::initializer_list<ByteSpan> parts) {
    Bytes out;
    for (ByteSpan p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes Le24(std::uint32_t v) {
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v >> 16)};
}

Bytes Le32(std::int32_t value) {
    auto v = static_cast<std::uint32_t>(value);
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v >> 16),
            static_cast<std::uint8_t>(v >> 24)};
}

std::uint16_t CrcA(ByteSpan data) {
    std::uint16_t crc = 0x6363;
    for (std::uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<std::uint16_t>((crc >> 1) ^ 0x8408) : static_cast<std::uint16_t>(crc >> 1);
    }
    return crc;
}

Bytes WithCrc(ByteSpan data) {
    Bytes out(data.begin(), data.end());
    const std::uint16_t crc = CrcA(data);
    out.push_back(static_cast<std::uint8_t>(crc));
    out.push_back(static_cast<std::uint8_t>(crc >> 8));
    while (out.size() % 8)
        out.push_back(0);
    return out;
}

Bytes Cipher(const Key& key, ByteSpan blocks, bool encipher) {
    // Three-key EDE with K3 = K1 is the two-key form the card uses.
    std::array<std::uint8_t, 24> k3{};
    std::copy(key.begin(), key.end(), k3.begin());
    std::copy(key.begin(), key.begin() + 8, k3.begin() + 16);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_CipherInit_ex(ctx.get(), EVP_des_ede3_ecb(), nullptr, k3.data(), nullptr, encipher ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    Bytes out(blocks.size() + 8);
    int n = 0;
    if (!blocks.empty()) EVP_CipherUpdate(ctx.get(), out.data(), &n, blocks.data(), static_cast<int>(blocks.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

Bytes SendMode(const Key& key, ByteSpan plain) {
    Bytes out;
    std::array<std::uint8_t, 8> previous{};
    for (std::size_t at = 0; at < plain.size(); at += 8) {
        std::array<std::uint8_t, 8> block{};
        for (int i = 0; i < 8; ++i)
            block[i] = plain[at + i] ^ previous[i];
        Bytes y = Cipher(key, block, false);
        std::copy(y.begin(), y.end(), previous.begin());
        out.insert(out.end(), y.begin(), y.end());
    }
    return out;
}

Bytes ReceiveMode(const Key& key, ByteSpan cipher) {
    Bytes out = Cipher(key, cipher, false);
    for (std::size_t i = 8; i < out.size(); ++i)
        out[i] ^= cipher[i - 8];
    return out;
}

Bytes LegacyMac(const Key& key, ByteSpan data) {
    Bytes padded(data.begin(), data.end());
    while (padded.empty() || padded.size() % 8)
        padded.push_back(0);
    std::array<std::uint8_t, 8> chain{};
    for (std::size_t at = 0; at < padded.size(); at += 8) {
        std::array<std::uint8_t, 8> block{};
        for (int i = 0; i < 8; ++i)
            block[i] = padded[at + i] ^ chain[i];
        Bytes z = Cipher(key, block, true);
        std::copy(z.begin(), z.end(), chain.begin());
    }
    return {chain.begin(), chain.begin() + 4};
}

namespace {

// The legacy session key from the two challenges.
Key SessionKey(const Key& key, ByteSpan a, ByteSpan b) {
    const bool singleDes = std::equal(key.begin(), key.begin() + 8, key.begin() + 8);
    Key s{};
    const Bytes first = Concat({a.first(4), b.first(4)});
    const Bytes second = singleDes ? first : Concat({a.subspan(4, 4), b.subspan(4, 4)});
    std::copy(first.begin(), first.end(), s.begin());
    std::copy(second.begin(), second.end(), s.begin() + 8);
    return s;
}

}  // namespace

Answer Host::Send(ByteSpan frame) {
    auto raw = card_.DesfireCommand(frame);
    if (!raw || raw->empty()) return {};
    return {raw->front(), Bytes(raw->begin() + 1, raw->end())};
}

Answer Host::Exchange(ByteSpan frame) {
    Answer answer = Send(frame);
    Bytes all = answer.data;
    for (int guard = 0; answer.status == 0xAF && guard < 1000; ++guard) {
        answer = Send(Bytes{0xAF});
        all.insert(all.end(), answer.data.begin(), answer.data.end());
    }
    answer.data = std::move(all);
    return answer;
}

Answer Host::SendChained(ByteSpan frame, std::size_t first, std::size_t next) {
    std::size_t at = std::min(first, frame.size());
    Answer answer = Send(frame.first(at));
    while (answer.status == 0xAF && at < frame.size()) {
        const std::size_t n = std::min(next, frame.size() - at);
        answer = Send(Concat({Bytes{0xAF}, frame.subspan(at, n)}));
        at += n;
    }
    return answer;
}

std::uint8_t Host::Select(ByteSpan aid) {
    return Send(Concat({Bytes{0x5A}, aid})).status;
}

std::uint8_t Host::Authenticate(std::uint8_t keyNumber, const Key& key) {
    Answer first = Send(Bytes{0x0A, keyNumber});
    if (first.status != 0xAF) return first.status;
    const Bytes rndB = ReceiveMode(key, first.data);
    Bytes rndA(8);
    RAND_bytes(rndA.data(), 8);
    Bytes rotatedB(rndB.begin() + 1, rndB.end());
    rotatedB.push_back(rndB[0]);
    Answer second = Send(Concat({Bytes{0xAF}, SendMode(key, Concat({rndA, rotatedB}))}));
    if (second.status != 0x00) return second.status;
    Bytes rotatedA(rndA.begin() + 1, rndA.end());
    rotatedA.push_back(rndA[0]);
    if (ReceiveMode(key, second.data) != rotatedA) return 0xFF;
    session_ = SessionKey(key, rndA, rndB);
    return 0x00;
}

std::optional<Bytes> Host::Decipher(ByteSpan answer, std::size_t length) const {
    Bytes plain = ReceiveMode(session_, answer);
    if (plain.size() < length + 2) return std::nullopt;
    Bytes data(plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(length));
    if (WithCrc(data) != plain) return std::nullopt;
    return data;
}

}  // namespace desfire_test
