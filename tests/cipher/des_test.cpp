// Published DES and Triple-DES examples, and the engine against OpenSSL's
// libcrypto over random keys and messages (its block function and CBC
// routines, with the chaining of the DESFire send mode written out here by
// hand); the options word, the key table and the vector: every refusal with
// its exact message, and that a refusal changes nothing; ConvertData's forms;
// and the CRC_A of ISO/IEC 14443-3 that DESFire frames carry. Hex goes through
// the component's codec, which the formats fuzz target holds to its round trips.
#include "cipher/des.h"

#include <gtest/gtest.h>
#include <openssl/des.h>

#include <array>
#include <functional>
#include <ostream>
#include <random>
#include <string>

#include "cipher/bytes.h"

namespace elatectwn4::cipher {

/// Shows a Value in assertion failures as its kind and contents.
void PrintTo(const Value& value, std::ostream* os) {
    std::visit(
        [os](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>) {
                *os << "Text \"" << v << '"';
            } else if constexpr (std::is_same_v<T, ByteArray>) {
                *os << "ByteArray(" << ToHex(v, ' ') << ')';
            } else if constexpr (std::is_same_v<T, MixedArray>) {
                *os << "MixedArray of " << v.size();
            } else if constexpr (!std::is_same_v<T, std::monostate>) {
                *os << v;
            }
        },
        value.Get());
}

namespace {

using namespace std::string_literals;

ByteArray RandomBytes(std::mt19937& random, std::size_t count) {
    std::uniform_int_distribution<int> byte(0, 255);
    ByteArray bytes(count);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(byte(random));
    return bytes;
}

/// The message of the DesError that `action` throws ("(no error)" when none);
/// its number must be 0x80040201.
std::string DesErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const DesError& error) {
        EXPECT_EQ(error.number(), 0x80040201LL) << error.what();
        return error.what();
    }
    return "(no error)";
}

TEST(DesKnownAnswers, PublishedExamplesEncipherAndDecipher) {
    struct Case {
        const char* keys[3];
        const char* vector;
        std::int32_t options;
        const char* plain;
        const char* cipher;
    };
    constexpr std::int32_t kEcb = DES::kSingleDes | DES::kEcb;
    const char* const kNowIsThe = "4E6F77206973207468652074696D6520666F7220616C6C20";
    // clang-format off
    const Case cases[] = {
        {{"0123456789ABCDEF"}, "", kEcb, "4E6F772069732074", "3FA40E8A984D4815"},  // FIPS 81 ECB
        {{"133457799BBCDFF1"}, "", kEcb, "0123456789ABCDEF", "85E813540F0AB405"},  // worked example of the standard
        {{"7CA110454A1A6E57"}, "", kEcb, "01A1D6D039776742", "690F5B0D9A26939B"},  // SP 800-17 substitution
        {{"0123456789abcdef"}, "1234567890abcdef", DES::kCbc, kNowIsThe,  // FIPS 81 CBC
         "E5C7CDDE872BF27C43E934008C389C0F683788499A7C05F6"},
        {{"0123456789ABCDEF", "23456789ABCDEF01", "456789ABCDEF0123"}, "", DES::kTripleDes | DES::kEcb,  // SP 800-67
         "54686520717566636B2062726F776E20666F78206A756D70", "A826FD8CE53B855FCCE21C8112256FE668D5C05DD9B6B900"},
        // Whole blocks gain a block 80 00 .. 00 of padding.
        {{"0123456789ABCDEF"}, "", DES::kPadIso9797Method2, kNowIsThe,
         "3FA40E8A984D48156A271787AB8883F9893D51EC4B563B53CAEE534C523E1E79"},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cipher);
        DES des;
        for (int i = 0; i < 3; ++i)
            if (c.keys[i]) des.Keys(i + 1, c.keys[i]);
        if (*c.vector) des.InitVector(c.vector);
        EXPECT_EQ(des.Encrypt(c.plain, c.options), Value(c.cipher));
        EXPECT_EQ(des.Decrypt(c.cipher, c.options), Value(c.plain));
    }
}

TEST(DesPadding, DecipheringTakesOffAMarkerInTheLastBlockOnly) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    const std::pair<const char*, const char*> rows[] = {
        {"0102030405800000", "0102030405"},
        {"8000000000000000", ""},
        {"0102030405060708", "0102030405060708"},                                  // no marker
        {"0102030405060000", "0102030405060000"},                                  // zeros without a marker
        {"80000000000000000000000000000000", "80000000000000000000000000000000"},  // marker not in the last block
    };
    for (const auto& [plain, afterRemoval] : rows)
        EXPECT_EQ(des.Decrypt(des.Encrypt(plain, 0), DES::kPadIso9797Method2), Value(afterRemoval)) << plain;
}

TEST(DesOptions, EachFieldIsCheckedInTurnWithItsOwnMessage) {
    struct Case {
        std::int32_t options;
        const char* encryptMessage;
        const char* decryptMessage;
    };
    const Case cases[] = {
        {0x00003202, "Invalid cipher algorithm", "Invalid cipher algorithm"},  // algorithm first
        {0x00003300, "Bad padding mode", "Bad padding mode"},                  // then padding
        {0x00003000, "Invalid chaining mode", "Invalid chaining mode"},
        {static_cast<std::int32_t>(0x80001000), "Invalid chaining mode", "Invalid chaining mode"},
        {0x00002000, "Invalid chaining mode", "(no error)"},  // send mode is Decrypt's own
        {0x00004001, "Invalid chaining mode", "(no error)"},  // so is the MAC
        {0x00001101, "(no error)", "(no error)"},
    };
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    for (const auto& c : cases) {
        std::int32_t options = c.options;
        EXPECT_EQ(DesErrorOf([&] { des.Encrypt("00112233", options); }), c.encryptMessage) << c.options;
        EXPECT_EQ(DesErrorOf([&] { des.Decrypt("00112233", options); }), c.decryptMessage) << c.options;
        EXPECT_EQ(options, c.options);
    }
}

TEST(DesKeys, ShortKeysAreZeroFilledAndLongKeysCut) {
    const std::pair<const char*, const char*> rows[] = {
        {"0123", "0123000000000000"},
        {"123", "0123000000000000"},  // an odd digit count reads with a leading 0
        {"0123456789ABCDEF0011", "0123456789ABCDEF"},
        {"", "0000000000000000"},
    };
    for (const auto& [given, same] : rows) {
        DES a;
        DES b;
        a.Keys(1, given);
        b.Keys(1, same);
        EXPECT_EQ(a.Encrypt("4E6F772069732074", 0), b.Encrypt("4E6F772069732074", 0)) << given;
    }
}

TEST(DesState, NoRefusalChangesKeysOrVectorAndNoOperationTheVector) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    des.Keys(2, "23456789ABCDEF01");
    des.Keys(3, "456789ABCDEF0123");
    des.InitVector("1234567890ABCDEF");
    // Depends on all three keys and the vector.
    const auto fingerprint = [&] {
        return des.Encrypt("4E6F77206973207468652074696D6520", DES::kTripleDes | DES::kCbc);
    };
    const Value before = fingerprint();
    const std::pair<const char*, std::function<void()>> refusals[] = {
        {"Bad key index", [&] { des.Keys(0, "FFFFFFFFFFFFFFFF"); }},
        {"Bad key index", [&] { des.Keys(4, "FFFFFFFFFFFFFFFF"); }},
        {"Invalid hexadecimal string", [&] { des.Keys(3, "FFFFFFFFFFFFFFFG"); }},
        {"Bad parameter type", [&] { des.Keys(2, Value(ByteArray(8, 0xFF))); }},
        {"Invalid hexadecimal string", [&] { des.InitVector("FF FF FF FF FF FF FF FX"); }},
        {"Bad parameter type", [&] { des.InitVector(Value()); }},
        {"Invalid hexadecimal string", [&] { des.Decrypt("0Z", DES::kCbc); }},
        {"Bad parameter type", [&] { des.Encrypt(Value(true), 0); }},
        {"(no error)", [&] { des.Decrypt("00112233445566778899AABBCCDDEEFF", DES::kSendMode); }},
        {"(no error)", [&] { des.Decrypt("00112233445566778899AABBCCDDEEFF", DES::kMac); }},
    };
    for (const auto& [message, action] : refusals) {
        EXPECT_EQ(DesErrorOf(action), message);
        EXPECT_EQ(fingerprint(), before) << "after " << message;
    }
}

TEST(DesState, ResultKeepsTheShapeOfTheInput) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    const Value cipher(ByteArray{0x3F, 0xA4, 0x0E, 0x8A, 0x98, 0x4D, 0x48, 0x15});
    const std::pair<Value, Value> rows[] = {
        {Value("4e6f772069732074"), Value("3FA40E8A984D4815")},
        {Value("4E6F7720,69732074"), Value("3F A4 0E 8A 98 4D 48 15")},
        {Value(ByteArray{0x4E, 0x6F, 0x77, 0x20, 0x69, 0x73, 0x20, 0x74}), cipher},
        {Value(""), Value("")},
        {Value(ByteArray{}), Value(ByteArray{})},
    };
    for (const auto& [plain, expected] : rows)
        EXPECT_EQ(des.Encrypt(plain, 0), expected);
}

TEST(ConvertData, EveryFormReadsBackToEveryOtherForm) {
    const ByteArray sample{0x00, 0x0A, 0x7F, 0x80, 0xFF};
    const Value forms[7] = {Value("00 0A 7F 80 FF"),
                            Value("000A7F80FF"),
                            Value(sample),
                            Value("0000000000001010011111111000000011111111"),
                            Value("0,10,127,128,255"),
                            Value(sample),
                            Value("\x00\x0A\x7F\x80\xFF"s)};
    for (int in = 0; in <= 6; ++in)
        for (int out = 0; out <= 6; ++out)
            EXPECT_EQ(DES::ConvertData(forms[in], in * 256 + out), forms[out]) << "from " << in << " to " << out;
}

TEST(ConvertData, ReadsWhatEachFormAllowsAndRefusesTheRest) {
    const char* const kHex = "Invalid hexadecimal string";
    const char* const kType = "Bad parameter type";
    struct Row {
        Value input;
        std::int32_t conversion;
        Value expected;
        const char* message = nullptr;  ///< the refusal instead
    };
    const Row rows[] = {
        {Value("0a 0b,0c\t0d\r\n0e"), 1, Value("0A0B0C0D0E")},
        {Value("ABC"), 0, Value("0A BC")},
        {Value(""), 5, Value(ByteArray{})},
        {Value(MixedArray{true, false, std::int64_t{255}, 2.5, 3.5, 254.4}), 0x201, Value("0100FF0204FE")},
        {Value(std::int32_t{42}), 7, Value(std::int32_t{42})},  // output forms past 6 leave the input alone
        {Value("not even hex"), 0x0607, Value("not even hex")},
        {Value("0A:0B"), 0, {}, kHex},
        {Value("0A 0B"), 256, {}, kHex},  // a blank in compact hex
        {Value(std::int32_t{10}), 0, {}, kType},
        {Value(), 0, {}, kType},
        {Value(ByteArray{1}), 1, {}, kType},
        {Value("0102"), 0x200, {}, kType},
        {Value(1.5), 0x501, {}, kType},
        {Value(MixedArray{std::int64_t{1}, std::string("2")}), 0x501, {}, kType},
        {Value(MixedArray{std::monostate{}}), 0x201, {}, kType},
        {Value(MixedArray{std::int64_t{256}}), 0x501, {}, kType},
        {Value("0101"), 0x301, {}, kType},      // bits that are no whole bytes
        {Value("00000002"), 0x301, {}, kType},  // a bit other than 0 or 1
        {Value("1,256"), 0x401, {}, kType},
        {Value("00"), 0x700, {}, kType},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.input) + " with " + std::to_string(row.conversion));
        if (row.message) {
            EXPECT_EQ(DesErrorOf([&] { DES::ConvertData(row.input, row.conversion); }), row.message);
        } else {
            EXPECT_EQ(DES::ConvertData(row.input, row.conversion), row.expected);
        }
    }
}

TEST(Crc16, PublishedValuesAndABitwiseCrcAOnRandomData) {
    const std::pair<const char*, const char*> published[] = {
        {"", "63 63"},       // nothing: the initial value
        {"00 00", "A0 1E"},  // ISO/IEC 14443-3 example
        {"12,34", "26 CF"},  // ISO/IEC 14443-3 example
    };
    for (const auto& [data, crc] : published)
        EXPECT_EQ(DES::CRC16(data), crc) << data;

    std::mt19937 random(14443);
    for (int round = 0; round < 300; ++round) {
        const ByteArray data = RandomBytes(random, round % 64);
        unsigned crc = 0x6363;  // the reflected polynomial 0x8408, bit by bit
        for (std::uint8_t b : data) {
            crc ^= b;
            for (int bit = 0; bit < 8; ++bit)
                crc = (crc & 1) ? (crc >> 1) ^ 0x8408 : crc >> 1;
        }
        const ByteArray expected{static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)};
        EXPECT_EQ(DES::CRC16(ToHex(data, round % 2 == 0 ? ' ' : '\0')), ToHex(expected, ' ')) << ToHex(data);
    }
    EXPECT_EQ(DesErrorOf([] { DES::CRC16("12:34"); }), "Invalid hexadecimal string");
    EXPECT_EQ(DesErrorOf([] { DES::CRC16(Value(ByteArray{0x12, 0x34})); }), "Bad parameter type");
}

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
        const ByteArray cbc = ref.Cbc(padded, iv, DES_ENCRYPT);
        EXPECT_EQ(run(false, message, DES::kEcb), ref.Ecb(full, DES_ENCRYPT));
        EXPECT_EQ(run(true, message, DES::kEcb), ref.Ecb(full, DES_DECRYPT));
        EXPECT_EQ(run(false, message, DES::kCbc), ref.Cbc(full, iv, DES_ENCRYPT));
        EXPECT_EQ(run(true, message, DES::kCbc), ref.Cbc(full, iv, DES_DECRYPT));
        EXPECT_EQ(run(false, message, DES::kCbc | kPad), cbc);
        EXPECT_EQ(run(true, cbc, DES::kCbc | kPad), message);
        EXPECT_EQ(run(true, message, DES::kSendMode | kPad), ref.Send(padded, iv));
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
