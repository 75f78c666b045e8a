// The options word, the key table and the vector: every refusal with its
// exact message, and that a refusal changes nothing.
#include <gtest/gtest.h>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using testing::DesErrorOf;

struct OptionsCase {
    std::int32_t options;
    const char* encryptMessage;
    const char* decryptMessage;
};

// clang-format off
const OptionsCase kOptions[] = {
    {0x00000002, "Invalid cipher algorithm", "Invalid cipher algorithm"},
    {0x000000FF, "Invalid cipher algorithm", "Invalid cipher algorithm"},
    {0x00003202, "Invalid cipher algorithm", "Invalid cipher algorithm"},  // algorithm is checked first
    {0x00000200, "Bad padding mode",         "Bad padding mode"},
    {0x00000F01, "Bad padding mode",         "Bad padding mode"},
    {0x00003300, "Bad padding mode",         "Bad padding mode"},          // then padding
    {0x00003000, "Invalid chaining mode",    "Invalid chaining mode"},
    {0x00008000, "Invalid chaining mode",    "Invalid chaining mode"},
    {static_cast<std::int32_t>(0x80001000), "Invalid chaining mode", "Invalid chaining mode"},
    {0x00002000, "Invalid chaining mode",    "(no error)"},  // send mode is Decrypt's own
    {0x00004001, "Invalid chaining mode",    "(no error)"},  // so is the MAC
    {0x00001101, "(no error)",               "(no error)"},
};
// clang-format on

TEST(DesOptions, EachFieldIsCheckedWithItsOwnMessage) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    for (const auto& c : kOptions) {
        SCOPED_TRACE(c.options);
        std::int32_t options = c.options;
        EXPECT_EQ(DesErrorOf([&] { des.Encrypt("00112233", options); }), c.encryptMessage);
        EXPECT_EQ(DesErrorOf([&] { des.Decrypt("00112233", options); }), c.decryptMessage);
        EXPECT_EQ(options, c.options);
    }
}

TEST(DesKeys, OnlyIndexesOneToThreeAreKeys) {
    DES des;
    for (int index : {0, 4, -1, 1000}) {
        EXPECT_EQ(DesErrorOf([&] { des.Keys(index, "0123456789ABCDEF"); }), "Bad key index") << index;
    }
    for (int index : {1, 2, 3}) {
        EXPECT_EQ(DesErrorOf([&] { des.Keys(index, "0123456789ABCDEF"); }), "(no error)") << index;
    }
}

TEST(DesKeys, ShortKeysAreZeroFilledAndLongKeysCut) {
    struct Row {
        const char* given;
        const char* same;
    };
    const Row rows[] = {
        {"0123", "0123000000000000"},
        {"123", "0123000000000000"},  // an odd digit count reads with a leading 0
        {"01 23 45 67", "0123456700000000"},
        {"0123456789ABCDEF0011", "0123456789ABCDEF"},
        {"", "0000000000000000"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.given);
        DES given;
        DES same;
        given.Keys(1, row.given);
        same.Keys(1, row.same);
        EXPECT_EQ(given.Encrypt("4E6F772069732074", 0), same.Encrypt("4E6F772069732074", 0));
    }
}

// A reference result that depends on all three keys and the vector.
Value Fingerprint(DES& des) {
    return des.Encrypt("4E6F77206973207468652074696D6520", DES::kTripleDes | DES::kCbc);
}

TEST(DesState, NoRefusalChangesKeysOrVector) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    des.Keys(2, "23456789ABCDEF01");
    des.Keys(3, "456789ABCDEF0123");
    des.InitVector("1234567890ABCDEF");
    const Value before = Fingerprint(des);

    struct Refusal {
        const char* message;
        std::function<void()> action;
    };
    const Refusal refusals[] = {
        {"Bad key index", [&] { des.Keys(0, "FFFFFFFFFFFFFFFF"); }},
        {"Bad key index", [&] { des.Keys(4, "FFFFFFFFFFFFFFFF"); }},
        {"Invalid hexadecimal string", [&] { des.Keys(1, "FFFFFFFF:FFFFFFF"); }},
        {"Invalid hexadecimal string", [&] { des.Keys(3, "FFFFFFFFFFFFFFFG"); }},
        {"Bad parameter type", [&] { des.Keys(2, Value(ByteArray(8, 0xFF))); }},
        {"Bad parameter type", [&] { des.Keys(2, Value(std::int32_t{7})); }},
        {"Invalid hexadecimal string", [&] { des.InitVector("FF FF FF FF FF FF FF FX"); }},
        {"Bad parameter type", [&] { des.InitVector(Value()); }},
        {"Invalid cipher algorithm", [&] { des.Encrypt("00", 7); }},
        {"Bad padding mode", [&] { des.Decrypt("00", 0x500); }},
        {"Invalid chaining mode", [&] { des.Encrypt("00", 0x2000); }},
        {"Invalid hexadecimal string", [&] { des.Decrypt("0Z", DES::kCbc); }},
        {"Bad parameter type", [&] { des.Encrypt(Value(true), 0); }},
        {"Bad parameter type",
         [&] {
             des.Decrypt(Value(MixedArray{std::int64_t{1}, std::string("x")}), 0);
         }},
    };
    for (const auto& refusal : refusals) {
        EXPECT_EQ(DesErrorOf(refusal.action), refusal.message);
        EXPECT_EQ(Fingerprint(des), before) << "after " << refusal.message;
    }
}

TEST(DesState, EncryptAndDecryptLeaveTheVectorAsItWas) {
    // The DESFire authentication runs three chained operations on one vector
    // set once; each must start from that vector.
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    des.InitVector("1234567890ABCDEF");
    for (std::int32_t mode : {DES::kCbc, DES::kSendMode, DES::kMac}) {
        const Value first = des.Decrypt("00112233445566778899AABBCCDDEEFF", mode);
        EXPECT_EQ(des.Decrypt("00112233445566778899AABBCCDDEEFF", mode), first) << mode;
    }
    EXPECT_EQ(des.Encrypt("4E6F772069732074", DES::kCbc), Value("E5C7CDDE872BF27C"));
    EXPECT_EQ(des.Encrypt("4E6F772069732074", DES::kCbc), Value("E5C7CDDE872BF27C"));
}

TEST(DesState, ResultKeepsTheShapeOfTheInput) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    EXPECT_EQ(des.Encrypt("4e6f772069732074", 0), Value("3FA40E8A984D4815"));
    EXPECT_EQ(des.Encrypt("4E 6F 77 20 69 73 20 74", 0), Value("3F A4 0E 8A 98 4D 48 15"));
    EXPECT_EQ(des.Encrypt("4E6F7720,69732074", 0), Value("3F A4 0E 8A 98 4D 48 15"));
    EXPECT_EQ(des.Encrypt(Value(ByteArray{0x4E, 0x6F, 0x77, 0x20, 0x69, 0x73, 0x20, 0x74}), 0),
              Value(ByteArray{0x3F, 0xA4, 0x0E, 0x8A, 0x98, 0x4D, 0x48, 0x15}));
    const MixedArray mixed{std::int64_t{0x4E}, 111.0,
                           std::int64_t{0x77}, std::int64_t{0x20},
                           std::int64_t{0x69}, std::int64_t{0x73},
                           std::int64_t{0x20}, std::int64_t{0x74}};
    EXPECT_EQ(des.Encrypt(Value(mixed), 0), Value(ByteArray{0x3F, 0xA4, 0x0E, 0x8A, 0x98, 0x4D, 0x48, 0x15}));
    EXPECT_EQ(des.Encrypt("", 0), Value(""));
    EXPECT_EQ(des.Decrypt(Value(ByteArray{}), DES::kCbc), Value(ByteArray{}));
}

TEST(DesPadding, DecipheringWithoutAMarkerInTheLastBlockKeepsEverything) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    struct Row {
        const char* plain;
        const char* afterRemoval;
    };
    const Row rows[] = {
        {"0102030405060780", "01020304050607"},
        {"0102030405800000", "0102030405"},
        {"8000000000000000", ""},
        {"1122334455667788"
         "8000000000000000",
         "1122334455667788"},
        {"0102030405060708", "0102030405060708"},  // no marker
        {"0102030405060000", "0102030405060000"},  // zeros without a marker
        {"8000000000000000"
         "0000000000000000",
         "80000000000000000000000000000000"},  // marker not in last block
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.plain);
        const Value cipher = des.Encrypt(row.plain, 0);
        EXPECT_EQ(des.Decrypt(cipher, DES::kPadIso9797Method2), Value(row.afterRemoval));
    }
}

}  // namespace
}  // namespace elatectwn4::cipher
