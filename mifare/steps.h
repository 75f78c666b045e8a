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

/// Opens the block's sector and reads it: the block's 16 bytes. nullopt
/// after a failure, recorded by the authentication step or, for the read
/// itself, under `comFunction`; an answer of any other length is a failure
/// (0x90010F04 saying how many bytes came).
std::optional<cipher::SecretBuffer> ReadBlock(Context& ctx, std::int32_t block, const std::string& key,
                                              std::uint8_t keyType, bool holdsKeys, const std::string& comFunction);

/// Opens the block's sector and writes `data`; a failure is recorded as
/// ReadBlock records it.
sceReturnCode WriteBlock(Context& ctx, std::int32_t block, const std::string& key, std::uint8_t keyType,
                         const Block& data, bool holdsKeys, const std::string& comFunction);

}  // namespace elatectwn4::mifare
