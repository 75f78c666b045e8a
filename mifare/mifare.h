// MIFARE Classic through the reader's storage-card commands: key loading and
// authentication, data, value and manufacturer blocks, partial writes, sector
// trailers and access conditions.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "command/channel.h"
#include "elatectwn4/error.h"
#include "elatectwn4/types.h"
#include "elatectwn4/variant.h"

namespace elatectwn4::mifare {

/// The nine host overrides of the built-in data-block access conditions
/// (index 0 = entry 1); an empty text leaves the built-in one in force.
using AccessConditionTable = std::array<std::string, 9>;

/// What the MIFARE members need from the Encoder they run in.
struct Context {
    command::Channel& channel;
    CError& error;  ///< the Encoder's record
    AccessConditionTable& accessConditions;
    std::function<sceReturnCode()> selectCardInRange;  ///< the session's card check; empty = none
    /// Conformance=card: the sector trailers of the 16-block sectors (32 and
    /// on, 4K cards) where the card keeps them. Otherwise every sector is
    /// taken to have four blocks.
    bool cardConformance = false;
};

// Every member below reports through ctx.error and returns sceSuccess or
// sceError; the names of the arguments are those the host knows. A member
// that fails in a card exchange keeps what the command layer recorded (the
// command, the status word) and names itself in ComFunction; the key-loading
// step names itself "MifareAuthenticate:LoadKey", the authentication
// "MifareAuthenticate".

/// Loads `key` (sent as given, unchecked) into reader slot `keySlot`, then
/// authenticates `blocNumber` with key A (keyType != 2) or key B (keyType == 2).
/// The key is loaded again every time; nothing is cached.
sceReturnCode MifareAuthenticate(Context& ctx, std::uint8_t keyType, std::int32_t blocNumber, const std::string& key,
                                 std::int32_t keySlot);

/// Reads one block into BlocContents as 32 hex digits ("" on failure).
///   ctx.error names "MifareReadDataBloc" or the authentication step.
///   Example: MifareReadDataBloc(ctx, 4, "FFFFFFFFFFFF", 0, contents).
sceReturnCode MifareReadDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                 std::string& BlocContents);
/// Reads block 0: SerialNumber = bytes 0-3 as a signed 32-bit number (a
/// first byte from 80h on gives a negative serial), CheckSum = byte 4,
/// ManufacturerInfo = bytes 5-15 as 22 hex digits. SerialNumber and CheckSum
/// are 0 after a failure.
sceReturnCode MifareReadManufacturerCode(Context& ctx, const std::string& Key, std::uint8_t KeyType,
                                         std::int32_t& SerialNumber, std::uint8_t& CheckSum,
                                         std::string& ManufacturerInfo);
/// Writes 32 hex digits (blanks allowed, either case) to one block; other
/// text fails with 0x90010B42 before anything is sent. BlocContents comes
/// back normalised (upper case, no blanks).
sceReturnCode MifareWriteDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                  std::string& BlocContents);
/// Writes `Value` as a value block (value, inverse, value, FF 00 FF 00). A
/// negative Value is a run-time overflow (number 6, "Overflow"): nothing is sent.
sceReturnCode MifareWriteValueBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                   std::int32_t Value);
/// Reads the block, replaces bytes FromByte..ToByte (0..15) with BlocContents
/// (cut or padded with "0" to fit; the caller gets the adjusted text back)
/// and writes it. 0x90010B40 when the read gave no block, 0x90010B04 for
/// offsets out of order or range (checked after the read), 0x90010B41 when
/// the write failed without a number of its own.
sceReturnCode MifareWriteBytesInBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key,
                                     std::uint8_t KeyType, std::uint8_t FromByte, std::uint8_t ToByte,
                                     std::string& BlocContents);
/// Sets override 1..9 of the data-block conditions to "000".."111"; anything
/// else is ignored silently. An override can be changed but not emptied.
void MifareSetAccessCondition(Context& ctx, std::int32_t AccessConditionNumber, const std::string& NewValue);
/// Writes the trailer of SectorNumber with KeyA, KeyB, the access bits
/// encoded from the security values (-1 keeps a block's current bits) and BX
/// (empty = keep the card's). KeysToUse: 1 = key A only, 0 = the card's
/// current scheme, other = key B too. Checks, in order: keys (0x90010B30),
/// security ranges -1..15 (0x90010B32), BX (0x90010B05); then reads the
/// trailer, refuses one whose access bits disagree with their inverted copies
/// (0x90010F04), encodes (0x90010B32 for a combination without a condition)
/// and writes once.
/// The trailer is block 4 * SectorNumber + 3: every sector is taken to have
/// four blocks. With Conformance=card, from sector 32 on it is the last of
/// the sector's 16 blocks, 128 + 16 * (SectorNumber - 32) + 15, and
/// Security0..2 each govern a group of five data blocks (0-4, 5-9, 10-14),
/// as a 4K card has it.
sceReturnCode MifareWriteSectorTrailer(Context& ctx, std::int32_t SectorNumber, const std::string& Key,
                                       std::uint8_t KeyType, const std::string& KeyA, const std::string& KeyB,
                                       std::uint8_t KeysToUse, std::int32_t Security0, std::int32_t Security1,
                                       std::int32_t Security2, std::int32_t Conditions, const Variant& BX);
/// Reads the trailer of SectorNumber (the block MifareWriteSectorTrailer
/// writes) and reports its access bits coarsely: Security0..2 per data block
/// (or group of blocks), KeysUsed (1 = key A only, 2 = key B too) and
/// Conditions for the trailer, BX = byte 9. Access bits that disagree with
/// their inverted copies are no trailer: 0x90010F04. The four security
/// outputs are 0 after a failure.
sceReturnCode MifareReadSectorTrailer(Context& ctx, std::int32_t SectorNumber, const std::string& Key,
                                      std::uint8_t KeyType, std::uint8_t& KeysUsed, std::int32_t& Security0,
                                      std::int32_t& Security1, std::int32_t& Security2, std::int32_t& Conditions,
                                      std::uint8_t& BX);

}  // namespace elatectwn4::mifare
