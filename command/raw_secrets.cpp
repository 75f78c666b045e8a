#include "command/raw_secrets.h"

namespace elatectwn4::command {

namespace {

constexpr std::uint8_t kReaderClass = 0xFF;
constexpr std::uint8_t kDesfireWrapClass = 0x90;
constexpr std::uint8_t kLoadKeys = 0x82;
constexpr std::uint8_t kReadBinary = 0xB0;
constexpr std::uint8_t kUpdateBinary = 0xD6;
constexpr std::uint8_t kChangeKey = 0xC4;
constexpr std::uint8_t kMoreFrames = 0xAF;

// Sectors 0 to 31 have 4 blocks, 32 to 39 (on a 4K card) 16; the trailer
// ends its sector.
bool IsTrailerBlock(unsigned block) noexcept {
    return block < 128 ? block % 4 == 3 : block % 16 == 15;
}

bool StartsAuthentication(std::uint8_t ins) noexcept {
    return ins == 0x0A || ins == 0x1A || ins == 0xAA;
}

// A DESFire frame of instruction `ins` whose data starts at `data`.
RawSecrets Desfire(std::uint8_t ins, std::size_t data, std::size_t size, bool native) noexcept {
    RawSecrets secrets;
    secrets.nativeAnswer = native;
    if (ins == kChangeKey && size > data + 1) secrets.sentFrom = data + 1;  // after the key number
    if (StartsAuthentication(ins)) secrets.answer = true;
    if (ins == kMoreFrames && size > data) {
        // The next frame of an authentication (or of a transfer: masked all the same).
        secrets.sentFrom = data;
        secrets.answer = true;
    }
    return secrets;
}

}  // namespace

RawSecrets RawCommandSecrets(std::span<const std::uint8_t> command) noexcept {
    const std::size_t size = command.size();
    if (size == 0) return {};
    if (command[0] == kReaderClass) {
        if (size < 4) return {};
        const unsigned block = static_cast<unsigned>(command[2]) << 8 | command[3];
        RawSecrets secrets;
        if (command[1] == kLoadKeys && size > 5) secrets.sentFrom = 5;
        if (command[1] == kUpdateBinary && IsTrailerBlock(block) && size > 5) secrets.sentFrom = 5;
        if (command[1] == kReadBinary && IsTrailerBlock(block)) secrets.answer = true;
        return secrets;
    }
    // 90 INS 00 00 Lc data [Le]: the card's frame is INS + data.
    if (command[0] == kDesfireWrapClass) return size < 2 ? RawSecrets{} : Desfire(command[1], 5, size, false);
    return Desfire(command[0], 1, size, true);
}

}  // namespace elatectwn4::command
