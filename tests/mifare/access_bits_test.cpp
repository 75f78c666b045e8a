// Access bits against the card's own layout: C1/C2/C3 of block b at bit b
// (and 4 + b) of trailer bytes 6..8, each with its inverted copy.
#include "mifare/access_bits.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
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

TEST(AccessBits, EveryConditionOnEveryBlockReadsBackAndLeavesTheOtherBlocksAlone) {
    std::mt19937 random(20240611);
    for (int round = 0; round < 20; ++round) {
        AccessBytes a{};
        std::array<std::string, 4> expected;
        for (unsigned b = 0; b < 4; ++b) {
            expected[b] = kAllConditions[random() % 8];
            SetAccessBits(expected[b], MaskOfBlock(b), a);
        }
        for (unsigned block = 0; block < 4; ++block) {
            for (const auto& condition : kAllConditions) {
                AccessBytes changed = a;
                SetAccessBits(condition, MaskOfBlock(block), changed);
                for (unsigned other = 0; other < 4; ++other) {
                    const std::string want = other == block ? condition : expected[other];
                    EXPECT_EQ(CardConditionOf(changed, other), want) << "block " << block << " set to " << condition;
                    EXPECT_EQ(ConditionOfBlock(changed, other), std::stoul(want, nullptr, 2));
                }
            }
        }
    }
}

TEST(AccessBytesConsistent, AgreesWithTheCardsReadingOfEveryBlock) {
    std::mt19937 random(20261122);
    for (int round = 0; round < 20000; ++round) {
        // Half written by SetAccessBits, half any three bytes at all.
        AccessBytes a{};
        if (round % 2 == 0) {
            for (unsigned b = 0; b < 4; ++b)
                SetAccessBits(kAllConditions[random() % 8], MaskOfBlock(b), a);
            if (round % 4 == 0) a[random() % 3] ^= static_cast<std::uint8_t>(1u << (random() % 8));
        } else {
            for (auto& byte : a)
                byte = static_cast<std::uint8_t>(random());
        }
        bool cardReadsAll = true;
        for (unsigned b = 0; b < 4; ++b)
            cardReadsAll = cardReadsAll && CardConditionOf(a, b).has_value();
        EXPECT_EQ(AccessBytesConsistent(a), cardReadsAll) << int(a[0]) << " " << int(a[1]) << " " << int(a[2]);
    }
}

TEST(IsSectorTrailer, FollowsTheSectorsOfFourAndOfSixteenBlocks) {
    for (const std::int32_t block : {3, 7, 127, 143, 255})
        EXPECT_TRUE(IsSectorTrailer(block)) << block;
    for (const std::int32_t block : {-1, 0, 2, 128, 131, 254})
        EXPECT_FALSE(IsSectorTrailer(block)) << block;
}

TEST(AccessConditionText, OnlyThreeBinaryDigitsAreLegal) {
    for (const auto& legal : kAllConditions)
        EXPECT_TRUE(IsAccessConditionText(legal)) << legal;
    for (const char* bad : {"", "2", "00", "0000", "012", " 01"})
        EXPECT_FALSE(IsAccessConditionText(bad)) << '"' << bad << '"';
}

// The encoder's choices, one row per security value and scheme.
std::optional<std::string> ExpectedDataCondition(std::int32_t security, bool keyAOnly) {
    static const std::map<std::int32_t, std::string> keyA{{0, "111"}, {1, "001"}, {2, "000"}, {3, "000"}};
    static const std::map<std::int32_t, std::string> keyAB{{0, "111"},  {4, "101"},  {5, "001"},  {8, "011"},
                                                           {12, "011"}, {9, "110"},  {13, "110"}, {10, "000"},
                                                           {11, "000"}, {14, "000"}, {15, "000"}};
    const auto& rows = keyAOnly ? keyA : keyAB;
    const auto it = rows.find(keyAOnly ? (security & 3) : security);
    if (it == rows.end()) return std::nullopt;
    return it->second;
}

std::optional<std::string> ExpectedTrailerCondition(std::int32_t conditions, bool keyAOnly) {
    static const std::map<std::int32_t, std::string> keyA{{0, "010"}, {1, "000"}, {2, "001"}, {3, "001"}};
    static const std::map<std::int32_t, std::string> keyAB{{0, "111"}, {4, "100"}, {8, "101"}, {12, "011"}};
    const auto& rows = keyAOnly ? keyA : keyAB;
    const auto it = rows.find(keyAOnly ? (conditions & 3) : conditions);
    if (it == rows.end()) return std::nullopt;
    return it->second;
}

// Every value under every scheme (0 and others than 1 and 2 use key B too),
// on every block: its condition on its block only, or a refusal that
// touches nothing; a negative value keeps the block.
TEST(EncodeCondition, EveryValueUnderEverySchemeGivesItsConditionOnItsBlockOnly) {
    const AccessConditionTable noOverrides{};
    for (const std::uint8_t scheme : {1, 0, 2, 3, 255}) {
        for (std::int32_t value = -3; value <= 17; ++value) {
            for (unsigned block = 0; block < 4; ++block) {
                const AccessBytes before = Sector("010", "010");
                AccessBytes a = before;
                const bool trailer = block == 3;
                const auto result = trailer
                                        ? EncodeTrailerCondition(value, scheme, MaskOfBlock(block), a)
                                        : EncodeDataBlockCondition(noOverrides, value, scheme, MaskOfBlock(block), a);
                const auto expected = value < 0 ? std::optional<std::string>("010")
                                      : trailer ? ExpectedTrailerCondition(value, scheme == 1)
                                                : ExpectedDataCondition(value, scheme == 1);
                SCOPED_TRACE("scheme " + std::to_string(scheme) + " value " + std::to_string(value) + " block " +
                             std::to_string(block));
                EXPECT_EQ(result, expected ? sceSuccess : sceError);
                for (unsigned b = 0; b < 4; ++b)
                    EXPECT_EQ(CardConditionOf(a, b), b == block && expected ? *expected : "010") << "block " << b;
            }
        }
    }
}

TEST(EncodeDataBlockCondition, EachOverrideReplacesExactlyTheRowsItNames) {
    struct Row {
        std::uint8_t scheme;
        std::int32_t security;
        std::size_t entry;
    };
    std::vector<Row> rows;
    for (std::int32_t s = 0; s <= 15; ++s)
        rows.push_back({1, s, std::size_t((s & 3) == 0 ? 1 : (s & 3) == 1 ? 2 : 3)});
    const std::map<std::int32_t, std::size_t> keyABEntries{{0, 4},  {4, 5},  {5, 6},  {8, 7},  {12, 7}, {9, 8},
                                                           {13, 8}, {10, 9}, {11, 9}, {14, 9}, {15, 9}};
    for (const auto& [s, entry] : keyABEntries)
        rows.push_back({2, s, entry});

    for (std::size_t entry = 1; entry <= 9; ++entry) {
        AccessConditionTable overrides{};
        overrides[entry - 1] = "100";  // no built-in row uses it
        for (const Row& row : rows) {
            const auto text = DataBlockConditionText(overrides, row.security, row.scheme);
            ASSERT_TRUE(text);
            EXPECT_EQ(*text, row.entry == entry ? "100" : *ExpectedDataCondition(row.security, row.scheme == 1))
                << "entry " << entry << " security " << row.security;
        }
    }
    // An override never makes a refused value encodable.
    AccessConditionTable all;
    all.fill("000");
    EXPECT_FALSE(DataBlockConditionText(all, 6, 2));
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
