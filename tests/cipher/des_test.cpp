// Published DES and Triple-DES examples, the options word, the key table and
// the vector: every refusal with its exact message, and that a refusal
// changes nothing.
#include "cipher/des.h"

#include <gtest/gtest.h>

#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

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

}  // namespace
}  // namespace elatectwn4::cipher
