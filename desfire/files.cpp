// File management of the selected application.
#include "desfire/files.h"

#include <algorithm>

#include "cipher/bytes.h"
#include "desfire/operation.h"
#include "desfire/secure_messaging.h"

namespace elatectwn4::desfire {

namespace {

namespace cmd = command::cmd;

constexpr std::int32_t kHighestRight = 15;
constexpr std::size_t kRightsOffset = 2;
constexpr std::uint8_t kHighestFileId = 31;

bool IsCreatableCommunication(std::int32_t settings) noexcept {
    return settings == dfcPlain || settings == dfcPlainMac || settings == dfcCiphered;
}

bool IsField24(std::int32_t value, std::int32_t lowest) noexcept {
    return value >= lowest && value <= kMaxField24;
}

// The settings record of each file type: type, communication settings,
// rights (2), then size (3) for data files; lower and upper limit, limited
// credit value (4 each) and its flag for value files; record size, maximum
// and current number of records (3 each) for record files.
bool IsSettingsRecord(cipher::ByteView record) noexcept {
    if (record.empty()) return false;
    switch (record[0]) {
        case dftData:
        case dftBackup:
            return record.size() == 7;
        case dftValue:
            return record.size() == 17;
        case dftLinear:
        case dftCyclic:
            return record.size() == 13;
        default:
            return record.size() >= 4;
    }
}

// What every creation checks first, in this order; the refusal, if any.
std::optional<ErrorNumber> CreationRefusal(const Session& session, std::int32_t fileNumber, std::int32_t highestFile,
                                           std::int32_t communication, const AccessRights& rights) {
    if (!session.Authenticated()) return ErrorNumber::NotAuthenticated;
    if (!IsFileNumber(fileNumber, highestFile)) return ErrorNumber::InvalidFileNumber;
    if (!IsCreatableCommunication(communication)) return ErrorNumber::InvalidCommunicationSettings;
    if (!rights.Valid()) return ErrorNumber::BadKeyNumber;
    return std::nullopt;
}

sceReturnCode RunOnce(Context& ctx, const std::string& name, std::uint32_t code, const command::Params& params) {
    return Run(ctx, name, code, params) ? sceSuccess : sceError;
}

sceReturnCode CreateDataFile(Context& ctx, const std::string& name, std::uint32_t code, std::int32_t fileNumber,
                             std::int32_t communication, const AccessRights& rights, std::int32_t size) {
    command::ClearError(Record(ctx), name);
    if (auto refusal = CreationRefusal(ctx.session, fileNumber, kHighestFile, communication, rights)) {
        return Refuse(ctx, *refusal, name);
    }
    if (!IsField24(size, 1)) return Refuse(ctx, ErrorNumber::InvalidFileSize, name);
    return RunOnce(ctx, name, code,
                   {ByteField(fileNumber), ByteField(communication), rights.Field(), LittleEndianField(size, 3)});
}

sceReturnCode CreateRecordFile(Context& ctx, const std::string& name, std::uint32_t code, std::int32_t fileNumber,
                               std::int32_t communication, const AccessRights& rights, std::int32_t recordSize,
                               std::int32_t records) {
    command::ClearError(Record(ctx), name);
    if (auto refusal = CreationRefusal(ctx.session, fileNumber, kHighestValueOrRecordFile, communication, rights)) {
        return Refuse(ctx, *refusal, name);
    }
    if (!IsField24(recordSize, 1)) return Refuse(ctx, ErrorNumber::InvalidRecordSize, name);
    if (!IsField24(records, 1)) return Refuse(ctx, ErrorNumber::InvalidRecordCount, name);
    return RunOnce(ctx, name, code,
                   {ByteField(fileNumber), ByteField(communication), rights.Field(), LittleEndianField(recordSize, 3),
                    LittleEndianField(records, 3)});
}

sceReturnCode EndTransaction(Context& ctx, const std::string& name, std::uint32_t code) {
    command::ClearError(Record(ctx), name);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, name);
    const Reply reply = Exchange(ctx, code, {}, {.moreResponse = true});
    if (reply.Completed()) return sceSuccess;
    // Nothing pending is the card's "0C"; the host hears of it as a failure.
    if (reply.IsStatus(0x0C)) return Refuse(ctx, ErrorNumber::NoChangesInBackup, name);
    return OperationFailed(ctx, name, reply);
}

}  // namespace

std::string ByteField(std::int64_t value) {
    return cipher::ToHex(static_cast<std::uint8_t>(value & 0xFF));
}

std::string LittleEndianField(std::int64_t value, std::size_t bytes) {
    const auto bits = static_cast<std::uint64_t>(value);
    std::string field;
    field.reserve(2 * bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        field += ByteField(static_cast<std::int64_t>((bits >> (8 * i)) & 0xFF));
    return field;
}

bool AccessRights::Valid() const noexcept {
    const auto valid = [](std::int32_t right) { return right >= 0 && right <= kHighestRight; };
    return valid(read) && valid(write) && valid(readWrite) && valid(change);
}

std::uint8_t AccessRights::WireByte(int index) const noexcept {
    const auto nibbles = [](std::int32_t high, std::int32_t low) {
        return static_cast<std::uint8_t>((high & 0x0F) << 4 | (low & 0x0F));
    };
    return index == 0 ? nibbles(readWrite, change) : nibbles(read, write);
}

std::string AccessRights::Field() const {
    const std::uint8_t bytes[] = {WireByte(0), WireByte(1)};
    return cipher::ToHex(bytes);
}

std::optional<Reply> ReadFileSettings(Context& ctx, const std::string& comFunction, std::int32_t FileNo) {
    std::optional<Reply> reply = Run(ctx, comFunction, cmd::DesfireGetFileSettings, {ByteField(FileNo)});
    if (reply && !IsSettingsRecord(reply->data.view())) {
        OperationFailed(ctx, comFunction, *reply);
        return std::nullopt;
    }
    return reply;
}

sceReturnCode DESFireGetFileIDs(Context& ctx, std::string& FileIds) {
    static const std::string kName = "DESFireGetFileIDs";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    std::optional<Reply> reply = Run(ctx, kName, cmd::DesfireGetFileIDs);
    if (!reply) return sceError;
    std::vector<std::uint8_t> ids(reply->data.begin(), reply->data.end());
    std::sort(ids.begin(), ids.end());
    // An application holds each of the file numbers 0..31 at most once.
    const bool wellFormed =
        (ids.empty() || ids.back() <= kHighestFileId) && std::adjacent_find(ids.begin(), ids.end()) == ids.end();
    if (!wellFormed) return OperationFailed(ctx, kName, *reply);
    std::string list;
    for (std::uint8_t id : ids) {
        if (!list.empty()) list.push_back(',');
        list += std::to_string(id);
    }
    FileIds = std::move(list);
    return sceSuccess;
}

sceReturnCode DESFireCreateStdDataFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                       const AccessRights& rights, std::int32_t FileSize) {
    return CreateDataFile(ctx, "DESFireCreateStdDataFile", cmd::DesfireCreateStdDataFile, FileNumber,
                          CommunicationSettings, rights, FileSize);
}

sceReturnCode DESFireCreateBackupDataFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                          const AccessRights& rights, std::int32_t FileSize) {
    return CreateDataFile(ctx, "DESFireCreateBackupDataFile", cmd::DesfireCreateBackupDataFile, FileNumber,
                          CommunicationSettings, rights, FileSize);
}

sceReturnCode DESFireCreateValueFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                     const AccessRights& rights, std::int32_t LowerLimit, std::int32_t UpperLimit,
                                     std::int32_t InitialValue, bool LimitedCreditEnabled) {
    static const std::string kName = "DESFireCreateValueFile";
    command::ClearError(Record(ctx), kName);
    if (auto refusal =
            CreationRefusal(ctx.session, FileNumber, kHighestValueOrRecordFile, CommunicationSettings, rights)) {
        return Refuse(ctx, *refusal, kName);
    }
    if (LowerLimit > UpperLimit) return Refuse(ctx, ErrorNumber::InvalidLimits, kName);
    if (InitialValue < LowerLimit || InitialValue > UpperLimit)
        return Refuse(ctx, ErrorNumber::ValueOutOfBounds, kName);
    return RunOnce(ctx, kName, cmd::DesfireCreateValueFile,
                   {ByteField(FileNumber), ByteField(CommunicationSettings), rights.Field(),
                    LittleEndianField(LowerLimit, 4), LittleEndianField(UpperLimit, 4),
                    LittleEndianField(InitialValue, 4), std::string(LimitedCreditEnabled ? "01" : "00")});
}

sceReturnCode DESFireCreateLinearRecordFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                            const AccessRights& rights, std::int32_t RecordSize,
                                            std::int32_t MaxNumOfRecords) {
    return CreateRecordFile(ctx, "DESFireCreateLinearRecordFile", cmd::DesfireCreateLinearRecordFile, FileNumber,
                            CommunicationSettings, rights, RecordSize, MaxNumOfRecords);
}

sceReturnCode DESFireCreateCyclicRecordFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                            const AccessRights& rights, std::int32_t RecordSize,
                                            std::int32_t MaxNumOfRecords) {
    return CreateRecordFile(ctx, "DESFireCreateCyclicRecordFile", cmd::DesfireCreateCyclicRecordFile, FileNumber,
                            CommunicationSettings, rights, RecordSize, MaxNumOfRecords);
}

sceReturnCode DESFireDeleteFile(Context& ctx, std::int32_t FileNumber) {
    static const std::string kName = "DESFireDeleteFile";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    if (!IsFileNumber(FileNumber, kHighestFile)) return Refuse(ctx, ErrorNumber::InvalidFileNumber, kName);
    return RunOnce(ctx, kName, cmd::DesfireDeleteFile, {ByteField(FileNumber)});
}

sceReturnCode DESFireGetFileSettings(Context& ctx, std::int32_t FileNo, std::string& Information) {
    static const std::string kName = "DESFireGetFileSettings";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    if (!IsFileNumber(FileNo, kHighestFile)) return Refuse(ctx, ErrorNumber::InvalidFileNumber, kName);
    Information.clear();
    const std::optional<Reply> reply = ReadFileSettings(ctx, kName, FileNo);
    if (!reply) return sceError;
    Information = cipher::ToHex(reply->data.view(), ' ');
    return sceSuccess;
}

sceReturnCode DESFireChangeFileSettings(Context& ctx, std::int32_t FileNo, std::int32_t CommunicationSettings,
                                        const AccessRights& rights) {
    static const std::string kName = "DESFireChangeFileSettings";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    if (!IsFileNumber(FileNo, kHighestFile)) return Refuse(ctx, ErrorNumber::InvalidFileNumber, kName);
    if (CommunicationSettings < 0 || CommunicationSettings > 255) {
        return Refuse(ctx, ErrorNumber::InvalidCommunicationSettings, kName);
    }
    if (!rights.Valid()) return Refuse(ctx, ErrorNumber::BadKeyNumber, kName);

    const std::string fileField = ByteField(FileNo);
    const std::string communicationField = ByteField(CommunicationSettings);
    const std::string rightsField = rights.Field();
    // The enciphered form: settings (3 bytes), CRC, three zero bytes; one block.
    const std::uint8_t settings[] = {static_cast<std::uint8_t>(CommunicationSettings), rights.WireByte(0),
                                     rights.WireByte(1)};
    const FramePiece piece{settings, 3};
    const cipher::SecretBuffer cryptogram = BuildEncipheredFrame(ctx.session, std::span(&piece, 1));
    const command::Params plain{fileField, communicationField, rightsField};
    const command::Params enciphered{fileField, cryptogram.view()};

    if (ctx.cardConformance) {
        // A card takes the settings plain only while anyone may change them.
        const std::optional<Reply> current = ReadFileSettings(ctx, kName, FileNo);
        if (!current) return sceError;
        const bool freeToChange = ChangeRight(current->data[kRightsOffset]) == dfaAllowAll;
        return freeToChange ? RunOnce(ctx, kName, cmd::DesfireChangeFileSettingsPlain, plain)
                            : RunOnce(ctx, kName, cmd::DesfireChangeFileSettingsCiphered, enciphered);
    }
    // A refused plain attempt stays in the record when the enciphered one
    // succeeds: only a failure of both is this member's own.
    if (Exchange(ctx, cmd::DesfireChangeFileSettingsPlain, plain, {.moreResponse = true}).Completed()) {
        return sceSuccess;
    }
    return RunOnce(ctx, kName, cmd::DesfireChangeFileSettingsCiphered, enciphered);
}

sceReturnCode DESFireCommitTransaction(Context& ctx) {
    return EndTransaction(ctx, "DESFireCommitTransaction", cmd::DesfireCommitTransaction);
}

sceReturnCode DESFireAbortTransaction(Context& ctx) {
    return EndTransaction(ctx, "DESFireAbortTransaction", cmd::DesfireAbortTransaction);
}

}  // namespace elatectwn4::desfire
