// CRC16 is the CRC_A of ISO/IEC 14443-3 that DESFire frames carry.
#include <gtest/gtest.h>

#include <random>

#include "cipher/des.h"
#include "cipher_test_util.h"

namespace elatectwn4::cipher {
namespace {

using testing::DesErrorOf;
using testing::FromHex;
using testing::RandomBytes;
using testing::ToHex;

TEST(Crc16, PublishedCrcAValues) {
    struct Row {
        const char* data;
        const char* crc;
    };
    const Row rows[] = {
        {"", "63 63"},                                  // nothing: the initial value
        {"00 00", "A0 1E"},                             // ISO/IEC 14443-3 example
        {"12 34", "26 CF"},                             // ISO/IEC 14443-3 example
        {"30 00", "02 A8"},                             // MIFARE READ of block 0 as sent on air
        {"6A1E4DB17E00004B3592000000000000", "9B C3"},  // a reader vendor's traced frame
        {"12,34", "26 CF"},
        {"1\t2 3\r\n4", "26 CF"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(DES::CRC16(row.data), row.crc) << row.data;
}

// CRC-16 with the reflected polynomial 0x8408 and initial value 0x6363,
// computed bit by bit: an independent route to the same CRC_A.
std::string BitwiseCrcA(const ByteArray& data) {
    unsigned crc = 0x6363;
    for (std::uint8_t b : data) {
        crc ^= b;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? (crc >> 1) ^ 0x8408 : crc >> 1;
    }
    return ToHex(ByteArray{static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)}, true);
}

TEST(Crc16, AgreesWithABitwiseCrcAOnRandomData) {
    std::mt19937 random(14443);
    for (int round = 0; round < 500; ++round) {
        const ByteArray data = RandomBytes(random, round % 64);
        EXPECT_EQ(DES::CRC16(ToHex(data, round % 2 == 0)), BitwiseCrcA(data)) << ToHex(data);
    }
}

TEST(Crc16, DataFollowedByItsOwnCrcLeavesZero) {
    // CRC_A has no final XOR, so the residue of a correct frame is 0000:
    // what a card computes to accept a frame with its CRC.
    std::mt19937 random(3);
    for (int round = 0; round < 100; ++round) {
        const ByteArray data = RandomBytes(random, 1 + round % 30);
        const std::string withCrc = ToHex(data, true) + " " + DES::CRC16(ToHex(data));
        EXPECT_EQ(DES::CRC16(withCrc), "00 00") << withCrc;
    }
}

TEST(Crc16, RefusesWhatIsNotHexText) {
    EXPECT_EQ(DesErrorOf([] { DES::CRC16("12:34"); }), "Invalid hexadecimal string");
    EXPECT_EQ(DesErrorOf([] { DES::CRC16(Value(ByteArray{0x12, 0x34})); }), "Bad parameter type");
    EXPECT_EQ(DesErrorOf([] { DES::CRC16(Value(std::int32_t{0x1234})); }), "Bad parameter type");
}

}  // namespace
}  // namespace elatectwn4::cipher
