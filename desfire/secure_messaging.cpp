#include "desfire/secure_messaging.h"

#include <algorithm>

#include "cipher/bytes.h"
#include "cipher/convert.h"

namespace elatectwn4::desfire {

namespace {

constexpr std::size_t kBlock = 8;
constexpr char kZeroVector[] = "00 00 00 00 00 00 00 00";

std::size_t WholeBlocks(std::size_t size) noexcept {
    return (size + kBlock - 1) / kBlock * kBlock;
}

}  // namespace

std::array<std::uint8_t, 2> Crc16(std::span<const std::uint8_t> data) {
    // The engine reads hex text; the data may be key bytes.
    const SecretValue hex(cipher::ToHex(data));
    const std::string crc = cipher::DES::CRC16(hex.get());  // "LL HH"
    const cipher::Value bytes = cipher::DES::ConvertData(crc, static_cast<std::int32_t>(cipher::DataForm::Bytes));
    return {bytes.Bytes().at(0), bytes.Bytes().at(1)};
}

void LoadKeys(cipher::DES& engine, const cipher::Value& k1, const cipher::Value& k2) {
    engine.InitVector(kZeroVector);
    engine.Keys(1, k1);
    engine.Keys(2, k2);
    engine.Keys(3, k1);
}

std::int32_t LoadSessionKey(Session& session) {
    const std::span<const std::uint8_t> k1(session.sessionKey.data(), kBlock);
    const std::span<const std::uint8_t> k2(session.sessionKey.data() + kBlock, kBlock);
    const SecretValue k1Hex(cipher::ToHex(k1));
    const SecretValue k2Hex(cipher::ToHex(k2));
    LoadKeys(session.Engine(), k1Hex.get(), k2Hex.get());
    return std::equal(k1.begin(), k1.end(), k2.begin()) ? cipher::DES::kSingleDes : cipher::DES::kTripleDes;
}

cipher::SecretBuffer Transform(cipher::DES& engine, std::int32_t options, std::span<const std::uint8_t> data) {
    const SecretValue input{cipher::ByteArray(data.begin(), data.end())};
    const SecretValue output{engine.Decrypt(input.get(), options)};
    return cipher::SecretBuffer(std::span<const std::uint8_t>(output.get().Bytes()));
}

cipher::SecretBuffer EncipherForCard(Session& session, std::span<const std::uint8_t> plain) {
    const std::int32_t algorithm = LoadSessionKey(session);
    return Transform(session.Engine(), algorithm | cipher::DES::kSendMode, plain);
}

cipher::SecretBuffer BuildEncipheredFrame(Session& session, std::span<const FramePiece> pieces) {
    cipher::SecretBuffer plain;
    for (const FramePiece& piece : pieces) {
        plain.Append(piece.data);
        plain.Append(Crc16(piece.data));
        plain.Resize(WholeBlocks(plain.size() + piece.zeroBytes));
    }
    return EncipherForCard(session, plain.view());
}

}  // namespace elatectwn4::desfire
