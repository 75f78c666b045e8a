// The options word, the key table and the vector: every refusal with its
// exact message, and that a refusal changes nothing.
#include <gtest/gtest.h>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using testing::DesErrorOf;

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
    const ByteArray cipher{0x3F, 0xA4, 0x0E, 0x8A, 0x98, 0x4D, 0x48, 0x15};
    EXPECT_EQ(des.Encrypt("4e6f772069732074", 0), Value("3FA40E8A984D4815"));
    EXPECT_EQ(des.Encrypt("4E6F7720,69732074", 0), Value("3F A4 0E 8A 98 4D 48 15"));
    EXPECT_EQ(des.Encrypt(Value(ByteArray{0x4E, 0x6F, 0x77, 0x20, 0x69, 0x73, 0x20, 0x74}), 0), Value(cipher));
    const MixedArray mixed{std::int64_t{0x4E}, 111.0,
                           std::int64_t{0x77}, std::int64_t{0x20},
                           std::int64_t{0x69}, std::int64_t{0x73},
                           std::int64_t{0x20}, std::int64_t{0x74}};
    EXPECT_EQ(des.Encrypt(Value(mixed), 0), Value(cipher));
    EXPECT_EQ(des.Encrypt("", 0), Value(""));
    EXPECT_EQ(des.Decrypt(Value(ByteArray{}), DES::kCbc), Value(ByteArray{}));
}

}  // namespace
}  // namespace elatectwn4::cipher
