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

TEST(DesKnownAnswers, MultiBlockExamplesBothWays) {
    struct Case {
        const char* what;
        const char* keys[3];
        const char* vector;
        std::int32_t options;
        const char* plain;
        const char* cipher;
    } const cases[] = {
        {"FIPS 81 CBC",
         {"0123456789abcdef", "", ""},
         "1234567890abcdef",
         DES::kCbc,
         "4E6F77206973207468652074696D6520666F7220616C6C20",
         "E5C7CDDE872BF27C43E934008C389C0F683788499A7C05F6"},
        {"SP 800-67 three keys",
         {"0123456789ABCDEF", "23456789ABCDEF01", "456789ABCDEF0123"},
         "",
         DES::kTripleDes | DES::kEcb,
         "54686520717566636B2062726F776E20666F78206A756D70",
         "A826FD8CE53B855FCCE21C8112256FE668D5C05DD9B6B900"},
        // Three whole blocks: the padding adds a block 80 00 .. 00, which
        // enciphered alone gives 893D51EC4B563B53 CAEE534C523E1E79 (as OpenSSL has it).
        {"FIPS 81 ECB with method 2 padding",
         {"0123456789ABCDEF", "", ""},
         "",
         DES::kPadIso9797Method2,
         "4E6F77206973207468652074696D6520666F7220616C6C20",
         "3FA40E8A984D48156A271787AB8883F9893D51EC4B563B53CAEE534C523E1E79"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        DES des;
        for (int i = 0; i < 3; ++i)
            if (*c.keys[i]) des.Keys(i + 1, c.keys[i]);
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

}  // namespace
}  // namespace elatectwn4::cipher
