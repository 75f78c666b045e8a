// The DES block function (FIPS 46-3) in the usual fast form: the S-boxes are
// merged with the P permutation into eight 64-entry tables built at compile
// time from the standard's tables, the E expansion is done by two rotations,
// and IP / IP^-1 by five delta swaps each. Everything a block needs is inline
// so the chaining loops compile into tight code.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <span>

namespace elatectwn4::cipher::detail {

/// Sixteen round keys, two 32-bit words per round. Word 0 holds the 6-bit
/// key groups of S-boxes 1, 3, 5, 7 in bits 24-29, 16-21, 8-13, 0-5; word 1
/// those of S-boxes 2, 4, 6, 8 in the same places. That is where the round
/// function finds the matching expanded bits of R.
struct KeySchedule {
    std::array<std::uint32_t, 32> words{};
};

/// Builds the round keys of one 8-byte DES key (parity bits ignored).
KeySchedule ExpandKey(std::span<const std::uint8_t, 8> key) noexcept;

namespace tables {

// clang-format off
inline constexpr std::uint8_t kSBox[8][64] = {
    {14, 4,13, 1, 2,15,11, 8, 3,10, 6,12, 5, 9, 0, 7,  0,15, 7, 4,14, 2,13, 1,10, 6,12,11, 9, 5, 3, 8,
      4, 1,14, 8,13, 6, 2,11,15,12, 9, 7, 3,10, 5, 0, 15,12, 8, 2, 4, 9, 1, 7, 5,11, 3,14,10, 0, 6,13},
    {15, 1, 8,14, 6,11, 3, 4, 9, 7, 2,13,12, 0, 5,10,  3,13, 4, 7,15, 2, 8,14,12, 0, 1,10, 6, 9,11, 5,
      0,14, 7,11,10, 4,13, 1, 5, 8,12, 6, 9, 3, 2,15, 13, 8,10, 1, 3,15, 4, 2,11, 6, 7,12, 0, 5,14, 9},
    {10, 0, 9,14, 6, 3,15, 5, 1,13,12, 7,11, 4, 2, 8, 13, 7, 0, 9, 3, 4, 6,10, 2, 8, 5,14,12,11,15, 1,
     13, 6, 4, 9, 8,15, 3, 0,11, 1, 2,12, 5,10,14, 7,  1,10,13, 0, 6, 9, 8, 7, 4,15,14, 3,11, 5, 2,12},
    { 7,13,14, 3, 0, 6, 9,10, 1, 2, 8, 5,11,12, 4,15, 13, 8,11, 5, 6,15, 0, 3, 4, 7, 2,12, 1,10,14, 9,
     10, 6, 9, 0,12,11, 7,13,15, 1, 3,14, 5, 2, 8, 4,  3,15, 0, 6,10, 1,13, 8, 9, 4, 5,11,12, 7, 2,14},
    { 2,12, 4, 1, 7,10,11, 6, 8, 5, 3,15,13, 0,14, 9, 14,11, 2,12, 4, 7,13, 1, 5, 0,15,10, 3, 9, 8, 6,
      4, 2, 1,11,10,13, 7, 8,15, 9,12, 5, 6, 3, 0,14, 11, 8,12, 7, 1,14, 2,13, 6,15, 0, 9,10, 4, 5, 3},
    {12, 1,10,15, 9, 2, 6, 8, 0,13, 3, 4,14, 7, 5,11, 10,15, 4, 2, 7,12, 9, 5, 6, 1,13,14, 0,11, 3, 8,
      9,14,15, 5, 2, 8,12, 3, 7, 0, 4,10, 1,13,11, 6,  4, 3, 2,12, 9, 5,15,10,11,14, 1, 7, 6, 0, 8,13},
    { 4,11, 2,14,15, 0, 8,13, 3,12, 9, 7, 5,10, 6, 1, 13, 0,11, 7, 4, 9, 1,10,14, 3, 5,12, 2,15, 8, 6,
      1, 4,11,13,12, 3, 7,14,10,15, 6, 8, 0, 5, 9, 2,  6,11,13, 8, 1, 4,10, 7, 9, 5, 0,15,14, 2, 3,12},
    {13, 2, 8, 4, 6,15,11, 1,10, 9, 3,14, 5, 0,12, 7,  1,15,13, 8,10, 3, 7, 4,12, 5, 6,11, 0,14, 9, 2,
      7,11, 4, 1, 9,12,14, 2, 0, 6,10,13,15, 3, 5, 8,  2, 1,14, 7, 4,10, 8,13,15,12, 9, 0, 3, 5, 6,11},
};

inline constexpr std::uint8_t kP[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1, 15, 23, 26, 5, 18, 31, 10,
                                         2, 8, 24, 14, 32, 27, 3, 9, 19, 13, 30, 6, 22, 11, 4, 25};
// clang-format on

/// S-box j (0-based) followed by P, indexed by the 6 expanded bits in the
/// order they enter the box (first bit most significant).
consteval std::array<std::array<std::uint32_t, 64>, 8> MakeSpTables() {
    std::array<std::array<std::uint32_t, 64>, 8> sp{};
    for (int box = 0; box < 8; ++box) {
        for (unsigned x = 0; x < 64; ++x) {
            const unsigned row = ((x >> 4) & 2U) | (x & 1U);
            const unsigned column = (x >> 1) & 0xFU;
            const std::uint32_t s = std::uint32_t{kSBox[box][row * 16 + column]} << (28 - 4 * box);
            std::uint32_t permuted = 0;
            for (int i = 0; i < 32; ++i)
                permuted |= ((s >> (32 - kP[i])) & 1U) << (31 - i);
            sp[box][x] = permuted;
        }
    }
    return sp;
}

inline constexpr auto kSp = MakeSpTables();

}  // namespace tables

/// One delta swap: exchanges the bits of `a` selected by mask << shift with
/// the bits of `b` selected by mask.
inline void DeltaSwap(std::uint32_t& a, std::uint32_t& b, int shift, std::uint32_t mask) noexcept {
    const std::uint32_t t = ((a >> shift) ^ b) & mask;
    b ^= t;
    a ^= t << shift;
}

/// IP on the block held as two big-endian halves.
inline void InitialPermutation(std::uint32_t& l, std::uint32_t& r) noexcept {
    DeltaSwap(l, r, 4, 0x0F0F0F0FU);
    DeltaSwap(l, r, 16, 0x0000FFFFU);
    DeltaSwap(r, l, 2, 0x33333333U);
    DeltaSwap(r, l, 8, 0x00FF00FFU);
    DeltaSwap(l, r, 1, 0x55555555U);
}

/// IP^-1: the same swaps, each its own inverse, in reverse order.
inline void FinalPermutation(std::uint32_t& l, std::uint32_t& r) noexcept {
    DeltaSwap(l, r, 1, 0x55555555U);
    DeltaSwap(r, l, 8, 0x00FF00FFU);
    DeltaSwap(r, l, 2, 0x33333333U);
    DeltaSwap(l, r, 16, 0x0000FFFFU);
    DeltaSwap(l, r, 4, 0x0F0F0F0FU);
}

/// f(R, K): the expansion E is two rotations of R, which bring the 6-bit
/// groups of the odd and even S-boxes to bytes 3..0 of two words.
inline std::uint32_t Feistel(std::uint32_t r, std::uint32_t k0, std::uint32_t k1) noexcept {
    const auto& sp = tables::kSp;
    const std::uint32_t a = std::rotr(r, 3) ^ k0;
    const std::uint32_t b = std::rotl(r, 1) ^ k1;
    return sp[0][(a >> 24) & 0x3F] ^ sp[2][(a >> 16) & 0x3F] ^ sp[4][(a >> 8) & 0x3F] ^ sp[6][a & 0x3F] ^
           sp[1][(b >> 24) & 0x3F] ^ sp[3][(b >> 16) & 0x3F] ^ sp[5][(b >> 8) & 0x3F] ^ sp[7][b & 0x3F];
}

/// The sixteen rounds between IP and IP^-1. On return (l, r) hold
/// (L16, R16); the caller swaps them before IP^-1 or the next stage.
template <bool Encipher>
inline void Rounds(std::uint32_t& l, std::uint32_t& r, const KeySchedule& ks) noexcept {
    const std::uint32_t* k = ks.words.data();
    if constexpr (Encipher) {
        for (int i = 0; i < 32; i += 4) {
            l ^= Feistel(r, k[i], k[i + 1]);
            r ^= Feistel(l, k[i + 2], k[i + 3]);
        }
    } else {
        for (int i = 30; i >= 0; i -= 4) {
            l ^= Feistel(r, k[i], k[i + 1]);
            r ^= Feistel(l, k[i - 2], k[i - 1]);
        }
    }
}

inline std::uint64_t LoadBlock(const std::uint8_t* p) noexcept {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = (v << 8) | p[i];
    return v;
}

inline void StoreBlock(std::uint64_t v, std::uint8_t* p) noexcept {
    for (int i = 7; i >= 0; --i) {
        p[i] = static_cast<std::uint8_t>(v);
        v >>= 8;
    }
}

/// Single DES on one block held as a big-endian 64-bit number.
template <bool Encipher>
inline std::uint64_t Des(std::uint64_t block, const KeySchedule& ks) noexcept {
    auto l = static_cast<std::uint32_t>(block >> 32);
    auto r = static_cast<std::uint32_t>(block);
    InitialPermutation(l, r);
    Rounds<Encipher>(l, r, ks);
    FinalPermutation(r, l);
    return (std::uint64_t{r} << 32) | l;
}

/// Triple-DES on one block. Enciphering is E_K3(D_K2(E_K1(x))) and
/// deciphering D_K1(E_K2(D_K3(x))); the inner IP^-1 / IP pairs cancel, so
/// only the halves are swapped between the stages.
template <bool Encipher>
inline std::uint64_t TripleDes(std::uint64_t block, const KeySchedule& k1, const KeySchedule& k2,
                               const KeySchedule& k3) noexcept {
    auto l = static_cast<std::uint32_t>(block >> 32);
    auto r = static_cast<std::uint32_t>(block);
    InitialPermutation(l, r);
    if constexpr (Encipher) {
        Rounds<true>(l, r, k1);
        Rounds<false>(r, l, k2);
        Rounds<true>(l, r, k3);
    } else {
        Rounds<false>(l, r, k3);
        Rounds<true>(r, l, k2);
        Rounds<false>(l, r, k1);
    }
    FinalPermutation(r, l);
    return (std::uint64_t{r} << 32) | l;
}

}  // namespace elatectwn4::cipher::detail
