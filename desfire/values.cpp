// Value files and record clearing.
#include "desfire/values.h"

#include "desfire/files.h"
#include "desfire/operation.h"
#include "desfire/transfer.h"

namespace elatectwn4::desfire {

namespace {

namespace cmd = command::cmd;

constexpr std::size_t kValueSize = 4;
constexpr std::int32_t kValueTypes[] = {dftValue};

std::optional<ErrorNumber> ValueRefusal(const Session& session, std::int32_t fileNo) {
    if (!session.Authenticated()) return ErrorNumber::NotAuthenticated;
    if (!IsFileNumber(fileNo, kHighestValueOrRecordFile)) return ErrorNumber::InvalidFileNumber;
    return std::nullopt;
}

sceReturnCode ChangeValue(Context& ctx, const std::string& name, std::uint32_t code, ErrorNumber beyondLimits,
                          std::int32_t fileNo, std::int32_t amount) {
    command::ClearError(Record(ctx), name);
    if (auto refusal = ValueRefusal(ctx.session, fileNo)) return Refuse(ctx, *refusal, name);
    // A negative amount would turn a debit into a credit.
    if (amount < 0) return Refuse(ctx, ErrorNumber::InvalidAmount, name);

    WriteRequest request;
    request.code = code;
    request.fileNo = fileNo;
    request.header = {static_cast<std::uint8_t>(fileNo)};
    for (std::size_t i = 0; i < kValueSize; ++i)
        request.data.push_back(static_cast<std::uint8_t>(static_cast<std::uint32_t>(amount) >> (8 * i)));
    request.allowedTypes = kValueTypes;
    if (DESFireWriteEngine(ctx, request, name) == sceSuccess) return sceSuccess;
    if (StatusIs(Record(ctx).RdrRetCode, 0xBE)) return Refuse(ctx, beyondLimits, name);
    return TransferFailed(ctx);
}

}  // namespace

sceReturnCode DESFireClearRecordFile(Context& ctx, std::int32_t FileNo) {
    static const std::string kName = "DESFireClearRecordFile";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    return Run(ctx, kName, cmd::DesfireClearRecordFile, {ByteField(FileNo)}) ? sceSuccess : sceError;
}

sceReturnCode DESFireGetValue(Context& ctx, std::int32_t FileNo, std::int32_t& ValueData) {
    static const std::string kName = "DESFireGetValue";
    command::ClearError(Record(ctx), kName);
    if (auto refusal = ValueRefusal(ctx.session, FileNo)) return Refuse(ctx, *refusal, kName);
    ReadRequest request;
    request.code = cmd::DesfireGetValue;
    request.fileNo = FileNo;
    request.params = {ByteField(FileNo)};
    request.allowedTypes = kValueTypes;
    request.expectedLength = kValueSize;
    std::vector<std::uint8_t> data;
    if (DESFireReadEngine(ctx, request, kName, data) != sceSuccess) return sceError;
    std::uint32_t value = 0;
    for (std::size_t i = kValueSize; i-- > 0;)
        value = value << 8 | data[i];
    ValueData = static_cast<std::int32_t>(value);
    return sceSuccess;
}

sceReturnCode DESFireDebit(Context& ctx, std::int32_t FileNo, std::int32_t Amount) {
    return ChangeValue(ctx, "DESFireDebit", cmd::DesfireDebit, ErrorNumber::ValueExceedsLimits, FileNo, Amount);
}

sceReturnCode DESFireCredit(Context& ctx, std::int32_t FileNo, std::int32_t Amount) {
    return ChangeValue(ctx, "DESFireCredit", cmd::DesfireCredit, ErrorNumber::ValueExceedsLimits, FileNo, Amount);
}

sceReturnCode DESFireLimitedCredit(Context& ctx, std::int32_t FileNo, std::int32_t Amount) {
    return ChangeValue(ctx, "DESFireLimitedCredit", cmd::DesfireLimitedCredit, ErrorNumber::CreditExceedsLimit, FileNo,
                       Amount);
}

}  // namespace elatectwn4::desfire
