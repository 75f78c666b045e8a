// Sector trailers: the host's security wishes written as access bits, and
// the trailer read back into the same coarse terms.
#include <array>
#include <optional>
#include <string>

#include "cipher/bytes.h"
#include "command/encoder_command.h"
#include "command/error_record.h"
#include "command/outcome.h"
#include "mifare/access_bits.h"
#include "mifare/block.h"
#include "mifare/mifare.h"
#include "mifare/record.h"
#include "mifare/steps.h"
#include "mifare/variant_byte.h"

namespace elatectwn4::mifare {

namespace {

constexpr std::size_t kAccessByteIndex = 6;  // bytes 6, 7, 8 of the trailer
constexpr std::size_t kBxByteIndex = 9;
constexpr std::uint8_t kTrailerMask = MaskOfBlock(3);

// Security values the host may pass; -1 keeps the block's current condition.
constexpr std::int32_t kKeepCondition = -1;
constexpr std::int32_t kHighestSecurity = 15;

bool IsSecurityInRange(std::int32_t value) noexcept {
    return value >= kKeepCondition && value <= kHighestSecurity;
}

// The first sector of 16 blocks on a 4K card, and its first block.
constexpr std::int64_t kFirstLargeSector = 32;
constexpr std::int64_t kFirstLargeSectorBlock = 128;
constexpr std::int64_t kLargeSectorBlocks = 16;

// The trailer as the 4K card keeps it in the sectors of 16 blocks.
std::int32_t LargeSectorTrailer(std::int32_t sector) {
    return CheckedLong(kFirstLargeSectorBlock + kLargeSectorBlocks * (sector - kFirstLargeSector) + kLargeSectorBlocks -
                       1);
}

bool InLargeSector(const Context& ctx, std::int32_t sector) noexcept {
    return ctx.cardConformance && sector >= kFirstLargeSector;
}

// The access bytes of a trailer the card gave, once they agree with their
// inverted copies; a trailer that fails is recorded under `comFunction`.
std::optional<AccessBytes> CheckedAccessBytes(Context& ctx, const cipher::SecretBuffer& trailer,
                                              const std::string& comFunction) {
    const AccessBytes access{trailer[kAccessByteIndex], trailer[kAccessByteIndex + 1], trailer[kAccessByteIndex + 2]};
    if (!AccessBytesConsistent(access)) {
        command::RecordMalformedAnswer(Record(ctx), command::CommandName(command::cmd::ReadBinary),
                                       "Access bits differ from their inverted copy", comFunction);
        return std::nullopt;
    }
    return access;
}

}  // namespace

void MifareSetAccessCondition(Context& ctx, std::int32_t AccessConditionNumber, const std::string& NewValue) {
    if (!IsAccessConditionText(NewValue)) return;
    if (AccessConditionNumber < 1 || AccessConditionNumber > static_cast<std::int32_t>(ctx.accessConditions.size())) {
        return;
    }
    ctx.accessConditions[static_cast<std::size_t>(AccessConditionNumber - 1)] = NewValue;
}

sceReturnCode MifareWriteSectorTrailer(Context& ctx, std::int32_t SectorNumber, const std::string& Key,
                                       std::uint8_t KeyType, const std::string& KeyA, const std::string& KeyB,
                                       std::uint8_t KeysToUse, std::int32_t Security0, std::int32_t Security1,
                                       std::int32_t Security2, std::int32_t Conditions, const Variant& BX) {
    static const std::string kName = "MifareWriteSectorTrailer";
    command::ClearError(Record(ctx), kName);

    SectorTrailer trailer;
    if (!cipher::DecodeHexExactly(KeyA, trailer.keyA) || !cipher::DecodeHexExactly(KeyB, trailer.keyB)) {
        command::Fail(Record(ctx), ErrorNumber::KeyMustBe12Hex, kName);
        return sceError;
    }

    for (const std::int32_t security : {Security0, Security1, Security2, Conditions}) {
        if (!IsSecurityInRange(security)) {
            command::Fail(Record(ctx), ErrorNumber::InvalidSecurityInformation, kName);
            return sceError;
        }
    }

    std::optional<std::uint8_t> givenBx;
    if (!IsEmpty(BX)) {
        givenBx = VariantToByte(BX);
        if (!givenBx) {
            command::Fail(Record(ctx), ErrorNumber::IncorrectBX, kName);
            return sceError;
        }
    }

    std::int32_t trailerBlock = 0;
    try {
        if (InLargeSector(ctx, SectorNumber)) {
            trailerBlock = LargeSectorTrailer(SectorNumber);
        } else {
            const std::int32_t firstBlock = CheckedLong(std::int64_t{4} * SectorNumber);
            trailerBlock = CheckedLong(std::int64_t{firstBlock} + 3);
        }
    } catch (...) {
        command::RecordRuntimeError(Record(ctx), kName);
        return sceError;
    }

    // The current trailer gives the access bits of the blocks the host keeps
    // (-1), the key scheme when KeysToUse is 0, and BX when none is given.
    // Whatever the block's place in the sector, it is read and written here
    // as a trailer: it takes keys.
    const auto current = ReadBlock(ctx, trailerBlock, Key, KeyType, true, kName);
    if (!current) {
        NameFailure(ctx, kName);
        return sceError;
    }
    const std::optional<AccessBytes> currentAccess = CheckedAccessBytes(ctx, *current, kName);
    if (!currentAccess) return sceError;
    std::uint8_t keysUsed = 0;
    std::int32_t unused0 = 0;
    std::int32_t unused1 = 0;
    std::int32_t unused2 = 0;
    std::int32_t unusedConditions = 0;
    std::uint8_t currentBx = 0;
    if (MifareReadSectorTrailer(ctx, SectorNumber, Key, KeyType, keysUsed, unused0, unused1, unused2, unusedConditions,
                                currentBx) != sceSuccess) {
        return sceError;
    }
    const std::uint8_t keyScheme = KeysToUse == 0 ? keysUsed : KeysToUse;

    trailer.access = *currentAccess;
    const std::array<sceReturnCode, 4> encoded{
        EncodeDataBlockCondition(ctx.accessConditions, Security0, keyScheme, MaskOfBlock(0), trailer.access),
        EncodeDataBlockCondition(ctx.accessConditions, Security1, keyScheme, MaskOfBlock(1), trailer.access),
        EncodeDataBlockCondition(ctx.accessConditions, Security2, keyScheme, MaskOfBlock(2), trailer.access),
        EncodeTrailerCondition(Conditions, keyScheme, kTrailerMask, trailer.access),
    };
    for (const sceReturnCode result : encoded) {
        if (result != sceSuccess) {
            command::Fail(Record(ctx), ErrorNumber::InvalidSecurityInformation, kName);
            return sceError;
        }
    }
    trailer.bx = givenBx.value_or(currentBx);

    if (WriteBlock(ctx, trailerBlock, Key, KeyType, trailer.ToBlock(), true, kName) != sceSuccess) {
        NameFailure(ctx, kName);
        return sceError;
    }
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

sceReturnCode MifareReadSectorTrailer(Context& ctx, std::int32_t SectorNumber, const std::string& Key,
                                      std::uint8_t KeyType, std::uint8_t& KeysUsed, std::int32_t& Security0,
                                      std::int32_t& Security1, std::int32_t& Security2, std::int32_t& Conditions,
                                      std::uint8_t& BX) {
    static const std::string kName = "MifareReadSectorTrailer";
    Security0 = 0;
    Security1 = 0;
    Security2 = 0;
    Conditions = 0;
    command::ClearError(Record(ctx), kName);

    std::int32_t trailerBlock = 0;
    try {
        if (InLargeSector(ctx, SectorNumber)) {
            trailerBlock = LargeSectorTrailer(SectorNumber);
        } else {
            // The same block as on a write, but counted from the next sector:
            // it overflows the 32-bit range one sector earlier.
            const std::int32_t nextSector = CheckedLong(std::int64_t{SectorNumber} + 1);
            const std::int32_t nextFirstBlock = CheckedLong(std::int64_t{nextSector} * 4);
            trailerBlock = CheckedLong(std::int64_t{nextFirstBlock} - 1);
        }
    } catch (...) {
        command::RecordRuntimeError(Record(ctx), kName);
        return sceError;
    }

    if (ctx.selectCardInRange && ctx.selectCardInRange() != sceSuccess) {
        NameFailure(ctx, kName);
        return sceError;
    }
    if (MifareAuthenticate(ctx, KeyType, trailerBlock, Key, ReaderKeySlot) != sceSuccess) {
        NameFailure(ctx, kName);
        return sceError;
    }
    const auto trailer = ReadBlock(ctx, trailerBlock, Key, KeyType, true, kName);
    if (!trailer) {
        NameFailure(ctx, kName);
        return sceError;
    }

    const std::optional<AccessBytes> checked = CheckedAccessBytes(ctx, *trailer, kName);
    if (!checked) return sceError;
    const AccessBytes& access = *checked;
    BX = (*trailer)[kBxByteIndex];
    Security0 = DataBlockSecurityOf(ConditionOfBlock(access, 0));
    Security1 = DataBlockSecurityOf(ConditionOfBlock(access, 1));
    Security2 = DataBlockSecurityOf(ConditionOfBlock(access, 2));
    const TrailerSecurity own = TrailerSecurityOf(ConditionOfBlock(access, 3));
    KeysUsed = own.keysUsed;
    Conditions = own.conditions;
    command::ClearError(Record(ctx), kName);
    return sceSuccess;
}

}  // namespace elatectwn4::mifare
