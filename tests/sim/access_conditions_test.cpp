// The card's access conditions, driven through the reader's APDUs: every
// condition of the datasheet's two tables, with both keys.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "apdu_helpers.h"
#include "sim/mifare_classic.h"

namespace {

using namespace elatectwn4::sim;
using namespace simtest;

constexpr std::string_view kTransportKey = "FFFFFFFFFFFF";
constexpr std::string_view kKeyA = "A0A1A2A3A4A5";
constexpr std::string_view kKeyB = "B0B1B2B3B4B5";
constexpr unsigned kBlock = 4;    // first data block of sector 1
constexpr unsigned kTrailer = 7;  // its trailer

std::string AccessHex(SectorConditions conditions) {
    return H(EncodeAccessBytes(conditions));
}

// "AB", "A", "B" or "-" as the datasheet writes a right.
bool Allows(std::string_view right, char key) {
    return right.find(key) != std::string_view::npos;
}

struct Fixture {
    std::shared_ptr<MifareClassicCard> card = std::make_shared<MifareClassicCard>(false, Bytes{0xCF, 0x1E, 0x2D, 0x3C});
    Reader reader{"test"};

    Fixture() { reader.Insert(card); }

    // From transport state, with key A: data pattern in block 4, then the
    // trailer kKeyA | conditions | 69 | kKeyB.
    void Personalise(SectorConditions conditions) {
        ASSERT_EQ(Open(reader, kTrailer, 'A', kTransportKey), "9000");
        ASSERT_EQ(Sw(reader.Transmit(B(Write(kBlock, "11111111111111111111111111111111")))), "9000");
        const std::string trailer = std::string(kKeyA) + AccessHex(conditions) + "69" + std::string(kKeyB);
        ASSERT_EQ(Sw(reader.Transmit(B(Write(kTrailer, trailer)))), "9000");
    }
};

TEST(AccessBits, KnownTrailersDecodeToTheirConditions) {
    struct Row {
        SectorConditions conditions;
        const char* bytes;
    } rows[] = {
        {{0, 0, 0, 1}, "FF0780"},  // transport configuration
        {{4, 4, 4, 3}, "787788"},  // data written with key B, trailer 011
        {{0, 0, 0, 3}, "7F0788"}, {{7, 7, 7, 7}, "00F0FF"},
        {{1, 2, 4, 6}, "53CE1A"},  // C1 = 1100, C2 = 1010, C3 = 0001 (bit b for block b)
    };
    for (const auto& row : rows) {
        EXPECT_EQ(AccessHex(row.conditions), row.bytes);
        const auto bytes = B(row.bytes);
        const auto decoded = DecodeAccessBytes(std::span<const std::uint8_t, 3>(bytes.data(), 3));
        ASSERT_TRUE(decoded) << row.bytes;
        EXPECT_EQ(*decoded, row.conditions) << row.bytes;
    }
}

TEST(AccessBits, EveryConditionSetSurvivesEncodeThenDecodeAndAnyFlippedBitIsCaught) {
    for (unsigned all = 0; all < 4096; ++all) {
        const SectorConditions conditions{
            static_cast<AccessCondition>(all & 7), static_cast<AccessCondition>(all >> 3 & 7),
            static_cast<AccessCondition>(all >> 6 & 7), static_cast<AccessCondition>(all >> 9 & 7)};
        const auto bytes = EncodeAccessBytes(conditions);
        ASSERT_EQ(DecodeAccessBytes(bytes), conditions) << all;
        for (unsigned bit = 0; bit < 24; ++bit) {
            auto flipped = bytes;
            flipped[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
            ASSERT_FALSE(DecodeAccessBytes(flipped)) << "conditions " << all << " bit " << bit;
        }
    }
}

TEST(DataBlockConditions, EveryConditionGrantsExactlyTheDatasheetRightsToEachKey) {
    // Rows C1C2C3 = 000 .. 111; the trailer runs condition 011 so that key B
    // may authenticate.
    const char* const readRight[8] = {"AB", "AB", "AB", "B", "AB", "B", "AB", "-"};
    const char* const writeRight[8] = {"AB", "-", "-", "B", "B", "-", "B", "-"};
    for (AccessCondition c = 0; c < 8; ++c) {
        for (char key : {'A', 'B'}) {
            SCOPED_TRACE("condition " + std::to_string(c) + " key " + key);
            Fixture f;
            f.Personalise({c, 0, 0, 3});
            const std::string_view secret = key == 'A' ? kKeyA : kKeyB;

            ASSERT_EQ(Open(f.reader, kBlock, key, secret), "9000");
            const auto read = f.reader.Transmit(B(Read(kBlock)));
            if (Allows(readRight[c], key)) {
                EXPECT_EQ(H(read), "111111111111111111111111111111119000");
            } else {
                EXPECT_EQ(H(read), "6982");
            }

            ASSERT_EQ(Open(f.reader, kBlock, key, secret), "9000");
            const auto write = f.reader.Transmit(B(Write(kBlock, "22222222222222222222222222222222")));
            const bool mayWrite = Allows(writeRight[c], key);
            EXPECT_EQ(Sw(write), mayWrite ? "9000" : "6982");
            EXPECT_EQ(H(f.card->RawBlock(kBlock)),
                      mayWrite ? "22222222222222222222222222222222" : "11111111111111111111111111111111");
        }
    }
}

TEST(TrailerConditions, EveryConditionGrantsExactlyTheDatasheetRightsToEachKey) {
    // Rows C1C2C3 = 000 .. 111: who may write key A, read and write the access
    // bytes (with byte 9), read and write key B.
    struct Rights {
        const char *writeA, *readAccess, *writeAccess, *readB, *writeB;
    };
    const Rights table[8] = {
        {"A", "A", "-", "A", "A"},  {"A", "A", "A", "A", "A"},  {"-", "A", "-", "A", "-"},  {"B", "AB", "B", "-", "B"},
        {"B", "AB", "-", "-", "B"}, {"-", "AB", "B", "-", "-"}, {"-", "AB", "-", "-", "-"}, {"-", "AB", "-", "-", "-"},
    };
    constexpr std::string_view kNewKeyA = "C0C1C2C3C4C5";
    constexpr std::string_view kNewKeyB = "D0D1D2D3D4D5";
    for (AccessCondition t = 0; t < 8; ++t) {
        for (char key : {'A', 'B'}) {
            SCOPED_TRACE("trailer condition " + std::to_string(t) + " key " + key);
            const Rights& r = table[t];
            Fixture f;
            f.Personalise({0, 0, 0, t});
            const std::string access = AccessHex({0, 0, 0, t});
            const std::string_view secret = key == 'A' ? kKeyA : kKeyB;
            // Where key A may read key B, key B cannot serve: the card refuses every access after it.
            const bool keyBServes = !Allows(r.readB, 'A');
            const bool refusedOutright = key == 'B' && !keyBServes;

            ASSERT_EQ(Open(f.reader, kTrailer, key, secret), "9000");
            const auto read = f.reader.Transmit(B(Read(kTrailer)));
            if (refusedOutright || !Allows(r.readAccess, key)) {
                EXPECT_EQ(H(read), "6982");
            } else {
                const std::string keyB = Allows(r.readB, key) ? std::string(kKeyB) : "000000000000";
                EXPECT_EQ(H(read), "000000000000" + access + "69" + keyB + "9000");
            }

            ASSERT_EQ(Open(f.reader, kTrailer, key, secret), "9000");
            const std::string newAccess = AccessHex({2, 0, 0, t});
            const auto write =
                f.reader.Transmit(B(Write(kTrailer, std::string(kNewKeyA) + newAccess + "5A" + std::string(kNewKeyB))));
            const bool writesA = !refusedOutright && Allows(r.writeA, key);
            const bool writesAccess = !refusedOutright && Allows(r.writeAccess, key);
            const bool writesB = !refusedOutright && Allows(r.writeB, key);
            EXPECT_EQ(Sw(write), writesA || writesAccess || writesB ? "9000" : "6982");
            const std::string expected = std::string(writesA ? kNewKeyA : kKeyA) +
                                         (writesAccess ? newAccess + "5A" : access + "69") +
                                         std::string(writesB ? kNewKeyB : kKeyB);
            EXPECT_EQ(H(f.card->RawBlock(kTrailer)), expected);
        }
    }
}

TEST(TrailerConditions, ReadableKeyBAuthenticatesButTheCardRefusesWhatFollows) {
    Fixture f;  // transport state: condition 001, key B readable
    ASSERT_EQ(Open(f.reader, kBlock, 'B', kTransportKey), "9000");
    EXPECT_EQ(Answer(f.reader, Read(kBlock)), "6982");
    ASSERT_EQ(Open(f.reader, kBlock, 'B', kTransportKey), "9000");
    EXPECT_EQ(Answer(f.reader, Write(kBlock, "33333333333333333333333333333333")), "6982");
    EXPECT_EQ(H(f.card->RawBlock(kBlock)), "00000000000000000000000000000000");
    // Key A of the same sector works, and shows key B in the trailer.
    ASSERT_EQ(Open(f.reader, kTrailer, 'A', kTransportKey), "9000");
    EXPECT_EQ(Answer(f.reader, Read(kTrailer)), "000000000000FF078069FFFFFFFFFFFF9000");
}

TEST(TrailerConditions, InconsistentInvertedCopiesAreAcceptedAndBlockTheSector) {
    const char* const badAccess[] = {
        "FE0780",  // NOT C1 of block 0 disagrees
        "EF0780",  // NOT C2 of block 0
        "FF0680",  // NOT C3 of block 0
        "FF0781",  // C2 of block 0 without its inverse
        "000000",
    };
    for (const char* access : badAccess) {
        SCOPED_TRACE(access);
        Fixture f;
        ASSERT_EQ(Open(f.reader, kTrailer, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(f.reader, Write(kTrailer, std::string("FFFFFFFFFFFF") + access + "69FFFFFFFFFFFF")), "9000");
        for (unsigned block : {4u, 5u, 7u}) {
            EXPECT_EQ(Open(f.reader, block, 'A', kTransportKey), "9000") << block;
            EXPECT_EQ(Answer(f.reader, Read(block)), "6982") << block;
        }
        // The neighbouring sector is untouched.
        ASSERT_EQ(Open(f.reader, 8, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(f.reader, Read(8)), "000000000000000000000000000000009000");
    }
}

TEST(ValueBlocks, FormatHoldsTheValueThriceAndTheAddressFourTimes) {
    EXPECT_EQ(H(EncodeValueBlock(1, 0xFF)), "01000000FEFFFFFF01000000FF00FF00");
    EXPECT_EQ(H(EncodeValueBlock(-2, 0x05)), "FEFFFFFF01000000FEFFFFFF05FA05FA");
    const auto decoded = DecodeValueBlock(EncodeValueBlock(-123456, 0x21));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->value, -123456);
    EXPECT_EQ(decoded->address, 0x21);
    // Any one byte out of step breaks the format.
    for (unsigned i = 0; i < 16; ++i) {
        auto block = EncodeValueBlock(1000, 0x04);
        block[i] ^= 0x10;
        EXPECT_FALSE(DecodeValueBlock(block)) << "byte " << i;
    }
}

}  // namespace
