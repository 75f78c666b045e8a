// The engine against OpenSSL's libcrypto over random keys and messages. The
// expected values are built from OpenSSL's block function and CBC routines,
// with the chaining of the DESFire send mode written out here by hand.
#include <gtest/gtest.h>
#include <openssl/des.h>

#include <array>
#include <random>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using testing::RandomBytes;

// Keys as OpenSSL holds them; single DES uses the first only.
struct Reference {
    bool triple;
    std::array<DES_key_schedule, 3> ks{};

    Reference(bool isTriple, const std::array<ByteArray, 3>& keys) : triple(isTriple) {
        for (int i = 0; i < 3; ++i) {
            DES_cblock block;
            std::copy(keys[i].begin(), keys[i].end(), block);
            DES_set_key_unchecked(&block, &ks[i]);
        }
    }

    void Block(const std::uint8_t* in, std::uint8_t* out, int enc) {
        auto* input = reinterpret_cast<const_DES_cblock*>(const_cast<std::uint8_t*>(in));
        auto* output = reinterpret_cast<DES_cblock*>(out);
        if (triple) {
            DES_ecb3_encrypt(input, output, &ks[0], &ks[1], &ks[2], enc);
        } else {
            DES_ecb_encrypt(input, output, &ks[0], enc);
        }
    }

    ByteArray Ecb(const ByteArray& data, int enc) {
        ByteArray out(data.size());
        for (std::size_t i = 0; i < data.size(); i += 8)
            Block(&data[i], &out[i], enc);
        return out;
    }

    ByteArray Cbc(const ByteArray& data, const ByteArray& iv, int enc) {
        ByteArray out(data.size());
        DES_cblock chain;
        std::copy(iv.begin(), iv.end(), chain);
        const auto size = static_cast<long>(data.size());
        if (triple) {
            DES_ede3_cbc_encrypt(data.data(), out.data(), size, &ks[0], &ks[1], &ks[2], &chain, enc);
        } else {
            DES_ncbc_encrypt(data.data(), out.data(), size, &ks[0], &chain, enc);
        }
        return out;
    }

    // DESFire send mode: y_i = D(x_i ^ y_i-1), y_-1 = IV.
    ByteArray Send(const ByteArray& data, ByteArray chain) {
        ByteArray out(data.size());
        for (std::size_t i = 0; i < data.size(); i += 8) {
            std::uint8_t x[8];
            for (int j = 0; j < 8; ++j)
                x[j] = data[i + j] ^ chain[j];
            Block(x, &out[i], DES_DECRYPT);
            chain.assign(&out[i], &out[i] + 8);
        }
        return out;
    }
};

struct Algorithm {
    const char* name;
    std::int32_t algorithm;
    bool thirdKeyIsFirst;  // the two-key form legacy DESFire uses
};

class DesAgainstOpenSsl : public ::testing::TestWithParam<Algorithm> {};

// Zero fill or method-2 padding, with ECB, CBC, DESFire send mode and the MAC.
TEST_P(DesAgainstOpenSsl, EveryModeMatchesInBothDirections) {
    const Algorithm& setup = GetParam();
    std::mt19937 random(0xDE5u + static_cast<unsigned>(setup.algorithm) * 7 + setup.thirdKeyIsFirst);
    constexpr std::int32_t kPad = DES::kPadIso9797Method2;
    for (int round = 0; round < 300; ++round) {
        std::array<ByteArray, 3> keys;
        for (auto& key : keys)
            key = RandomBytes(random, 8);
        if (setup.thirdKeyIsFirst) keys[2] = keys[0];
        const ByteArray iv = RandomBytes(random, 8);
        DES des;
        for (int i = 0; i < 3; ++i)
            des.Keys(i + 1, ToHex(keys[i], i == 1 ? ' ' : '\0'));  // both hex shapes
        des.InitVector(ToHex(iv, ' '));
        Reference ref(setup.algorithm == DES::kTripleDes, keys);

        const ByteArray message = RandomBytes(random, std::uniform_int_distribution<std::size_t>(0, 70)(random));
        ByteArray full = message;
        full.resize((full.size() + 7) / 8 * 8, 0);
        ByteArray padded = message;
        padded.push_back(0x80);
        padded.resize((padded.size() + 7) / 8 * 8, 0);
        SCOPED_TRACE(ToHex(message));

        const auto run = [&](bool decrypt, const ByteArray& data, std::int32_t mode) {
            std::int32_t options = setup.algorithm | mode;
            const Value result = decrypt ? des.Decrypt(Value(data), options) : des.Encrypt(Value(data), options);
            EXPECT_EQ(options, setup.algorithm | mode);
            return result.Bytes();
        };
        const ByteArray ecb = ref.Ecb(padded, DES_ENCRYPT);
        const ByteArray cbc = ref.Cbc(padded, iv, DES_ENCRYPT);
        EXPECT_EQ(run(false, message, DES::kEcb), ref.Ecb(full, DES_ENCRYPT));
        EXPECT_EQ(run(true, message, DES::kEcb), ref.Ecb(full, DES_DECRYPT));
        EXPECT_EQ(run(false, message, DES::kCbc), ref.Cbc(full, iv, DES_ENCRYPT));
        EXPECT_EQ(run(true, message, DES::kCbc), ref.Cbc(full, iv, DES_DECRYPT));
        EXPECT_EQ(run(false, message, DES::kEcb | kPad), ecb);
        EXPECT_EQ(run(false, message, DES::kCbc | kPad), cbc);
        EXPECT_EQ(run(true, ecb, DES::kEcb | kPad), message);
        EXPECT_EQ(run(true, cbc, DES::kCbc | kPad), message);
        EXPECT_EQ(run(true, message, DES::kSendMode), ref.Send(full, iv));
        EXPECT_EQ(run(true, message, DES::kSendMode | kPad), ref.Send(padded, iv));
        EXPECT_EQ(run(true, message, DES::kMac), ref.Cbc(full, iv, DES_ENCRYPT));
        EXPECT_EQ(run(true, message, DES::kMac | kPad), cbc);
    }
}

INSTANTIATE_TEST_SUITE_P(Algorithms, DesAgainstOpenSsl,
                         ::testing::Values(Algorithm{"SingleDes", DES::kSingleDes, false},
                                           Algorithm{"ThreeKeyTripleDes", DES::kTripleDes, false},
                                           Algorithm{"TwoKeyTripleDes", DES::kTripleDes, true}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace elatectwn4::cipher
