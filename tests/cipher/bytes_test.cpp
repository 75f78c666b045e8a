// The hex codec (its round trips are the formats fuzz target's), and key material
// that wipes itself.
#include "cipher/bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "cipher/secret.h"

// Every array block given back while a test watches is checked for a marker
// that only unwiped key material would still hold.
namespace {
bool gWatching = false;
int gUnwipedBlocks = 0;
constexpr unsigned char kMarker[] = {0x5A, 0xC3, 0x3C, 0xA5};
}  // namespace

void* operator new[](std::size_t size) {
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete[](void* p) noexcept {
    if (gWatching && p != nullptr && std::equal(std::begin(kMarker), std::end(kMarker), static_cast<unsigned char*>(p)))
        ++gUnwipedBlocks;
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    operator delete[](p);
}

namespace elatectwn4::cipher {
namespace {

TEST(Hex, WritesUpperCaseAndReadsWhatEachSyntaxAccepts) {
    EXPECT_EQ(ToHex(std::uint8_t{0xB}), "0B");
    constexpr HexSyntax kLenient{IsBlank, true};
    constexpr HexSyntax kNoSkip{[](char) { return false; }};
    struct Case {
        std::string text;
        HexSyntax syntax;
        std::optional<ByteArray> bytes;
    };
    const Case cases[] = {
        {"a0\tA1", {}, std::nullopt},  // only blanks are skipped
        {"0A 0B", kNoSkip, std::nullopt},
        {"G1 02", kLenient, ByteArray{0x00, 0x02}},  // a pair with a stray character reads 0
        {"ZZ1", kLenient, ByteArray{0x00, 0x00}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ParseHex(c.text, c.syntax), c.bytes) << '"' << c.text << '"';

    std::array<std::uint8_t, 2> two{};
    EXPECT_FALSE(DecodeHex("0A0B0C", two)) << "the text must fit the room";
    EXPECT_TRUE(DecodeHexExactly("0a 0B", two));
    EXPECT_EQ(two, (std::array<std::uint8_t, 2>{0x0A, 0x0B}));
    EXPECT_FALSE(DecodeHexExactly("0A0", two)) << "three digits are no two bytes";

    EXPECT_EQ(HexNumber("FFFFFFFFFFFFFFFF"), 0xFFFFFFFFFFFFFFFFu);
    for (const char* bad : {"1FFFFFFFFFFFFFFFF", "", "1 "})
        EXPECT_EQ(HexNumber(bad), std::nullopt) << bad;
}

// What any text reads to is the formats fuzz target's; here the syntaxes and the
// expected lengths it does not vary.
TEST(IsHexText, RefusesTextOfAnotherLengthAndThenLeavesItAlone) {
    struct Case {
        std::string input;
        int expectedLength;
        bool result;
        std::string after;
    };
    const Case cases[] = {
        {"A0A1", 6, false, "A0A1"},
        {"A0 A1 A2 A3 A4 A5", 12, true, "A0A1A2A3A4A5"},
        {"   ", 0, true, ""},
    };
    for (const Case& c : cases) {
        std::string text = c.input;
        EXPECT_EQ(IsHexText(text, c.expectedLength), c.result) << '"' << c.input << '"';
        EXPECT_EQ(text, c.after) << '"' << c.input << '"';
    }
}

// Out of line: the storage is read as the memory it now is, not as an object.
[[gnu::noinline]] bool AllZero(const unsigned char* bytes, std::size_t size) {
    return std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0; });
}

TEST(SecretBytes, WipesWhatItLeavesBehind) {
    const std::array<std::uint8_t, 4> marker{kMarker[0], kMarker[1], kMarker[2], kMarker[3]};
    SecretBytes<4> key(marker);
    SecretBytes<4> copy = key;
    EXPECT_EQ(copy, key);
    SecretBytes<4> moved = std::move(copy);
    EXPECT_EQ(moved, key);
    EXPECT_EQ(copy, SecretBytes<4>{}) << "moved from";
    moved = std::move(key);
    EXPECT_EQ(key, SecretBytes<4>{}) << "moved from by assignment";

    alignas(SecretBytes<4>) unsigned char storage[sizeof(SecretBytes<4>)]{};
    auto* ended = new (storage) SecretBytes<4>(marker);
    ended->~SecretBytes();
    EXPECT_TRUE(AllZero(storage, sizeof storage));
}

TEST(SecretBuffer, GrowsAndEndsWithoutLeavingKeyMaterialInFreedMemory) {
    gUnwipedBlocks = 0;
    gWatching = true;
    {
        SecretBuffer buffer;
        for (int i = 0; i < 100; ++i)  // grows several times
            buffer.Append(ByteView(kMarker));
        EXPECT_EQ(buffer.size(), 400u);
        EXPECT_EQ(ToHex(ByteView(buffer.view()).last(4)), "5AC33CA5");
        SecretBuffer moved = std::move(buffer);
        EXPECT_TRUE(buffer.empty());
        moved.Resize(2);
        EXPECT_EQ(moved.data()[2], 0) << "dropped bytes are wiped at once";
        moved.Resize(6);
        EXPECT_EQ(ToHex(moved.view()), "5AC300000000");
        const SecretBuffer ending{ByteView(kMarker)};
    }
    gWatching = false;
    EXPECT_EQ(gUnwipedBlocks, 0);
}

}  // namespace
}  // namespace elatectwn4::cipher
