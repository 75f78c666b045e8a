// ConvertData: the form table, the codes the DESFire operations use, and
// malformed input.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using namespace std::string_literals;
using testing::DesErrorOf;
using testing::RandomBytes;
using testing::ToHex;

// 00 0A 7F 80 FF in every output form.
const ByteArray kSample{0x00, 0x0A, 0x7F, 0x80, 0xFF};
const Value kSampleForms[7] = {
    Value("00 0A 7F 80 FF"),
    Value("000A7F80FF"),
    Value(kSample),
    Value("0000000000001010011111111000000011111111"),
    Value("0,10,127,128,255"),
    Value(kSample),
    Value("\x00\x0A\x7F\x80\xFF"s),
};

TEST(ConvertData, EveryFormReadsBackToEveryOtherForm) {
    for (int in = 0; in <= 6; ++in) {
        for (int out = 0; out <= 6; ++out) {
            SCOPED_TRACE(::testing::Message() << "input form " << in << ", output form " << out);
            EXPECT_EQ(DES::ConvertData(kSampleForms[in], in * 256 + out), kSampleForms[out]);
        }
    }
}

TEST(ConvertData, RandomBytesSurviveEveryFormAndBack) {
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        const Value bytes(RandomBytes(random, round % 40));
        for (int form = 0; form <= 6; ++form) {
            const Value written = DES::ConvertData(bytes, 5 * 256 + form);
            EXPECT_EQ(DES::ConvertData(written, form * 256 + 5), bytes) << "form " << form;
        }
    }
}

struct CodeCase {
    Value input;
    std::int32_t conversion;
    Value expected;
};

TEST(ConvertData, CodesOfTheDesfireOperations) {
    // clang-format off
    const CodeCase cases[] = {
        {Value("0a 0b,0c\t0d\r\n0e"), 1,    Value("0A0B0C0D0E")},         // hex text to compact hex
        {Value("0123456789abcdef"),   256,  Value("01 23 45 67 89 AB CD EF")},  // key to the engine's text form
        {Value("01 FF"),              2,    Value(ByteArray{0x01, 0xFF})},
        {Value("01 FF"),              5,    Value(ByteArray{0x01, 0xFF})},
        {Value("41 42 00"),           6,    Value("AB\0"s)},                 // hex to byte string
        {Value("\x01\xFF"s),          1536, Value("01 FF")},                 // card answer to hex
        {Value("\x01\xFF"s),          1537, Value("01FF")},
        {Value("\x01\xFF"s),          1541, Value(ByteArray{0x01, 0xFF})},
        {Value(ByteArray{0xAB, 0x01}), 513, Value("AB01")},
        {Value(""),                   1,    Value("")},
        {Value(""),                   5,    Value(ByteArray{})},
        {Value("ABC"),                0,    Value("0A BC")},                 // odd digits: a 0 in front
        {Value(std::int32_t{42}),     7,    Value(std::int32_t{42})},        // output form above 6: unchanged
        {Value("not even hex"),       0x0607, Value("not even hex")},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.conversion);
        EXPECT_EQ(DES::ConvertData(c.input, c.conversion), c.expected);
    }
}

TEST(ConvertData, ChangeKeyXorGoesThroughTheArrayFormAndBack) {
    const ByteArray oldKey = DES::ConvertData("00112233445566778899AABBCCDDEEFF", 258).Bytes();
    ByteArray newKey = DES::ConvertData("0F0F0F0F0F0F0F0FF0F0F0F0F0F0F0F0", 258).Bytes();
    ASSERT_EQ(newKey.size(), 16u);
    for (std::size_t i = 0; i < newKey.size(); ++i)
        newKey[i] ^= oldKey[i];
    EXPECT_EQ(DES::ConvertData(Value(newKey), 513), Value("0F1E2D3C4B5A697878695A4B3C2D1E0F"));
}

TEST(ConvertData, MixedArrayElementsBecomeBytes) {
    const MixedArray elements{true, false, std::int64_t{255}, std::int64_t{0}, 2.5, 3.5, 254.4};
    EXPECT_EQ(DES::ConvertData(Value(elements), 2 * 256 + 1), Value("0100FF000204FE"));
    EXPECT_EQ(DES::ConvertData(Value(elements), 5 * 256 + 1), Value("0100FF000204FE"));
}

struct Malformed {
    const char* what;
    Value input;
    std::int32_t conversion;
    const char* message;
};

TEST(ConvertData, MalformedInputIsRefusedWithItsMessage) {
    const char* kHex = "Invalid hexadecimal string";
    const char* kType = "Bad parameter type";
    // clang-format off
    const Malformed rows[] = {
        {"colon is no separator",     Value("0A:0B"),  0,    kHex},
        {"letter past F",             Value("0G"),     0,    kHex},
        {"blank in compact hex",      Value("0A 0B"),  256,  kHex},
        {"comma in compact hex",      Value("0A,0B"),  257,  kHex},
        {"sign",                      Value("-1"),     0,    kHex},
        {"NUL inside hex",            Value("0A\0B"s), 0,    kHex},
        {"high byte inside hex",      Value("0A\xFF"s), 0,   kHex},
        {"number for hex text",       Value(std::int32_t{10}), 0, kType},
        {"Boolean for hex text",      Value(true),     1,    kType},
        {"empty for hex text",        Value(),         0,    kType},
        {"array for hex text",        Value(ByteArray{1}), 1, kType},
        {"text for an array",         Value("0102"),   0x200, kType},
        {"text for a byte array",     Value("0102"),   0x500, kType},
        {"number for an array",       Value(1.5),      0x501, kType},
        {"text element",              Value(MixedArray{std::int64_t{1}, std::string("2")}), 0x501, kType},
        {"empty element",             Value(MixedArray{std::monostate{}}), 0x201, kType},
        {"element above a byte",      Value(MixedArray{std::int64_t{256}}), 0x501, kType},
        {"negative element",          Value(MixedArray{std::int64_t{-1}}), 0x501, kType},
        {"real element above a byte", Value(MixedArray{255.6}), 0x501, kType},
        {"bits not whole bytes",      Value("0101"),   0x301, kType},
        {"bit other than 0 or 1",     Value("00000002"), 0x301, kType},
        {"decimal above 255",         Value("1,256"),  0x401, kType},
        {"decimal with a letter",     Value("1a"),     0x401, kType},
        {"array for a byte string",   Value(ByteArray{1}), 0x600, kType},
        {"input form 7",              Value("00"),     0x700, kType},
        {"negative conversion",       Value("00"),     -256,  kType},
    };
    // clang-format on
    for (const auto& row : rows) {
        EXPECT_EQ(DesErrorOf([&] { DES::ConvertData(row.input, row.conversion); }), row.message) << row.what;
    }
}

TEST(ConvertData, MegabytesConvertWholeAndOneBadDigitAtTheEndIsFound) {
    std::mt19937 random(99);
    const ByteArray bytes = RandomBytes(random, 1 << 20);
    const std::string byteString(bytes.begin(), bytes.end());
    const Value separated = DES::ConvertData(byteString, 1536);
    ASSERT_EQ(separated.Text().size(), bytes.size() * 3 - 1);
    EXPECT_EQ(separated.Text().substr(0, 11), ToHex(ByteArray(bytes.begin(), bytes.begin() + 4), true));
    const Value compact = DES::ConvertData(separated, 1);
    EXPECT_EQ(compact.Text(), ToHex(bytes));
    EXPECT_EQ(DES::ConvertData(compact, 0x106), Value(byteString));
    const std::string spoiled = compact.Text() + "g";
    EXPECT_EQ(DesErrorOf([&] { DES::ConvertData(spoiled, 0x105); }), "Invalid hexadecimal string");
}

}  // namespace
}  // namespace elatectwn4::cipher
