// ConvertData's form table, malformed input, and the CRC_A of ISO/IEC
// 14443-3 that DESFire frames carry.
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

TEST(ConvertData, ReadsSeparatorsCaseAndOddCountsAndLeavesHighOutputFormsAlone) {
    struct Case {
        Value input;
        std::int32_t conversion;
        Value expected;
    };
    const Case cases[] = {
        {Value("0a 0b,0c\t0d\r\n0e"), 1, Value("0A0B0C0D0E")},
        {Value("ABC"), 0, Value("0A BC")},
        {Value(""), 5, Value(ByteArray{})},
        {Value(MixedArray{true, false, std::int64_t{255}, 2.5, 3.5, 254.4}), 0x201, Value("0100FF0204FE")},
        {Value(std::int32_t{42}), 7, Value(std::int32_t{42})},
        {Value("not even hex"), 0x0607, Value("not even hex")},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DES::ConvertData(c.input, c.conversion), c.expected) << c.conversion;
}

TEST(ConvertData, MalformedInputIsRefusedWithItsMessage) {
    const char* kHex = "Invalid hexadecimal string";
    const char* kType = "Bad parameter type";
    struct Row {
        const char* what;
        Value input;
        std::int32_t conversion;
        const char* message;
    };
    const Row rows[] = {
        {"colon is no separator", Value("0A:0B"), 0, kHex},
        {"letter past F", Value("0G"), 0, kHex},
        {"blank in compact hex", Value("0A 0B"), 256, kHex},
        {"NUL inside hex", Value("0A\0B"s), 0, kHex},
        {"number for hex text", Value(std::int32_t{10}), 0, kType},
        {"empty for hex text", Value(), 0, kType},
        {"array for hex text", Value(ByteArray{1}), 1, kType},
        {"text for an array", Value("0102"), 0x200, kType},
        {"number for an array", Value(1.5), 0x501, kType},
        {"text element", Value(MixedArray{std::int64_t{1}, std::string("2")}), 0x501, kType},
        {"empty element", Value(MixedArray{std::monostate{}}), 0x201, kType},
        {"element above a byte", Value(MixedArray{std::int64_t{256}}), 0x501, kType},
        {"negative element", Value(MixedArray{std::int64_t{-1}}), 0x501, kType},
        {"real element above a byte", Value(MixedArray{255.6}), 0x501, kType},
        {"bits not whole bytes", Value("0101"), 0x301, kType},
        {"bit other than 0 or 1", Value("00000002"), 0x301, kType},
        {"decimal above 255", Value("1,256"), 0x401, kType},
        {"decimal with a letter", Value("1a"), 0x401, kType},
        {"array for a byte string", Value(ByteArray{1}), 0x600, kType},
        {"input form 7", Value("00"), 0x700, kType},
        {"negative conversion", Value("00"), -256, kType},
    };
    for (const auto& row : rows)
        EXPECT_EQ(DesErrorOf([&] { DES::ConvertData(row.input, row.conversion); }), row.message) << row.what;
}

TEST(Crc16, PublishedCrcAValues) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "63 63"},                                  // nothing: the initial value
        {"00 00", "A0 1E"},                             // ISO/IEC 14443-3 example
        {"12,34", "26 CF"},                             // ISO/IEC 14443-3 example
        {"30 00", "02 A8"},                             // MIFARE READ of block 0 as sent on air
        {"6A1E4DB17E00004B3592000000000000", "9B C3"},  // a reader vendor's traced frame
    };
    for (const auto& [data, crc] : rows)
        EXPECT_EQ(DES::CRC16(data), crc) << data;
}

TEST(Crc16, AgreesWithABitwiseCrcAOnRandomData) {
    // The reflected polynomial 0x8408 from 0x6363, bit by bit.
    const auto bitwise = [](const ByteArray& data) {
        unsigned crc = 0x6363;
        for (std::uint8_t b : data) {
            crc ^= b;
            for (int bit = 0; bit < 8; ++bit)
                crc = (crc & 1) ? (crc >> 1) ^ 0x8408 : crc >> 1;
        }
        return ToHex(ByteArray{static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)}, true);
    };
    std::mt19937 random(14443);
    for (int round = 0; round < 300; ++round) {
        const ByteArray data = RandomBytes(random, round % 64);
        EXPECT_EQ(DES::CRC16(ToHex(data, round % 2 == 0)), bitwise(data)) << ToHex(data);
    }
    EXPECT_EQ(DesErrorOf([] { DES::CRC16("12:34"); }), "Invalid hexadecimal string");
    EXPECT_EQ(DesErrorOf([] { DES::CRC16(Value(ByteArray{0x12, 0x34})); }), "Bad parameter type");
}

}  // namespace
}  // namespace elatectwn4::cipher
