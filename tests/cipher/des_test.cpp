// Published DES and Triple-DES examples; the options word, the key table and
// the vector: every refusal with its exact message, and that a refusal
// changes nothing; ConvertData's forms; and the CRC_A of ISO/IEC 14443-3
// that DESFire frames carry.
#include "cipher/des.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using namespace std::string_literals;
using testing::DesErrorOf;

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
        {{"8001010101010101"}, "", kEcb, "0000000000000000", "95A8D72813DAA94D"},  // SP 800-17 variable key
        {{"0101010101010101"}, "", kEcb, "8000000000000000", "95F8A5E5DD31D900"},  // SP 800-17 variable plaintext
        {{"1046913489980131"}, "", kEcb, "0000000000000000", "88D55E54F54C97B4"},  // SP 800-17 permutation
        {{"7CA110454A1A6E57"}, "", kEcb, "01A1D6D039776742", "690F5B0D9A26939B"},  // SP 800-17 substitution
        {{"0131D9619DC1376E"}, "", kEcb, "5CD54CA83DEF57DA", "7A389D10354BD271"},
        {{"07A1133E4A0B2686"}, "", kEcb, "0248D43806F67172", "868EBB51CAB4599A"},
        {{"3849674C2602319E"}, "", kEcb, "51454B582DDF440A", "7178876E01F19B2A"},
        {{"04B915BA43FEB5B6"}, "", kEcb, "42FD443059577FA2", "AF37FB421F8C4095"},
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
        {0x00000002, "Invalid cipher algorithm", "Invalid cipher algorithm"},
        {0x00003202, "Invalid cipher algorithm", "Invalid cipher algorithm"},  // algorithm first
        {0x00000200, "Bad padding mode", "Bad padding mode"},
        {0x00003300, "Bad padding mode", "Bad padding mode"},  // then padding
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
    const MixedArray mixed{std::int64_t{0x4E}, 111.0,
                           std::int64_t{0x77}, std::int64_t{0x20},
                           std::int64_t{0x69}, std::int64_t{0x73},
                           std::int64_t{0x20}, std::int64_t{0x74}};
    const std::pair<Value, Value> rows[] = {
        {Value("4e6f772069732074"), Value("3FA40E8A984D4815")},
        {Value("4E6F7720,69732074"), Value("3F A4 0E 8A 98 4D 48 15")},
        {Value(ByteArray{0x4E, 0x6F, 0x77, 0x20, 0x69, 0x73, 0x20, 0x74}), cipher},
        {Value(mixed), cipher},
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
        {Value("0G"), 0, {}, kHex},
        {Value("0A 0B"), 256, {}, kHex},  // a blank in compact hex
        {Value("0A\0B"s), 0, {}, kHex},
        {Value(std::int32_t{10}), 0, {}, kType},
        {Value(), 0, {}, kType},
        {Value(ByteArray{1}), 1, {}, kType},
        {Value("0102"), 0x200, {}, kType},
        {Value(1.5), 0x501, {}, kType},
        {Value(MixedArray{std::int64_t{1}, std::string("2")}), 0x501, {}, kType},
        {Value(MixedArray{std::monostate{}}), 0x201, {}, kType},
        {Value(MixedArray{std::int64_t{256}}), 0x501, {}, kType},
        {Value(MixedArray{std::int64_t{-1}}), 0x501, {}, kType},
        {Value(MixedArray{255.6}), 0x501, {}, kType},
        {Value("0101"), 0x301, {}, kType},      // bits that are no whole bytes
        {Value("00000002"), 0x301, {}, kType},  // a bit other than 0 or 1
        {Value("1,256"), 0x401, {}, kType},
        {Value("1a"), 0x401, {}, kType},
        {Value(ByteArray{1}), 0x600, {}, kType},
        {Value("00"), 0x700, {}, kType},
        {Value("00"), -256, {}, kType},
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
        {"", "63 63"},                                  // nothing: the initial value
        {"00 00", "A0 1E"},                             // ISO/IEC 14443-3 example
        {"12,34", "26 CF"},                             // ISO/IEC 14443-3 example
        {"30 00", "02 A8"},                             // MIFARE READ of block 0 as sent on air
        {"6A1E4DB17E00004B3592000000000000", "9B C3"},  // a reader vendor's traced frame
    };
    for (const auto& [data, crc] : published)
        EXPECT_EQ(DES::CRC16(data), crc) << data;

    std::mt19937 random(14443);
    for (int round = 0; round < 300; ++round) {
        const ByteArray data = testing::RandomBytes(random, round % 64);
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

}  // namespace
}  // namespace elatectwn4::cipher
