// ConvertData's form table, what it reads and refuses, and the CRC_A of
// ISO/IEC 14443-3 that DESFire frames carry.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using namespace std::string_literals;
using testing::DesErrorOf;

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
