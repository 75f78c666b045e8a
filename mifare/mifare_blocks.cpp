// Key loading, authentication and the block members.
#include <algorithm>
#include <string>

#include "cipher/bytes.h"
#include "command/encoder_command.h"
#include "command/error_record.h"
#include "mifare/block.h"
#include "mifare/mifare.h"
#include "mifare/record.h"
#include "mifare/steps.h"

namespace elatectwn4::mifare {

namespace {

using command::cmd::GeneralAuthenticate;
using command::cmd::LoadKey;
using command::cmd::ReadBinary;
using command::cmd::WriteBinary;

// Bytes 0-3 of block 0, read as a signed 32-bit number: a first byte from
// 80h on gives a negative serial.
std::int32_t SerialOf(const cipher::SecretBuffer& block) noexcept {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = value << 8 | block[i];
    return static_cast<std::int32_t>(value);
}

}  // namespace

sceReturnCode MifareAuthenticate(Context& ctx, std::uint8_t keyType, std::int32_t blocNumber, const std::string& key,
                                 std::int32_t keySlot) {
    // The command table hides LoadKey's key from the trace.
    const command::Outcome loaded =
        command::EncoderCommand(ctx.channel, LoadKey, {keyType, keySlot, std::string_view(key)});
    if (!loaded.ok()) {
        command::RecordFailure(Record(ctx), loaded, "MifareAuthenticate:LoadKey");
        return sceError;
    }
    const command::Outcome authenticated =
        command::EncoderCommand(ctx.channel, GeneralAuthenticate, {blocNumber, keyType, keySlot});
    if (!authenticated.ok()) {
        command::RecordFailure(Record(ctx), authenticated, "MifareAuthenticate");
        return sceError;
    }
    return sceSuccess;
}

std::optional<cipher::SecretBuffer> ReadBlock(Context& ctx, std::int32_t block, const std::string& key,
                                              std::uint8_t keyType, bool holdsKeys, const std::string& comFunction) {
    if (MifareAuthenticate(ctx, keyType, block, key, ReaderKeySlot) != sceSuccess) return std::nullopt;
    command::Outcome read = command::EncoderCommand(ctx.channel, ReadBinary, {block}, {.secretAnswer = holdsKeys});
    if (!read.ok()) {
        command::RecordFailure(Record(ctx), read, comFunction);
        return std::nullopt;
    }
    if (!command::CheckDataLength(Record(ctx), read, {BlockSize}, comFunction)) return std::nullopt;
    return std::move(read.data);
}

sceReturnCode WriteBlock(Context& ctx, std::int32_t block, const std::string& key, std::uint8_t keyType,
                         const Block& data, bool holdsKeys, const std::string& comFunction) {
    if (MifareAuthenticate(ctx, keyType, block, key, ReaderKeySlot) != sceSuccess) return sceError;
    const command::Outcome written = command::EncoderCommand(ctx.channel, WriteBinary, {block, cipher::ByteView(data)},
                                                             {.secretFrom = holdsKeys ? "[DATA]" : std::string_view{}});
    if (!written.ok()) {
        command::RecordFailure(Record(ctx), written, comFunction);
        return sceError;
    }
    return sceSuccess;
}

sceReturnCode MifareReadDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                 std::string& BlocContents) {
    static const std::string kName = "MifareReadDataBloc";
    command::ClearError(Record(ctx), kName);
    BlocContents.clear();
    const auto data = ReadBlock(ctx, BlocNumber, Key, KeyType, IsSectorTrailer(BlocNumber), kName);
    if (!data) return sceError;
    BlocContents = cipher::ToHex(data->view());
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

sceReturnCode MifareWriteDataBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                  std::string& BlocContents) {
    static const std::string kName = "MifareWriteDataBloc";
    command::ClearError(Record(ctx), kName);
    Block block;
    if (!cipher::DecodeHexExactly(BlocContents, block)) {
        command::Fail(Record(ctx), ErrorNumber::BlockMustBe32Hex, kName);
        return sceError;
    }
    // The argument is passed by reference: the caller gets the normalised text back.
    BlocContents = cipher::ToHex(block);
    return WriteBlock(ctx, BlocNumber, Key, KeyType, block, IsSectorTrailer(BlocNumber), kName);
}

sceReturnCode MifareReadManufacturerCode(Context& ctx, const std::string& Key, std::uint8_t KeyType,
                                         std::int32_t& SerialNumber, std::uint8_t& CheckSum,
                                         std::string& ManufacturerInfo) {
    static const std::string kName = "MifareReadManufacturerCode";
    constexpr std::int32_t kManufacturerBlock = 0;
    constexpr std::size_t kCheckByte = 4;
    SerialNumber = 0;
    CheckSum = 0;
    command::ClearError(Record(ctx), kName);

    const auto data = ReadBlock(ctx, kManufacturerBlock, Key, KeyType, false, kName);
    if (!data) {
        NameFailure(ctx, kName);
        return sceError;
    }
    SerialNumber = SerialOf(*data);
    CheckSum = (*data)[kCheckByte];
    ManufacturerInfo = cipher::ToHex(data->view().subspan(kCheckByte + 1));
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

sceReturnCode MifareWriteValueBloc(Context& ctx, std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                   std::int32_t Value) {
    static const std::string kName = "MifareWriteValueBloc";
    command::ClearError(Record(ctx), kName);
    Block block;
    try {
        block = ValueBlock(Value);
    } catch (...) {
        command::RecordRuntimeError(Record(ctx), kName);
        return sceError;
    }
    if (WriteBlock(ctx, BlocNumber, Key, KeyType, block, IsSectorTrailer(BlocNumber), kName) != sceSuccess) {
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
    const bool holdsKeys = IsSectorTrailer(BlocNumber);
    const auto old = ReadBlock(ctx, BlocNumber, Key, KeyType, holdsKeys, kName);
    if (!old) {
        FailUnlessNumbered(ctx, ErrorNumber::ReadError, kName);
        return sceError;
    }
    if (FromByte >= BlockSize || ToByte >= BlockSize || ToByte < FromByte) {
        command::Fail(Record(ctx), ErrorNumber::IncorrectOffsets, kName);
        return sceError;
    }

    // The new bytes are the given text cut or padded with "0" to fit; the
    // caller sees that text. Only hex digits make a block of it: a blank or
    // any other character leaves the written text short of 32 digits.
    const std::size_t count = ToByte - FromByte + 1u;
    BlocContents = (BlocContents + std::string(2 * BlockSize, '0')).substr(0, 2 * count);
    Block block(std::span<const std::uint8_t, BlockSize>(old->data(), BlockSize));
    constexpr cipher::HexSyntax kDigitsOnly{[](char) { return false; }};
    const std::span<std::uint8_t> spliced(block.data() + FromByte, count);
    if (cipher::CountHexDigits(BlocContents, kDigitsOnly) != 2 * count ||
        !cipher::DecodeHex(BlocContents, spliced, kDigitsOnly)) {
        command::Fail(Record(ctx), ErrorNumber::BlockMustBe32Hex, kName);
        return sceError;
    }
    if (WriteBlock(ctx, BlocNumber, Key, KeyType, block, holdsKeys, kName) != sceSuccess) {
        FailUnlessNumbered(ctx, ErrorNumber::WriteError, kName);
        return sceError;
    }
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

}  // namespace elatectwn4::mifare
