// The Encoder's DESFire members. Each runs its worker with the DESFire
// context of this session under the member guard.
#include <string>
#include <utility>

#include "desfire/desfire.h"
#include "desfire/files.h"
#include "desfire/transfer.h"
#include "desfire/values.h"
#include "elatectwn4/encoder.h"
#include "encoder/encoder_impl.h"

namespace elatectwn4 {

namespace {

// Runs member `name`'s worker with the session's DESFire context.
template <typename Work>
sceReturnCode RunDesfire(Encoder::Impl& impl, const char* name, Work&& work,
                         RecordRule rule = RecordRule::Clear) noexcept {
    return impl.GuardIn(&Encoder::Impl::desfireContext, name, std::forward<Work>(work), rule);
}

}  // namespace

sceReturnCode Encoder::DESFireSelectApplication(const std::string& ApplicationId, std::int32_t KeyNumber,
                                                const std::string& KeyValue) {
    return RunDesfire(
        *impl_, "DESFireSelectApplication",
        [&](desfire::Context& ctx) {
            return desfire::DESFireSelectApplication(ctx, ApplicationId, KeyNumber, KeyValue);
        },
        RecordRule::Keep);  // a selection leaves the record of the call before it
}

sceReturnCode Encoder::DESFireSelectRoot(const std::string& KeyValue) {
    return RunDesfire(
        *impl_, "DESFireSelectRoot", [&](desfire::Context& ctx) { return desfire::DESFireSelectRoot(ctx, KeyValue); },
        RecordRule::Keep);
}

sceReturnCode Encoder::DESFireFormat() {
    return RunDesfire(*impl_, "DESFireFormat", [&](desfire::Context& ctx) { return desfire::DESFireFormat(ctx); });
}

sceReturnCode Encoder::DESFireCreateApplication(const std::string& ApplicationId, DesfireKeySettings KeySettings,
                                                std::int32_t NumOfKeys) {
    return RunDesfire(*impl_, "DESFireCreateApplication", [&](desfire::Context& ctx) {
        return desfire::DESFireCreateApplication(ctx, ApplicationId, KeySettings, NumOfKeys);
    });
}

sceReturnCode Encoder::DESFireDeleteApplication(const std::string& ApplicationId) {
    return RunDesfire(*impl_, "DESFireDeleteApplication",
                      [&](desfire::Context& ctx) { return desfire::DESFireDeleteApplication(ctx, ApplicationId); });
}

sceReturnCode Encoder::DESFireGetApplications(std::string& Applications) {
    return RunDesfire(*impl_, "DESFireGetApplications",
                      [&](desfire::Context& ctx) { return desfire::DESFireGetApplications(ctx, Applications); });
}

sceReturnCode Encoder::DESFireGetVersion(DesfireVersionBytes RequestedInformation, Variant& Information) {
    return RunDesfire(*impl_, "DESFireGetVersion", [&](desfire::Context& ctx) {
        return desfire::DESFireGetVersion(ctx, RequestedInformation, Information);
    });
}

sceReturnCode Encoder::DESFireChangeKey(std::int32_t KeyNumber, const std::string& OldKey, const std::string& NewKey) {
    return RunDesfire(*impl_, "DESFireChangeKey",
                      [&](desfire::Context& ctx) { return desfire::DESFireChangeKey(ctx, KeyNumber, OldKey, NewKey); });
}

sceReturnCode Encoder::DESFireGetKeyVersion(std::int32_t KeyNumber, std::int32_t& KeyVersion) {
    return RunDesfire(*impl_, "DESFireGetKeyVersion",
                      [&](desfire::Context& ctx) { return desfire::DESFireGetKeyVersion(ctx, KeyNumber, KeyVersion); });
}

sceReturnCode Encoder::DESFireGetKeySettings(std::int32_t& KeySettings, std::int32_t& KeyCount) {
    return RunDesfire(*impl_, "DESFireGetKeySettings", [&](desfire::Context& ctx) {
        return desfire::DESFireGetKeySettings(ctx, KeySettings, KeyCount);
    });
}

sceReturnCode Encoder::DESFireChangeKeySettings(DesfireKeySettings KeySettings) {
    return RunDesfire(*impl_, "DESFireChangeKeySettings",
                      [&](desfire::Context& ctx) { return desfire::DESFireChangeKeySettings(ctx, KeySettings); });
}

// ---- Files, data, records and values -------------------------------------------

namespace {

// Runs a file member whose worker takes the four access rights as one value.
template <typename Work>
sceReturnCode RunWithRights(Encoder::Impl& impl, const char* name, DesfireAccessRights read, DesfireAccessRights write,
                            DesfireAccessRights readWrite, DesfireAccessRights change, Work&& work) noexcept {
    const desfire::AccessRights rights{read, write, readWrite, change};
    return RunDesfire(impl, name, [&](desfire::Context& ctx) { return work(ctx, rights); });
}

}  // namespace

sceReturnCode Encoder::DESFireGetFileIDs(std::string& FileIds) {
    return RunDesfire(*impl_, "DESFireGetFileIDs",
                      [&](desfire::Context& ctx) { return desfire::DESFireGetFileIDs(ctx, FileIds); });
}

sceReturnCode Encoder::DESFireCreateStdDataFile(std::int32_t FileNumber,
                                                DesfireCommunicationSettings CommunicationSettings,
                                                DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                                DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                                std::int32_t FileSize) {
    return RunWithRights(*impl_, "DESFireCreateStdDataFile", KeyRead, KeyWrite, KeyReadWrite, KeyManage,
                         [&](desfire::Context& ctx, const desfire::AccessRights& rights) {
                             return desfire::DESFireCreateStdDataFile(ctx, FileNumber, CommunicationSettings, rights,
                                                                      FileSize);
                         });
}

sceReturnCode Encoder::DESFireCreateBackupDataFile(std::int32_t FileNumber,
                                                   DesfireCommunicationSettings CommunicationSettings,
                                                   DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                                   DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                                   std::int32_t FileSize) {
    return RunWithRights(*impl_, "DESFireCreateBackupDataFile", KeyRead, KeyWrite, KeyReadWrite, KeyManage,
                         [&](desfire::Context& ctx, const desfire::AccessRights& rights) {
                             return desfire::DESFireCreateBackupDataFile(ctx, FileNumber, CommunicationSettings, rights,
                                                                         FileSize);
                         });
}

sceReturnCode Encoder::DESFireCreateValueFile(std::int32_t FileNumber,
                                              DesfireCommunicationSettings CommunicationSettings,
                                              DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                              DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                              std::int32_t LowerLimit, std::int32_t UpperLimit,
                                              std::int32_t InitialValue, bool LimitedCreditEnabled) {
    return RunWithRights(*impl_, "DESFireCreateValueFile", KeyRead, KeyWrite, KeyReadWrite, KeyManage,
                         [&](desfire::Context& ctx, const desfire::AccessRights& rights) {
                             return desfire::DESFireCreateValueFile(ctx, FileNumber, CommunicationSettings, rights,
                                                                    LowerLimit, UpperLimit, InitialValue,
                                                                    LimitedCreditEnabled);
                         });
}

sceReturnCode Encoder::DESFireCreateLinearRecordFile(std::int32_t FileNumber,
                                                     DesfireCommunicationSettings CommunicationSettings,
                                                     DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                                     DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                                     std::int32_t RecordSize, std::int32_t MaxNumOfRecords) {
    return RunWithRights(*impl_, "DESFireCreateLinearRecordFile", KeyRead, KeyWrite, KeyReadWrite, KeyManage,
                         [&](desfire::Context& ctx, const desfire::AccessRights& rights) {
                             return desfire::DESFireCreateLinearRecordFile(ctx, FileNumber, CommunicationSettings,
                                                                           rights, RecordSize, MaxNumOfRecords);
                         });
}

sceReturnCode Encoder::DESFireCreateCyclicRecordFile(std::int32_t FileNumber,
                                                     DesfireCommunicationSettings CommunicationSettings,
                                                     DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                                     DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                                     std::int32_t RecordSize, std::int32_t MaxNumOfRecords) {
    return RunWithRights(*impl_, "DESFireCreateCyclicRecordFile", KeyRead, KeyWrite, KeyReadWrite, KeyManage,
                         [&](desfire::Context& ctx, const desfire::AccessRights& rights) {
                             return desfire::DESFireCreateCyclicRecordFile(ctx, FileNumber, CommunicationSettings,
                                                                           rights, RecordSize, MaxNumOfRecords);
                         });
}

sceReturnCode Encoder::DESFireDeleteFile(std::int32_t FileNumber) {
    return RunDesfire(*impl_, "DESFireDeleteFile",
                      [&](desfire::Context& ctx) { return desfire::DESFireDeleteFile(ctx, FileNumber); });
}

sceReturnCode Encoder::DESFireGetFileSettings(std::int32_t FileNo, std::string& Information) {
    return RunDesfire(*impl_, "DESFireGetFileSettings",
                      [&](desfire::Context& ctx) { return desfire::DESFireGetFileSettings(ctx, FileNo, Information); });
}

sceReturnCode Encoder::DESFireChangeFileSettings(std::int32_t FileNo,
                                                 DesfireCommunicationSettings CommunicationSettings,
                                                 DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                                 DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage) {
    return RunWithRights(*impl_, "DESFireChangeFileSettings", KeyRead, KeyWrite, KeyReadWrite, KeyManage,
                         [&](desfire::Context& ctx, const desfire::AccessRights& rights) {
                             return desfire::DESFireChangeFileSettings(ctx, FileNo, CommunicationSettings, rights);
                         });
}

sceReturnCode Encoder::DESFireCommitTransaction() {
    return RunDesfire(*impl_, "DESFireCommitTransaction",
                      [&](desfire::Context& ctx) { return desfire::DESFireCommitTransaction(ctx); });
}

sceReturnCode Encoder::DESFireAbortTransaction() {
    return RunDesfire(*impl_, "DESFireAbortTransaction",
                      [&](desfire::Context& ctx) { return desfire::DESFireAbortTransaction(ctx); });
}

sceReturnCode Encoder::DESFireWriteData(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                        const std::string& DataString, bool IsDataHexaString) {
    return RunDesfire(*impl_, "DESFireWriteData", [&](desfire::Context& ctx) {
        return desfire::DESFireWriteData(ctx, FileNo, Offset, Length, DataString, IsDataHexaString);
    });
}

sceReturnCode Encoder::DESFireReadData(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                       std::string& DataString, bool IsDataHexaString) {
    return RunDesfire(*impl_, "DESFireReadData", [&](desfire::Context& ctx) {
        return desfire::DESFireReadData(ctx, FileNo, Offset, Length, DataString, IsDataHexaString);
    });
}

sceReturnCode Encoder::DESFireWriteRecord(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                          const std::string& DataString, bool IsDataHexaString) {
    return RunDesfire(*impl_, "DESFireWriteRecord", [&](desfire::Context& ctx) {
        return desfire::DESFireWriteRecord(ctx, FileNo, Offset, Length, DataString, IsDataHexaString);
    });
}

sceReturnCode Encoder::DESFireReadRecords(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                          std::string& DataString, bool IsDataHexaString) {
    return RunDesfire(*impl_, "DESFireReadRecords", [&](desfire::Context& ctx) {
        return desfire::DESFireReadRecords(ctx, FileNo, Offset, Length, DataString, IsDataHexaString);
    });
}

sceReturnCode Encoder::DESFireGetValue(std::int32_t FileNo, std::int32_t& ValueData) {
    return RunDesfire(*impl_, "DESFireGetValue",
                      [&](desfire::Context& ctx) { return desfire::DESFireGetValue(ctx, FileNo, ValueData); });
}

sceReturnCode Encoder::DESFireDebit(std::int32_t FileNo, std::int32_t Amount) {
    return RunDesfire(*impl_, "DESFireDebit",
                      [&](desfire::Context& ctx) { return desfire::DESFireDebit(ctx, FileNo, Amount); });
}

sceReturnCode Encoder::DESFireCredit(std::int32_t FileNo, std::int32_t Amount) {
    return RunDesfire(*impl_, "DESFireCredit",
                      [&](desfire::Context& ctx) { return desfire::DESFireCredit(ctx, FileNo, Amount); });
}

sceReturnCode Encoder::DESFireLimitedCredit(std::int32_t FileNo, std::int32_t Amount) {
    return RunDesfire(*impl_, "DESFireLimitedCredit",
                      [&](desfire::Context& ctx) { return desfire::DESFireLimitedCredit(ctx, FileNo, Amount); });
}

sceReturnCode Encoder::DESFireClearRecordFile(std::int32_t FileNo) {
    return RunDesfire(*impl_, "DESFireClearRecordFile",
                      [&](desfire::Context& ctx) { return desfire::DESFireClearRecordFile(ctx, FileNo); });
}

}  // namespace elatectwn4
