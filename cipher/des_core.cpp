#include "cipher/des_core.h"

#include "cipher/wipe.h"

namespace elatectwn4::cipher::detail {
namespace {

// clang-format off
constexpr std::uint8_t kPc1[56] = {57, 49, 41, 33, 25, 17,  9,  1, 58, 50, 42, 34, 26, 18,
                                   10,  2, 59, 51, 43, 35, 27, 19, 11,  3, 60, 52, 44, 36,
                                   63, 55, 47, 39, 31, 23, 15,  7, 62, 54, 46, 38, 30, 22,
                                   14,  6, 61, 53, 45, 37, 29, 21, 13,  5, 28, 20, 12,  4};
constexpr std::uint8_t kPc2[48] = {14, 17, 11, 24,  1,  5,  3, 28, 15,  6, 21, 10,
                                   23, 19, 12,  4, 26,  8, 16,  7, 27, 20, 13,  2,
                                   41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48,
                                   44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};
constexpr std::uint8_t kRotations[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};
// clang-format on

constexpr std::uint32_t kMask28 = 0x0FFFFFFFU;

std::uint32_t Rotate28(std::uint32_t half, int count) noexcept {
    return ((half << count) | (half >> (28 - count))) & kMask28;
}

}  // namespace

KeySchedule ExpandKey(std::span<const std::uint8_t, 8> key) noexcept {
    // A key load happens once per DESFire operation at most, so the bit loops
    // of the standard are fast enough here; only the rounds need the tables.
    std::uint64_t k = LoadBlock(key.data());
    std::uint64_t cd = 0;
    for (int i = 0; i < 56; ++i)
        cd = (cd << 1) | ((k >> (64 - kPc1[i])) & 1U);
    auto c = static_cast<std::uint32_t>(cd >> 28) & kMask28;
    auto d = static_cast<std::uint32_t>(cd) & kMask28;

    KeySchedule schedule;
    for (int round = 0; round < 16; ++round) {
        c = Rotate28(c, kRotations[round]);
        d = Rotate28(d, kRotations[round]);
        cd = (std::uint64_t{c} << 28) | d;
        std::uint64_t subkey = 0;
        for (int i = 0; i < 48; ++i)
            subkey = (subkey << 1) | ((cd >> (56 - kPc2[i])) & 1U);
        std::uint32_t odd = 0;   // S-boxes 1, 3, 5, 7
        std::uint32_t even = 0;  // S-boxes 2, 4, 6, 8
        for (int box = 0; box < 8; ++box) {
            const auto group = static_cast<std::uint32_t>(subkey >> (42 - 6 * box)) & 0x3FU;
            const int shift = 24 - 8 * (box / 2);
            (box % 2 == 0 ? odd : even) |= group << shift;
        }
        schedule.words[2 * round] = odd;
        schedule.words[2 * round + 1] = even;
        SecureWipeObject(subkey);
    }
    SecureWipeObject(k);
    SecureWipeObject(cd);
    SecureWipeObject(c);
    SecureWipeObject(d);
    return schedule;
}

}  // namespace elatectwn4::cipher::detail
