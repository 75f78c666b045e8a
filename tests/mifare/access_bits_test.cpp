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

TEST(AccessBits, TransportConfigurationGivesTheWellKnownBytesFF0780) {
    AccessBytes a{0x12, 0x34, 0x56};
    for (unsigned b = 0; b < 3; ++b)
        SetAccessBits("000", MaskOfBlock(b), a);
    SetAccessBits("001", MaskOfBlock(3), a);
    EXPECT_EQ(a, (AccessBytes{0xFF, 0x07, 0x80}));
}

TEST(AccessBits, KeyBWritesConfigurationGivesTheWellKnownBytes787788) {
    AccessBytes a{};
    for (unsigned b = 0; b < 3; ++b)
        SetAccessBits("100", MaskOfBlock(b), a);
    SetAccessBits("011", MaskOfBlock(3), a);
    EXPECT_EQ(a, (AccessBytes{0x78, 0x77, 0x88}));
}

TEST(AccessBits, EveryConditionOnEveryBlockReadsBackAndLeavesTheOtherBlocksAlone) {
    std::mt19937 random(20240611);
    for (int round = 0; round < 20; ++round) {
        // Start from a consistent random sector so that the neighbours can be checked.
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

TEST(AccessConditionText, OnlyThreeBinaryDigitsAreLegal) {
    for (const auto& legal : kAllConditions)
        EXPECT_TRUE(IsAccessConditionText(legal)) << legal;
    for (const char* bad : {"", "0", "2", "00", "0000", "012", "10a", " 01", "01 ", "1-1"}) {
        EXPECT_FALSE(IsAccessConditionText(bad)) << '"' << bad << '"';
    }
}

// What each condition lets a key do with a data block, as the card's
// datasheet lists it; independent of the encoder's own choice.
struct DataRights {
    bool readA, readB, writeA, writeB;
};
const std::map<std::string, DataRights> kCardDataRights{
    {"000", {true, true, true, true}},   {"001", {true, true, false, false}},   {"010", {true, true, false, false}},
    {"011", {false, true, false, true}}, {"100", {true, true, false, true}},    {"101", {false, true, false, false}},
    {"110", {true, true, false, true}},  {"111", {false, false, false, false}},
};

struct TrailerRights {
    bool aWritesKeys, aWritesConditions, bWritesKeys, bWritesConditions;
};
const std::map<std::string, TrailerRights> kCardTrailerRights{
    {"000", {true, false, false, false}},  {"001", {true, true, false, false}},   {"010", {false, false, false, false}},
    {"011", {false, false, true, true}},   {"100", {false, false, true, false}},  {"101", {false, false, false, true}},
    {"110", {false, false, false, false}}, {"111", {false, false, false, false}},
};

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

const std::array<std::uint8_t, 5> kSchemes{1, 0, 2, 3, 255};

TEST(EncodeDataBlockCondition, EverySecurityValueUnderEverySchemeGivesItsConditionOnItsBlockOnly) {
    const AccessConditionTable noOverrides{};
    for (const std::uint8_t scheme : kSchemes) {
        for (std::int32_t security = -3; security <= 17; ++security) {
            for (unsigned block = 0; block < 3; ++block) {
                AccessBytes a{};
                for (unsigned b = 0; b < 4; ++b)
                    SetAccessBits("010", MaskOfBlock(b), a);
                const AccessBytes before = a;
                const auto result = EncodeDataBlockCondition(noOverrides, security, scheme, MaskOfBlock(block), a);
                const auto expected =
                    security < 0 ? std::optional<std::string>("010") : ExpectedDataCondition(security, scheme == 1);
                SCOPED_TRACE("scheme " + std::to_string(scheme) + " security " + std::to_string(security));
                if (!expected) {
                    EXPECT_EQ(result, sceError);
                    EXPECT_EQ(a, before) << "a refused value must not touch the bytes";
                    continue;
                }
                EXPECT_EQ(result, sceSuccess);
                for (unsigned b = 0; b < 4; ++b) {
                    EXPECT_EQ(CardConditionOf(a, b), b == block ? *expected : "010") << "block " << b;
                }
            }
        }
    }
}

TEST(EncodeDataBlockCondition, KeyARightsWithoutKeyBRightsAreRefusedOnlyWhenKeyBIsUsed) {
    const AccessConditionTable noOverrides{};
    for (const std::int32_t security : {1, 2, 3, 6, 7}) {
        EXPECT_FALSE(DataBlockConditionText(noOverrides, security, 2)) << security;
        EXPECT_TRUE(DataBlockConditionText(noOverrides, security, 1)) << security;
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
            if (row.entry == entry) {
                EXPECT_EQ(*text, "100") << "entry " << entry << " security " << row.security;
            } else {
                EXPECT_EQ(*text, *ExpectedDataCondition(row.security, row.scheme == 1))
                    << "entry " << entry << " must not change security " << row.security;
            }
        }
    }
}

TEST(EncodeDataBlockCondition, AnOverrideDoesNotMakeARefusedValueEncodable) {
    AccessConditionTable overrides;
    overrides.fill("000");
    AccessBytes a{1, 2, 3};
    EXPECT_EQ(EncodeDataBlockCondition(overrides, 6, 2, 1, a), sceError);
    EXPECT_EQ(a, (AccessBytes{1, 2, 3}));
}

std::optional<std::string> ExpectedTrailerCondition(std::int32_t conditions, bool keyAOnly) {
    static const std::map<std::int32_t, std::string> keyA{{0, "010"}, {1, "000"}, {2, "001"}, {3, "001"}};
    static const std::map<std::int32_t, std::string> keyAB{{0, "111"}, {4, "100"}, {8, "101"}, {12, "011"}};
    const auto& rows = keyAOnly ? keyA : keyAB;
    const auto it = rows.find(keyAOnly ? (conditions & 3) : conditions);
    if (it == rows.end()) return std::nullopt;
    return it->second;
}

TEST(EncodeTrailerCondition, EveryConditionsValueUnderEverySchemeGivesItsTrailerCondition) {
    for (const std::uint8_t scheme : kSchemes) {
        for (std::int32_t conditions = -2; conditions <= 17; ++conditions) {
            AccessBytes a{};
            for (unsigned b = 0; b < 4; ++b)
                SetAccessBits("110", MaskOfBlock(b), a);
            const AccessBytes before = a;
            const auto result = EncodeTrailerCondition(conditions, scheme, MaskOfBlock(3), a);
            const auto expected =
                conditions < 0 ? std::optional<std::string>("110") : ExpectedTrailerCondition(conditions, scheme == 1);
            SCOPED_TRACE("scheme " + std::to_string(scheme) + " conditions " + std::to_string(conditions));
            if (!expected) {
                EXPECT_EQ(result, sceError);
                EXPECT_EQ(a, before);
                continue;
            }
            EXPECT_EQ(result, sceSuccess);
            EXPECT_EQ(CardConditionOf(a, 3), *expected);
            for (unsigned b = 0; b < 3; ++b)
                EXPECT_EQ(CardConditionOf(a, b), "110");
        }
    }
}

TEST(TrailerSecurityOf, KeyAOnlyIsReportedExactlyForTheConditionsThatLeaveKeyBReadable) {
    // Key B readable by key A (000, 001, 010) is the card's sign that key B is
    // data, not a key.
    for (unsigned c = 0; c < 8; ++c) {
        const bool keyBReadable = c == 0b000 || c == 0b001 || c == 0b010;
        EXPECT_EQ(TrailerSecurityOf(c).keysUsed, keyBReadable ? 1 : 2) << kAllConditions[c];
    }
}

TEST(TrailerSecurityOf, EveryEncodedTrailerConditionReadsBackAsItsSchemeAndConditions) {
    for (const std::uint8_t scheme : {std::uint8_t{1}, std::uint8_t{2}}) {
        for (std::int32_t conditions = 0; conditions <= 15; ++conditions) {
            const auto text = TrailerConditionText(conditions, scheme);
            if (!text) continue;
            const TrailerSecurity back = TrailerSecurityOf(std::stoul(std::string(*text), nullptr, 2));
            EXPECT_EQ(back.keysUsed, scheme) << conditions;
            // "A writes conditions" comes back as keys and conditions: the card
            // has no condition for the one without the other.
            const std::int32_t expected =
                (scheme == 1 && (conditions & 3) == 2) ? 3 : (scheme == 1 ? conditions & 3 : conditions);
            EXPECT_EQ(back.conditions, expected) << conditions;
        }
    }
}

}  // namespace
}  // namespace elatectwn4::mifare
