// The Encoder's MIFARE Classic members. Each runs its worker with the MIFARE
// context of this session under the member guard. The members without the
// "Mifare" prefix forward their arguments unchanged to the guarded ones.
#include <string>
#include <utility>

#include "elatectwn4/encoder.h"
#include "encoder/encoder_impl.h"
#include "mifare/mifare.h"

namespace elatectwn4 {

namespace {

// Runs member `name`'s worker with the session's MIFARE context.
template <typename Work>
auto RunMifare(Encoder::Impl& impl, const char* name, Work&& work, RecordRule rule = RecordRule::Clear) noexcept {
    return impl.GuardIn(&Encoder::Impl::mifareContext, name, std::forward<Work>(work), rule);
}

}  // namespace

sceReturnCode Encoder::MifareReadDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                          std::string& BlocContents) {
    return RunMifare(*impl_, "MifareReadDataBloc", [&](mifare::Context& ctx) {
        return mifare::MifareReadDataBloc(ctx, BlocNumber, Key, KeyType, BlocContents);
    });
}

sceReturnCode Encoder::MifareReadManufacturerCode(const std::string& Key, std::uint8_t KeyType,
                                                  std::int32_t& SerialNumber, std::uint8_t& CheckSum,
                                                  std::string& ManufacturerInfo) {
    return RunMifare(*impl_, "MifareReadManufacturerCode", [&](mifare::Context& ctx) {
        return mifare::MifareReadManufacturerCode(ctx, Key, KeyType, SerialNumber, CheckSum, ManufacturerInfo);
    });
}

sceReturnCode Encoder::MifareWriteDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                           std::string& BlocContents) {
    return RunMifare(*impl_, "MifareWriteDataBloc", [&](mifare::Context& ctx) {
        return mifare::MifareWriteDataBloc(ctx, BlocNumber, Key, KeyType, BlocContents);
    });
}

sceReturnCode Encoder::MifareWriteValueBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                            std::int32_t Value) {
    return RunMifare(*impl_, "MifareWriteValueBloc", [&](mifare::Context& ctx) {
        return mifare::MifareWriteValueBloc(ctx, BlocNumber, Key, KeyType, Value);
    });
}

sceReturnCode Encoder::MifareWriteBytesInBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                              std::uint8_t FromByte, std::uint8_t ToByte, std::string& BlocContents) {
    return RunMifare(*impl_, "MifareWriteBytesInBloc", [&](mifare::Context& ctx) {
        return mifare::MifareWriteBytesInBloc(ctx, BlocNumber, Key, KeyType, FromByte, ToByte, BlocContents);
    });
}

void Encoder::MifareSetAccessCondition(std::int32_t AccessConditionNumber, const std::string& NewValue) {
    // Never fails and reports nothing: a rejected value is simply ignored.
    RunMifare(
        *impl_, "MifareSetAccessCondition",
        [&](mifare::Context& ctx) { mifare::MifareSetAccessCondition(ctx, AccessConditionNumber, NewValue); },
        RecordRule::Untouched);
}

sceReturnCode Encoder::MifareWriteSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                                const std::string& KeyA, const std::string& KeyB,
                                                std::uint8_t KeysToUse, std::int32_t Security0, std::int32_t Security1,
                                                std::int32_t Security2, std::int32_t Conditions, const Variant& BX) {
    return RunMifare(*impl_, "MifareWriteSectorTrailer", [&](mifare::Context& ctx) {
        return mifare::MifareWriteSectorTrailer(ctx, SectorNumber, Key, KeyType, KeyA, KeyB, KeysToUse, Security0,
                                                Security1, Security2, Conditions, BX);
    });
}

sceReturnCode Encoder::MifareReadSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                               std::uint8_t& KeysUsed, std::int32_t& Security0, std::int32_t& Security1,
                                               std::int32_t& Security2, std::int32_t& Conditions, std::uint8_t& BX) {
    return RunMifare(*impl_, "MifareReadSectorTrailer", [&](mifare::Context& ctx) {
        return mifare::MifareReadSectorTrailer(ctx, SectorNumber, Key, KeyType, KeysUsed, Security0, Security1,
                                               Security2, Conditions, BX);
    });
}

sceReturnCode Encoder::ReadDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                    std::string& BlocContents) {
    return MifareReadDataBloc(BlocNumber, Key, KeyType, BlocContents);
}

sceReturnCode Encoder::ReadManufacturerCode(const std::string& Key, std::uint8_t KeyType, std::int32_t& SerialNumber,
                                            std::uint8_t& CheckSum, std::string& ManufacturerInfo) {
    return MifareReadManufacturerCode(Key, KeyType, SerialNumber, CheckSum, ManufacturerInfo);
}

sceReturnCode Encoder::WriteDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                     std::string& BlocContents) {
    return MifareWriteDataBloc(BlocNumber, Key, KeyType, BlocContents);
}

sceReturnCode Encoder::WriteValueBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                      std::int32_t Value) {
    return MifareWriteValueBloc(BlocNumber, Key, KeyType, Value);
}

sceReturnCode Encoder::WriteBytesInBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                        std::uint8_t FromByte, std::uint8_t ToByte, std::string& BlocContents) {
    return MifareWriteBytesInBloc(BlocNumber, Key, KeyType, FromByte, ToByte, BlocContents);
}

sceReturnCode Encoder::WriteSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                          const std::string& KeyA, const std::string& KeyB, std::uint8_t KeysToUse,
                                          std::int32_t Security0, std::int32_t Security1, std::int32_t Security2,
                                          std::int32_t Conditions, const Variant& BX) {
    // An absent BX must stay absent: the worker then keeps the card's own byte.
    if (IsEmpty(BX)) {
        return MifareWriteSectorTrailer(SectorNumber, Key, KeyType, KeyA, KeyB, KeysToUse, Security0, Security1,
                                        Security2, Conditions);
    }
    return MifareWriteSectorTrailer(SectorNumber, Key, KeyType, KeyA, KeyB, KeysToUse, Security0, Security1, Security2,
                                    Conditions, BX);
}

sceReturnCode Encoder::ReadSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                         std::uint8_t& KeysUsed, std::int32_t& Security0, std::int32_t& Security1,
                                         std::int32_t& Security2, std::int32_t& Conditions, std::uint8_t& BX) {
    return MifareReadSectorTrailer(SectorNumber, Key, KeyType, KeysUsed, Security0, Security1, Security2, Conditions,
                                   BX);
}

}  // namespace elatectwn4
