// The block exchanges the members share, on bytes. Whether an exchange
// carries keys is the caller's knowledge: a trailer read or write says so,
// and the trace hides those bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cipher/secret.h"
#include "mifare/block.h"
#include "mifare/mifare.h"

namespace elatectwn4::mifare {

/// Opens the block's sector and reads it: the card's answer data, of
/// whatever length it gave. nullopt after a failure, recorded by the
/// authentication step or, for the read itself, under `comFunction`.
std::optional<cipher::SecretBuffer> ReadBlock(Context& ctx, std::int32_t block, const std::string& key,
                                              std::uint8_t keyType, bool holdsKeys, const std::string& comFunction);

/// Opens the block's sector and writes `data`; a failure is recorded as
/// ReadBlock records it.
sceReturnCode WriteBlock(Context& ctx, std::int32_t block, const std::string& key, std::uint8_t keyType,
                         const Block& data, bool holdsKeys, const std::string& comFunction);

/// Byte `index` of an answer; a byte the answer does not hold reads as 0.
inline std::uint8_t ByteAt(const cipher::SecretBuffer& data, std::size_t index) noexcept {
    return index < data.size() ? data[index] : 0;
}

}  // namespace elatectwn4::mifare
