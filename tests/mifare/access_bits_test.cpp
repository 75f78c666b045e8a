// Access bits against the card's own layout: C1/C2/C3 of block b at bit b
// (and 4 + b) of trailer bytes 6..8, each with its inverted copy.
#include "mifare/access_bits.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace elatectwn4::mifare {
namespace {

// Reads one block's condition the way the card does, and refuses a block
// whose inverted copy does not match (the card would lock such a sector).
std::optional<std::string> CardConditionOf(const AccessBytes& a, unsigned block) {
    auto bit = [](std::uint8_t byte, unsigned n) { return (byte >> n) & 1u; };
    const unsigned c1 = bit(a[1], 4 + block), c2 = bit(a[2], block), c3 = bit(a[2], 4 + block);
    const unsigned nc1 = bit(a[0], block), nc2 = bit(a[0], 4 + block), nc3 = bit(a[1], block);
    if (c1 == nc1 || c2 == nc2 || c3 == nc3) return std::nullopt;
    return std::string{char('0' + c1), char('0' + c2), char('0' + c3)};
}

const std::array<std::string, 8> kAllConditions{"000", "001", "010", "011", "100", "101", "110", "111"};

AccessBytes Sector(const std::string& data, const std::string& trailer, AccessBytes start = {}) {
    for (unsigned b = 0; b < 3; ++b)
        SetAccessBits(data, MaskOfBlock(b), start);
    SetAccessBits(trailer, MaskOfBlock(3), start);
    return start;
}

TEST(AccessBits, GiveTheWellKnownBytesOfTheUsualConfigurations) {
    EXPECT_EQ(Sector("000", "001", {0x12, 0x34, 0x56}), (AccessBytes{0xFF, 0x07, 0x80}));  // transport
    EXPECT_EQ(Sector("100", "011"), (AccessBytes{0x78, 0x77, 0x88}));                      // key B writes
}

TEST(AccessBytesConsistent, AgreesWithTheCardsReadingOfEveryBlockForAllThreeByteValues) {
    for (std::uint32_t v = 0; v < (1u << 24); ++v) {
        const AccessBytes a{std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)};
        bool cardReadsAll = true;
        for (unsigned b = 0; b < 4 && cardReadsAll; ++b)
            cardReadsAll = CardConditionOf(a, b).has_value();
        if (AccessBytesConsistent(a) != cardReadsAll) {
            ADD_FAILURE() << "access bytes " << std::hex << v;
            break;
        }
    }
}

TEST(IsSectorTrailer, FollowsTheSectorsOfFourAndOfSixteenBlocks) {
    for (const std::int32_t block : {3, 7, 127, 143, 255})
        EXPECT_TRUE(IsSectorTrailer(block)) << block;
    for (const std::int32_t block : {-1, 0, 2, 128, 131, 254})
        EXPECT_FALSE(IsSectorTrailer(block)) << block;
}

// The encoder's choices, by security value; "" is refused. Under key A alone
// only the key-A term (value & 3) counts. With each data condition, the
// number of the override entry that replaces it.
const std::array<std::string, 4> kDataKeyA{"111", "001", "000", "000"};
const std::array<std::string, 16> kDataKeyAB{"111", "",    "",    "",    "101", "001", "",    "",
                                             "011", "110", "000", "000", "011", "110", "000", "000"};
const std::array<std::size_t, 4> kEntryKeyA{1, 2, 3, 3};
const std::array<std::size_t, 16> kEntryKeyAB{4, 0, 0, 0, 5, 6, 0, 0, 7, 8, 9, 9, 7, 8, 9, 9};
const std::array<std::string, 4> kTrailerKeyA{"010", "000", "001", "001"};
const std::array<std::string, 16> kTrailerKeyAB{"111", "", "", "", "100", "", "", "",
                                                "101", "", "", "", "011", "", "", ""};

// Every value under every scheme (0 and others than 1 and 2 use key B too),
// on every block: its condition on its block only, or a refusal that
// touches nothing; a negative value keeps the block.
TEST(EncodeCondition, EveryValueUnderEverySchemeGivesItsConditionOnItsBlockOnly) {
    for (const std::uint8_t scheme : {1, 0, 2, 3, 255}) {
        for (std::int32_t value = -3; value <= 17; ++value) {
            for (unsigned block = 0; block < 4; ++block) {
                AccessBytes a = Sector("010", "010");
                const bool trailer = block == 3, keyA = scheme == 1;
                const auto result = trailer ? EncodeTrailerCondition(value, scheme, MaskOfBlock(block), a)
                                            : EncodeDataBlockCondition({}, value, scheme, MaskOfBlock(block), a);
                std::string expected = "010";
                if (value >= 0) {
                    expected = keyA         ? (trailer ? kTrailerKeyA : kDataKeyA)[value & 3]
                               : value > 15 ? ""
                                            : (trailer ? kTrailerKeyAB : kDataKeyAB)[value];
                }
                SCOPED_TRACE("scheme " + std::to_string(scheme) + " value " + std::to_string(value) + " block " +
                             std::to_string(block));
                EXPECT_EQ(result, expected.empty() ? sceError : sceSuccess);
                for (unsigned b = 0; b < 4; ++b) {
                    const std::string want = b == block && !expected.empty() ? expected : "010";
                    EXPECT_EQ(CardConditionOf(a, b), want) << b;
                    EXPECT_EQ(ConditionOfBlock(a, b), std::stoul(want, nullptr, 2)) << b;
                }
            }
        }
    }
}

// Each override replaces exactly the rows it names; "100" is no built-in
// choice. An override never makes a refused value encodable.
TEST(EncodeDataBlockCondition, EachOverrideReplacesExactlyTheRowsItNames) {
    for (std::size_t entry = 1; entry <= 9; ++entry) {
        AccessConditionTable overrides{};
        overrides[entry - 1] = "100";
        for (std::int32_t security = 0; security <= 15; ++security) {
            SCOPED_TRACE("entry " + std::to_string(entry) + " security " + std::to_string(security));
            const auto keyA = DataBlockConditionText(overrides, security, 1);
            EXPECT_EQ(keyA, kEntryKeyA[security & 3] == entry ? "100" : kDataKeyA[security & 3]);
            const auto keyAB = DataBlockConditionText(overrides, security, 2);
            EXPECT_EQ(keyAB.value_or(""), kEntryKeyAB[security] == entry ? "100" : kDataKeyAB[security]);
        }
    }
}

TEST(ConditionReading, IsCoarserThanTheCardsOwnMeaning) {
    struct Row {
        std::int32_t dataSecurity;
        std::uint8_t keysUsed;
        std::int32_t conditions;
    };
    // Indexed by C1 C2 C3; key B readable (000, 001, 010) is the card's sign
    // that key B is data, so key A alone is reported.
    const Row rows[8] = {{15, 1, 1}, {5, 1, 3}, {5, 1, 0}, {12, 2, 12}, {13, 2, 4}, {12, 2, 8}, {13, 2, 0}, {0, 2, 0}};
    for (unsigned c = 0; c < 8; ++c) {
        EXPECT_EQ(DataBlockSecurityOf(c), rows[c].dataSecurity) << kAllConditions[c];
        EXPECT_EQ(TrailerSecurityOf(c).keysUsed, rows[c].keysUsed) << kAllConditions[c];
        EXPECT_EQ(TrailerSecurityOf(c).conditions, rows[c].conditions) << kAllConditions[c];
    }
}

}  // namespace
}  // namespace elatectwn4::mifare
