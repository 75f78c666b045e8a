// Key loading, authentication and the block members.
#include <algorithm>
#include <string>
#include <variant>

#include "cipher/wipe.h"
#include "command/encoder_command.h"
#include "command/error_record.h"
#include "command/hex.h"
#include "mifare/block.h"
#include "mifare/mifare.h"
#include "mifare/record.h"

namespace elatectwn4::mifare {

namespace {

using command::cmd::GeneralAuthenticate;
using command::cmd::LoadKey;
using command::cmd::ReadBinary;
using command::cmd::WriteBinary;

// Val("&h" + up to 8 leading digits) of the host platform: up to four digits
// read as a 16-bit Integer, more as a 32-bit Long, both two's complement;
// reading stops at the first character that is not a hex digit.
std::int32_t LeadingHexValue(std::string_view digits) noexcept {
    std::uint32_t value = 0;
    std::size_t count = 0;
    for (char c : digits.substr(0, 8)) {
        std::uint32_t digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<std::uint32_t>(c - '0');
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<std::uint32_t>(c - 'A' + 10);
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<std::uint32_t>(c - 'a' + 10);
        } else {
            break;
        }
        value = (value << 4) | digit;
        ++count;
    }
    if (count <= 4) return static_cast<std::int16_t>(static_cast<std::uint16_t>(value));
    return static_cast<std::int32_t>(value);
}

}  // namespace

sceReturnCode MifareAuthenticate(Context& ctx, std::uint8_t keyType, std::int32_t blocNumber, const std::string& key,
                                 std::int32_t keySlot) {
    std::string response;
    std::string sw1sw2;
    command::Params loadKey{std::int64_t{keyType}, std::int64_t{keySlot}, key};
    const sceReturnCode loaded = command::EncoderCommand(ctx.channel, LoadKey, loadKey, response, sw1sw2, false);
    cipher::SecureWipe(std::get<std::string>(loadKey[2]));
    if (loaded != sceSuccess) {
        NameFailure(ctx, "MifareAuthenticate:LoadKey");
        return sceError;
    }
    const command::Params authenticate{std::int64_t{blocNumber}, std::int64_t{keyType}, std::int64_t{keySlot}};
    if (command::EncoderCommand(ctx.channel, GeneralAuthenticate, authenticate, response, sw1sw2, false) !=
        sceSuccess) {
        NameFailure(ctx, "MifareAuthenticate");
        return sceError;
    }
    return sceSuccess;
}

sceReturnCode MifareReadDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                 std::string& BlocContents) {
    static const std::string kName = "MifareReadDataBloc";
    command::ClearError(Record(ctx), kName);
    BlocContents.clear();
    if (MifareAuthenticate(ctx, KeyType, BlocNumber, Key, ReaderKeySlot) != sceSuccess) return sceError;

    std::string response;
    std::string sw1sw2;
    if (command::EncoderCommand(ctx.channel, ReadBinary, {std::int64_t{BlocNumber}}, response, sw1sw2, false) !=
        sceSuccess) {
        NameFailure(ctx, kName);
        return sceError;
    }
    BlocContents = command::BytesToHex(response);
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

sceReturnCode MifareWriteDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                  std::string& BlocContents) {
    static const std::string kName = "MifareWriteDataBloc";
    command::ClearError(Record(ctx), kName);
    auto block = ParseHexBytes<BlockSize>(BlocContents);
    if (!block) {
        command::Fail(Record(ctx), ErrorNumber::BlockMustBe32Hex, kName);
        return sceError;
    }
    // The argument is passed by reference: the caller gets the normalised text back.
    BlocContents = ToHex(*block);
    if (MifareAuthenticate(ctx, KeyType, BlocNumber, Key, ReaderKeySlot) != sceSuccess) return sceError;

    std::string response;
    std::string sw1sw2;
    const command::Params write{std::int64_t{BlocNumber}, ToHex(*block)};
    if (command::EncoderCommand(ctx.channel, WriteBinary, write, response, sw1sw2, false) != sceSuccess) {
        NameFailure(ctx, kName);
        return sceError;
    }
    return sceSuccess;
}

sceReturnCode MifareReadManufacturerCode(Context& ctx, const std::string& Key, std::uint8_t KeyType,
                                         std::int32_t& SerialNumber, std::uint8_t& CheckSum,
                                         std::string& ManufacturerInfo) {
    static const std::string kName = "MifareReadManufacturerCode";
    constexpr std::int32_t kManufacturerBlock = 0;
    SerialNumber = 0;
    CheckSum = 0;
    command::ClearError(Record(ctx), kName);

    std::string block;
    if (MifareReadDataBloc(ctx, kManufacturerBlock, Key, KeyType, block) != sceSuccess) {
        NameFailure(ctx, kName);
        return sceError;
    }
    const std::string_view digits = block;
    SerialNumber = LeadingHexValue(digits.substr(0, 8));
    CheckSum = static_cast<std::uint8_t>(LeadingHexValue(digits.substr(std::min<std::size_t>(8, digits.size()), 2)));
    ManufacturerInfo = block.size() > 10 ? block.substr(10) : std::string{};
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

sceReturnCode MifareWriteValueBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                   std::int32_t Value) {
    static const std::string kName = "MifareWriteValueBloc";
    command::ClearError(Record(ctx), kName);
    Block block{};
    try {
        block = ValueBlock(Value);
    } catch (...) {
        command::RecordRuntimeError(Record(ctx), kName);
        return sceError;
    }
    std::string text = ToHex(block);
    if (MifareWriteDataBloc(ctx, BlocNumber, Key, KeyType, text) != sceSuccess) {
        NameFailure(ctx, kName);
        return sceError;
    }
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

sceReturnCode MifareWriteBytesInBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key,
                                     std::uint8_t KeyType, std::uint8_t FromByte, std::uint8_t ToByte,
                                     std::string& BlocContents) {
    static const std::string kName = "MifareWriteBytesInBloc";
    command::ClearError(Record(ctx), kName);

    // The block is read before the offsets are looked at: a bad offset is
    // reported only once the sector has been opened.
    std::string old;
    if (MifareReadDataBloc(ctx, BlocNumber, Key, KeyType, old) != sceSuccess || old.size() != BlockHexDigits) {
        FailUnlessNumbered(ctx, ErrorNumber::ReadError, kName);
        return sceError;
    }
    if (FromByte >= BlockSize || ToByte >= BlockSize || ToByte < FromByte) {
        command::Fail(Record(ctx), ErrorNumber::IncorrectOffsets, kName);
        return sceError;
    }

    const std::size_t from = FromByte;
    const std::size_t to = ToByte;
    const std::size_t digits = 2 * (to - from + 1);
    BlocContents = (BlocContents + std::string(BlockHexDigits, '0')).substr(0, digits);

    std::string spliced = old.substr(0, 2 * from) + BlocContents;
    if (to + 1 < BlockSize) spliced += old.substr(2 * to + 2);
    if (MifareWriteDataBloc(ctx, BlocNumber, Key, KeyType, spliced) != sceSuccess) {
        FailUnlessNumbered(ctx, ErrorNumber::WriteError, kName);
        return sceError;
    }
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

}  // namespace elatectwn4::mifare
