#include "mifare/block.h"

#include <limits>

#include "command/error_record.h"

namespace elatectwn4::mifare {

namespace {

// Bytes 12-15 of a value block: the address byte and its inverse, twice.
// The address is always FFh; no operation relies on it.
constexpr std::array<std::uint8_t, 4> kValueBlockAddress{0xFF, 0x00, 0xFF, 0x00};

[[noreturn]] void Overflow() {
    throw command::RuntimeError(command::RuntimeOverflow, "Overflow");
}

}  // namespace

Block ValueBlock(std::int32_t value) {
    Block block{};
    std::int64_t rest = value;
    for (std::size_t i = 0; i < 4; ++i) {
        // Truncating division leaves a negative remainder for a negative
        // value, which no byte can hold.
        const std::int64_t remainder = rest % 256;
        if (remainder < 0) Overflow();
        const auto byte = static_cast<std::uint8_t>(remainder);
        block[i] = byte;
        block[4 + i] = static_cast<std::uint8_t>(~byte);
        block[8 + i] = byte;
        rest /= 256;
    }
    for (std::size_t i = 0; i < kValueBlockAddress.size(); ++i)
        block[12 + i] = kValueBlockAddress[i];
    return block;
}

Block SectorTrailer::ToBlock() const noexcept {
    Block block{};
    for (std::size_t i = 0; i < KeySize; ++i) {
        block[i] = keyA[i];
        block[10 + i] = keyB[i];
    }
    block[6] = access[0];
    block[7] = access[1];
    block[8] = access[2];
    block[9] = bx;
    return block;
}

std::int32_t CheckedLong(std::int64_t value) {
    if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max()) {
        Overflow();
    }
    return static_cast<std::int32_t>(value);
}

}  // namespace elatectwn4::mifare
