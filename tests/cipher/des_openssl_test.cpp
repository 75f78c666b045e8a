// The engine against OpenSSL's libcrypto over random keys and messages. The
// expected values are built from OpenSSL's block function and CBC routines,
// with the chaining of the DESFire modes written out here by hand.
#include <gtest/gtest.h>
#include <openssl/des.h>

#include <array>
#include <random>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using testing::FromHex;
using testing::RandomBytes;
using testing::ToHex;
using Bytes = ByteArray;

constexpr int kRounds = 300;

// Keys as OpenSSL holds them; single DES uses k1 only.
struct Reference {
    bool triple = false;
    std::array<DES_key_schedule, 3> ks{};

    Reference(bool isTriple, const std::array<Bytes, 3>& keys) : triple(isTriple) {
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

    Bytes Ecb(const Bytes& data, int enc) {
        Bytes out(data.size());
        for (std::size_t i = 0; i < data.size(); i += 8)
            Block(&data[i], &out[i], enc);
        return out;
    }

    Bytes Cbc(const Bytes& data, const Bytes& iv, int enc) {
        Bytes out(data.size());
        DES_cblock chain;
        std::copy(iv.begin(), iv.end(), chain);
        if (triple) {
            DES_ede3_cbc_encrypt(data.data(), out.data(), static_cast<long>(data.size()), &ks[0], &ks[1], &ks[2],
                                 &chain, enc);
        } else {
            DES_ncbc_encrypt(data.data(), out.data(), static_cast<long>(data.size()), &ks[0], &chain, enc);
        }
        return out;
    }

    // DESFire send mode: y_i = D(x_i ^ y_i-1), y_-1 = IV.
    Bytes Send(const Bytes& data, const Bytes& iv) {
        Bytes out(data.size());
        Bytes chain = iv;
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

Bytes ZeroFill(Bytes data) {
    data.resize((data.size() + 7) / 8 * 8, 0);
    return data;
}

Bytes PadMethod2(Bytes data) {
    data.push_back(0x80);
    return ZeroFill(std::move(data));
}

struct Setup {
    std::int32_t algorithm;
    bool thirdKeyIsFirst;  // the two-key form legacy DESFire uses
};

const Setup kSetups[] = {{DES::kSingleDes, false}, {DES::kTripleDes, false}, {DES::kTripleDes, true}};

class DesAgainstOpenSsl : public ::testing::TestWithParam<Setup> {
protected:
    void NewKeys() {
        for (auto& key : keys_)
            key = RandomBytes(random_, 8);
        if (GetParam().thirdKeyIsFirst) keys_[2] = keys_[0];
        iv_ = RandomBytes(random_, 8);
        for (int i = 0; i < 3; ++i)
            des_.Keys(i + 1, ToHex(keys_[i], i == 1));  // both hex shapes
        des_.InitVector(ToHex(iv_, true));
    }
    Reference Ref() const { return Reference(GetParam().algorithm == DES::kTripleDes, keys_); }
    Bytes Message() { return RandomBytes(random_, std::uniform_int_distribution<std::size_t>(0, 70)(random_)); }
    Bytes Run(bool decrypt, const Bytes& data, std::int32_t mode) {
        std::int32_t options = GetParam().algorithm | mode;
        const std::int32_t before = options;
        Value result = decrypt ? des_.Decrypt(Value(data), options) : des_.Encrypt(Value(data), options);
        EXPECT_EQ(options, before);
        return result.Bytes();
    }

    std::mt19937 random_{0xDE5u + static_cast<unsigned>(GetParam().algorithm) * 7 + GetParam().thirdKeyIsFirst};
    std::array<Bytes, 3> keys_;
    Bytes iv_;
    DES des_;
};

// Zero fill or method-2 padding, with ECB, CBC, DESFire send mode and the MAC.
TEST_P(DesAgainstOpenSsl, EveryModeMatchesInBothDirections) {
    constexpr std::int32_t kPad = DES::kPadIso9797Method2;
    for (int round = 0; round < kRounds; ++round) {
        NewKeys();
        Reference ref = Ref();
        const Bytes message = Message();
        const Bytes full = ZeroFill(message);
        const Bytes padded = PadMethod2(message);
        SCOPED_TRACE(ToHex(message));
        EXPECT_EQ(Run(false, message, DES::kEcb), ref.Ecb(full, DES_ENCRYPT));
        EXPECT_EQ(Run(true, message, DES::kEcb), ref.Ecb(full, DES_DECRYPT));
        EXPECT_EQ(Run(false, message, DES::kCbc), ref.Cbc(full, iv_, DES_ENCRYPT));
        EXPECT_EQ(Run(true, message, DES::kCbc), ref.Cbc(full, iv_, DES_DECRYPT));

        const Bytes ecb = ref.Ecb(padded, DES_ENCRYPT);
        const Bytes cbc = ref.Cbc(padded, iv_, DES_ENCRYPT);
        EXPECT_EQ(Run(false, message, DES::kEcb | kPad), ecb);
        EXPECT_EQ(Run(false, message, DES::kCbc | kPad), cbc);
        EXPECT_EQ(Run(true, ecb, DES::kEcb | kPad), message);
        EXPECT_EQ(Run(true, cbc, DES::kCbc | kPad), message);

        EXPECT_EQ(Run(true, message, DES::kSendMode), ref.Send(full, iv_));
        EXPECT_EQ(Run(true, message, DES::kSendMode | kPad), ref.Send(padded, iv_));
        EXPECT_EQ(Run(true, message, DES::kMac), ref.Cbc(full, iv_, DES_ENCRYPT));
        EXPECT_EQ(Run(true, message, DES::kMac | kPad), cbc);
    }
}

INSTANTIATE_TEST_SUITE_P(Algorithms, DesAgainstOpenSsl, ::testing::ValuesIn(kSetups), [](const auto& info) {
    if (info.param.algorithm == DES::kSingleDes) return std::string("SingleDes");
    return std::string(info.param.thirdKeyIsFirst ? "TwoKeyTripleDes" : "ThreeKeyTripleDes");
});

}  // namespace
}  // namespace elatectwn4::cipher
