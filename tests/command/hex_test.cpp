#include "command/hex.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

namespace elatectwn4::command {
namespace {

std::string Chars(std::initializer_list<int> codes) {
    std::string out;
    for (int c : codes)
        out.push_back(static_cast<char>(c));
    return out;
}

std::vector<std::uint8_t> AllByteValues() {
    std::vector<std::uint8_t> all(256);
    for (int i = 0; i < 256; ++i)
        all[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
    return all;
}

TEST(IsHexText, NormalisesOrRefusesEachInput) {
    struct Case {
        std::string input;
        int expectedLength;
        bool result;
        std::string after;
    };
    const Case cases[] = {
        {" a0 a1 ", -1, true, "A0A1"},
        {"A0A1", 6, false, "A0A1"},
        {"A0A1", 4, true, "A0A1"},
        {"a0a1a2a3a4a5", 12, true, "A0A1A2A3A4A5"},
        {"A0 A1 A2 A3 A4 A5", 12, true, "A0A1A2A3A4A5"},
        {"ABC", -1, true, "ABC"},  // no pairing is required
        {"", -1, true, ""},        // nothing to refuse
        {"   ", 0, true, ""},
        {"", 2, false, ""},
        {"G1", -1, false, "G1"},
        {"a0\tA1", -1, false, "a0\tA1"},  // only blanks are separators
        {"A0-A1", -1, false, "A0-A1"},
        {"0x12", -1, false, "0x12"},
        {"A0A1 ", 5, false, "A0A1 "},
    };
    for (const Case& c : cases) {
        std::string text = c.input;
        EXPECT_EQ(IsHexText(text, c.expectedLength), c.result) << '"' << c.input << '"';
        EXPECT_EQ(text, c.after) << '"' << c.input << '"';
    }
}

TEST(BytesToHex, CoversTheRequestedPositionsOnly) {
    struct Case {
        std::string data;
        long first, last;
        bool blanks;
        std::string hex;
    };
    const std::string three = Chars({0x01, 0xFF, 0x00});
    const Case cases[] = {
        {Chars({1, 255}), 1, -1, true, "01 FF"},
        {Chars({1, 255}), 1, -1, false, "01FF"},
        {three, 2, -1, true, "FF 00"},
        {three, 1, 1, true, "01"},
        {three, 2, 2, false, "FF"},
        {three, 3, 2, true, ""},          // empty range
        {three, 0, -1, false, "01FF00"},  // before the start: clamped
        {three, -7, 2, false, "01FF"},
        {three, 1, 99, false, "01FF00"},  // past the end: clamped
        {three, 4, -1, true, ""},
        {"", 1, -1, true, ""},
        {"Az", 1, -1, false, "417A"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(BytesToHex(c.data, c.first, c.last, c.blanks), c.hex) << c.first << ".." << c.last;
    }
}

TEST(HexToBytes, ReadsTheRequestedBytePositions) {
    struct Case {
        std::string hex;
        long first, last;
        std::string bytes;
    };
    const Case cases[] = {
        {"0A FF", 1, -1, Chars({0x0A, 0xFF})},
        {"0aff10", 2, 3, Chars({0xFF, 0x10})},
        {"0AFF10", 3, -1, Chars({0x10})},
        {"0AF", 1, -1, Chars({0x0A, 0x0F})},   // a lone last digit counts alone
        {"ZZ01", 1, -1, Chars({0x00, 0x01})},  // a pair that is not hex reads as 0
        {"0AFF10", 0, 1, Chars({0x0A})},
        {"0AFF10", 2, 1, ""},
        {"0AFF10", 1, 99, Chars({0x0A, 0xFF, 0x10})},
        {"", 1, -1, ""},
        {"   ", 1, -1, ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(HexToBytes(c.hex, c.first, c.last), c.bytes) << '"' << c.hex << "\" " << c.first << ".." << c.last;
    }
}

TEST(HexToByteArray, ReadsPairsAfterCompletingAnOddCountInFront) {
    struct Case {
        std::string hex;
        std::vector<std::uint8_t> bytes;
    };
    const Case cases[] = {
        {"FCA", {0x0F, 0xCA}},
        {"1 2 3", {0x01, 0x23}},
        {"ff 00", {0xFF, 0x00}},
        {"00", {0x00}},
        {"F", {0x0F}},
        {"G1 02", {0x00, 0x02}},
        {"", {}},
        {"    ", {}},
        {"FF CA 00 00 00", {0xFF, 0xCA, 0x00, 0x00, 0x00}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(HexToByteArray(c.hex), c.bytes) << '"' << c.hex << '"';
}

TEST(HexConversions, EveryByteValueSurvivesBothWays) {
    const std::vector<std::uint8_t> all = AllByteValues();
    const std::string asChars = ToByteString(all);
    for (bool blanks : {false, true}) {
        const std::string hex = BytesToHex(asChars, 1, -1, blanks);
        EXPECT_EQ(hex.size(), blanks ? 256u * 3 - 1 : 512u);
        EXPECT_EQ(HexToByteArray(hex), all);
        EXPECT_EQ(HexToBytes(hex), asChars);
    }
}

TEST(HexConversions, MegabytesConvertWithoutLoss) {
    std::vector<std::uint8_t> big(1 << 20);
    std::mt19937 random(20240611);
    for (auto& b : big)
        b = static_cast<std::uint8_t>(random());
    const std::string hex = BytesToHex(ToByteString(big), 1, -1, true);
    ASSERT_EQ(hex.size(), big.size() * 3 - 1);
    EXPECT_EQ(HexToByteArray(hex), big);
    EXPECT_EQ(ToBytes(HexToBytes(hex, 1, -1)), big);
}

TEST(HexConversions, AgreeWithOpenSslOnRandomData) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        std::vector<std::uint8_t> data(random() % 200);
        for (auto& b : data)
            b = static_cast<std::uint8_t>(random());

        // Bytes to text: OpenSSL separates with ':' where ours puts a blank.
        char* theirs = OPENSSL_buf2hexstr(data.data(), static_cast<long>(data.size()));
        ASSERT_NE(theirs, nullptr);
        std::string expected(theirs);
        OPENSSL_free(theirs);
        for (char& c : expected)
            c = c == ':' ? ' ' : c;
        EXPECT_EQ(BytesToHex(ToByteString(data), 1, -1, true), expected);

        // Text to bytes, from lower-case text with separators.
        if (data.empty()) continue;
        std::string lower = expected;
        for (char& c : lower)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::string colons = lower;
        for (char& c : colons)
            c = c == ' ' ? ':' : c;
        long length = 0;
        unsigned char* parsed = OPENSSL_hexstr2buf(colons.c_str(), &length);
        ASSERT_NE(parsed, nullptr);
        const std::vector<std::uint8_t> reference(parsed, parsed + length);
        OPENSSL_free(parsed);
        EXPECT_EQ(HexToByteArray(lower), reference);
    }
}

TEST(SplitAnswer, SeparatesDataAndStatusByAnswerKind) {
    struct Case {
        bool iso;
        std::vector<std::uint8_t> bytes;
        std::string data;
        std::string status;
    };
    const Case cases[] = {
        {true, {0x90, 0x00}, "", "9000"},
        {true, {0x01, 0x02, 0x91, 0xAF}, Chars({1, 2}), "91AF"},
        {true, {0x01}, "", ""},
        {true, {}, "", ""},
        {false, {0xAF, 0x01, 0x02}, Chars({1, 2}), "AF"},
        {false, {0x00}, "", "00"},
        {false, {}, "", ""},
        {false, {0x91, 0x00}, Chars({0}), "91"},
    };
    for (const Case& c : cases) {
        std::string data = "stale", status = "stale";
        SplitAnswer(c.iso, c.bytes, data, status);
        EXPECT_EQ(data, c.data);
        EXPECT_EQ(status, c.status);
    }
}

TEST(FormatByteArray, ListsTheBytesInHexBetweenParentheses) {
    EXPECT_EQ(FormatByteArray(std::vector<std::uint8_t>{0x00, 0x1F, 0xFF}), "Array(00, 1F, FF)");
    EXPECT_EQ(FormatByteArray(std::vector<std::uint8_t>{0x0A}), "Array(0A)");
    EXPECT_EQ(FormatByteArray(std::vector<std::uint8_t>{}), "Array()");
}

}  // namespace
}  // namespace elatectwn4::command
