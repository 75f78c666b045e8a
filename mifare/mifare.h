// MIFARE Classic through the reader's storage-card commands: key loading and
// authentication, data, value and manufacturer blocks, partial writes, sector
// trailers and access conditions.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "command/channel.h"
#include "elatectwn4/types.h"
#include "elatectwn4/variant.h"

namespace elatectwn4::mifare {

/// The nine host overrides of the built-in data-block access conditions
/// (index 0 = entry 1); an empty text leaves the built-in one in force.
using AccessConditionTable = std::array<std::string, 9>;

/// What the MIFARE members need from the Encoder they run in.
struct Context {
    command::Channel& channel;  ///< transmission and the error record
    AccessConditionTable& accessConditions;
    std::function<sceReturnCode()> selectCardInRange;  ///< the session's card check
};

/// Loads `key` into reader slot `keySlot`, then authenticates `blocNumber`
/// with key A (keyType != 2) or key B (keyType == 2).
sceReturnCode MifareAuthenticate(Context& ctx, std::uint8_t keyType, std::int32_t blocNumber, const std::string& key,
                                 std::int32_t keySlot);

sceReturnCode MifareReadDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                 std::string& BlocContents);
sceReturnCode MifareReadManufacturerCode(Context& ctx, const std::string& Key, std::uint8_t KeyType,
                                         std::int32_t& SerialNumber, std::uint8_t& CheckSum,
                                         std::string& ManufacturerInfo);
sceReturnCode MifareWriteDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                  std::string& BlocContents);
sceReturnCode MifareWriteValueBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key,
                                   std::uint8_t KeyType, std::int32_t Value);
sceReturnCode MifareWriteBytesInBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key,
                                     std::uint8_t KeyType, std::uint8_t FromByte, std::uint8_t ToByte,
                                     std::string& BlocContents);
void MifareSetAccessCondition(Context& ctx, std::int32_t AccessConditionNumber, const std::string& NewValue);
sceReturnCode MifareWriteSectorTrailer(Context& ctx, std::int32_t SectorNumber, const std::string& Key,
                                       std::uint8_t KeyType, const std::string& KeyA, const std::string& KeyB,
                                       std::uint8_t KeysToUse, std::int32_t Security0, std::int32_t Security1,
                                       std::int32_t Security2, std::int32_t Conditions, const Variant& BX);
sceReturnCode MifareReadSectorTrailer(Context& ctx, std::int32_t SectorNumber, const std::string& Key,
                                      std::uint8_t KeyType, std::uint8_t& KeysUsed, std::int32_t& Security0,
                                      std::int32_t& Security1, std::int32_t& Security2, std::int32_t& Conditions,
                                      std::uint8_t& BX);

}  // namespace elatectwn4::mifare
