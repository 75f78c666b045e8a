// Published DES and Triple-DES examples: FIPS 81 (ECB and CBC), the
// SP 800-17 variable-key, permutation and substitution tests, the classic
// worked example, and the SP 800-67 TDEA example.
#include <gtest/gtest.h>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using testing::FromHex;

struct SingleBlockCase {
    const char* key;
    const char* plain;
    const char* cipher;
};

// clang-format off
const SingleBlockCase kSingleDes[] = {
    {"0123456789ABCDEF", "4E6F772069732074", "3FA40E8A984D4815"},  // FIPS 81, ECB, "Now is t"
    {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},  // worked example of the standard
    {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},  // SP 800-17 variable key
    {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},  // SP 800-17 variable plaintext
    {"1046913489980131", "0000000000000000", "88D55E54F54C97B4"},  // SP 800-17 permutation
    {"7CA110454A1A6E57", "01A1D6D039776742", "690F5B0D9A26939B"},  // SP 800-17 substitution
    {"0131D9619DC1376E", "5CD54CA83DEF57DA", "7A389D10354BD271"},
    {"07A1133E4A0B2686", "0248D43806F67172", "868EBB51CAB4599A"},
    {"3849674C2602319E", "51454B582DDF440A", "7178876E01F19B2A"},
    {"04B915BA43FEB5B6", "42FD443059577FA2", "AF37FB421F8C4095"},
};
// clang-format on

TEST(DesKnownAnswers, EverySingleBlockVectorEnciphersAndDeciphers) {
    for (const auto& c : kSingleDes) {
        SCOPED_TRACE(c.key);
        DES des;
        des.Keys(1, c.key);
        EXPECT_EQ(des.Encrypt(c.plain, DES::kSingleDes | DES::kEcb), Value(c.cipher));
        EXPECT_EQ(des.Decrypt(c.cipher, DES::kSingleDes | DES::kEcb), Value(c.plain));
        // The same through byte arrays.
        EXPECT_EQ(des.Encrypt(Value(FromHex(c.plain)), 0), Value(FromHex(c.cipher)));
    }
}

constexpr const char* kFips81Plain =
    "4E6F7720 69732074 68652074 696D6520 666F7220 616C6C20";  // "Now is the time for all "

TEST(DesKnownAnswers, Fips81CipherBlockChainingExampleBothWays) {
    DES des;
    des.Keys(1, "0123456789abcdef");
    des.InitVector("1234567890abcdef");
    const Value cipher("E5C7CDDE872BF27C43E934008C389C0F683788499A7C05F6");
    EXPECT_EQ(des.Encrypt("4E6F77206973207468652074696D6520666F7220616C6C20", DES::kCbc), cipher);
    // Decrypt 0x1000 is the ordinary CBC deciphering (DESFire receive mode).
    EXPECT_EQ(des.Decrypt(cipher, DES::kCbc), Value("4E6F77206973207468652074696D6520666F7220616C6C20"));
}

TEST(DesKnownAnswers, Sp80067TripleDesExampleWithThreeKeys) {
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    des.Keys(2, "23456789ABCDEF01");
    des.Keys(3, "456789ABCDEF0123");
    const Value plain("54686520717566636B2062726F776E20666F78206A756D70");  // "The qufck brown fox jump"
    const Value cipher("A826FD8CE53B855FCCE21C8112256FE668D5C05DD9B6B900");
    EXPECT_EQ(des.Encrypt(plain, DES::kTripleDes | DES::kEcb), cipher);
    EXPECT_EQ(des.Decrypt(cipher, DES::kTripleDes | DES::kEcb), plain);
}

TEST(DesKnownAnswers, Fips81ExampleWithMethodTwoPaddingAddsOneEncipheredBlock) {
    // The message fills three blocks exactly, so padding adds a whole block
    // 80 00 .. 00; ECB enciphers it on its own, which OpenSSL confirms:
    // des-ecb of 8000000000000000 under 0123456789ABCDEF.
    DES des;
    des.Keys(1, "0123456789ABCDEF");
    const Value cipher = des.Encrypt(kFips81Plain, DES::kPadIso9797Method2);
    EXPECT_EQ(cipher, Value("3F A4 0E 8A 98 4D 48 15 6A 27 17 87 AB 88 83 F9 89 3D 51 EC 4B 56 3B 53 "
                            "CA EE 53 4C 52 3E 1E 79"));
    EXPECT_EQ(des.Decrypt(cipher, DES::kPadIso9797Method2),
              Value("4E 6F 77 20 69 73 20 74 68 65 20 74 69 6D 65 20 66 6F 72 20 61 6C 6C 20"));
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

}  // namespace
}  // namespace elatectwn4::cipher
