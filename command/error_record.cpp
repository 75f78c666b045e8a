#include "command/error_record.h"

#include <array>
#include <exception>
#include <new>
#include <utility>

#include "cipher/des_error.h"

namespace elatectwn4 {

namespace {

struct ErrorText {
    ErrorNumber number;
    std::string_view description;
};

// The one place where each number meets its text.
constexpr std::array kErrorTexts{
    ErrorText{ErrorNumber::IncorrectOffsets, "Incorrect offsets in parameters"},
    ErrorText{ErrorNumber::IncorrectBX, "Incorrect value for BX"},
    ErrorText{ErrorNumber::KeyMustBe12Hex, "A key must contain 12 hex digits"},
    ErrorText{ErrorNumber::InvalidSecurityInformation, "Invalid security information in parameters"},
    ErrorText{ErrorNumber::ReadError, "Read error on encoder"},
    ErrorText{ErrorNumber::WriteError, "Write error on encoder"},
    ErrorText{ErrorNumber::BlockMustBe32Hex, "A data bloc must contain 32 hex digits"},
    ErrorText{ErrorNumber::OperationFailed, "The requested operation failed"},
    ErrorText{ErrorNumber::NotAuthenticated, "Not authenticated"},
    ErrorText{ErrorNumber::RootLevelOnly, "This command is only available at root level"},
    ErrorText{ErrorNumber::IncorrectApplicationId, "Incorrect Application ID"},
    ErrorText{ErrorNumber::CannotConnectToApplication, "Cannot connect to PICC application"},
    ErrorText{ErrorNumber::BadKeyNumber, "Bad key number"},
    ErrorText{ErrorNumber::BadKeyLength, "Bad key length"},
    ErrorText{ErrorNumber::InvalidKey, "Invalid key"},
    ErrorText{ErrorNumber::InvalidParameter, "Invalid parameter"},
    ErrorText{ErrorNumber::InvalidFileNumber, "Invalid file number"},
    ErrorText{ErrorNumber::InvalidCommunicationSettings, "Invalid communication settings"},
    ErrorText{ErrorNumber::InvalidFileSize, "Invalid file size"},
    ErrorText{ErrorNumber::InvalidLimits, "Invalid limits"},
    ErrorText{ErrorNumber::ValueOutOfBounds, "The value isn't between lower and upper bounds"},
    ErrorText{ErrorNumber::InvalidRecordSize, "Invalid record size"},
    ErrorText{ErrorNumber::InvalidRecordCount, "Invalid record count"},
    ErrorText{ErrorNumber::WrongFileType, "This function can't be used with this type of file"},
    ErrorText{ErrorNumber::InvalidOffset, "Invalid offset value"},
    ErrorText{ErrorNumber::InvalidLength, "Invalid length"},
    ErrorText{ErrorNumber::InvalidCrc, "Invalid CRC value"},
    ErrorText{ErrorNumber::InvalidMac, "Invalid MAC value"},
    ErrorText{ErrorNumber::FileNotFound, "File not found"},
    ErrorText{ErrorNumber::InvalidAmount, "Invalid amount"},
    ErrorText{ErrorNumber::NoChangesInBackup, "No changes in backup files, abort/commit not needed"},
    ErrorText{ErrorNumber::ValueExceedsLimits, "Value stored in the file exceeds the limits"},
    ErrorText{ErrorNumber::CreditExceedsLimit, "Credit amount exceeds the allowed limit"},
    ErrorText{ErrorNumber::EncoderClosed, "Encoder is closed"},
    ErrorText{ErrorNumber::CannotOpenContext, "Cannot open encoder"},
    ErrorText{ErrorNumber::CannotOpenReader, "Cannot open encoder"},
    ErrorText{ErrorNumber::CommandFailed, "Encoder command failed"},
    ErrorText{ErrorNumber::AuthenticationFailure, "Authentication failure"},
    ErrorText{ErrorNumber::NoCard, "No card in encoder"},
    ErrorText{ErrorNumber::DialogUnavailable, "Configuration dialog unavailable"},
};

}  // namespace

std::string_view ErrorDescription(ErrorNumber number) noexcept {
    for (const auto& entry : kErrorTexts) {
        if (entry.number == number) return entry.description;
    }
    return {};
}

}  // namespace elatectwn4

namespace elatectwn4::command {

namespace {
std::int32_t ToInt32(std::int64_t value) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value)));
}
}  // namespace

void SetError(CError& record, const ErrorUpdate& update) noexcept {
    try {
        if (update.number) record.Number = ToInt32(*update.number);
        if (update.description) record.Description = *update.description;
        if (update.lastDllError) record.LastDllError = ToInt32(*update.lastDllError);
        if (update.comFunction) record.ComFunction = *update.comFunction;
        if (update.rdrCommand) record.RdrCommand = *update.rdrCommand;
        if (update.rdrRetCode) record.RdrRetCode = *update.rdrRetCode;
    } catch (...) {
        // Only an allocation can fail here; the record keeps what was written.
    }
}

void ClearError(CError& record, const std::string& comFunction) noexcept {
    SetError(record, {0, std::string{}, 0, comFunction, std::string{}, std::string{}});
}

void Fail(CError& record, ErrorNumber number, const std::string& comFunction, const std::string& rdrCommand,
          const std::string& rdrRetCode, std::int64_t lastDllError) noexcept {
    try {
        SetError(record, {static_cast<std::int64_t>(static_cast<std::uint32_t>(number)),
                          std::string(ErrorDescription(number)), lastDllError, comFunction, rdrCommand, rdrRetCode});
    } catch (...) {
    }
}

void RecordRuntimeError(CError& record, const std::string& comFunction) noexcept {
    try {
        throw;
    } catch (const RuntimeError& e) {
        SetError(record, {e.number(), std::string(e.what()), 0, comFunction, std::string{}, std::string{}});
    } catch (const cipher::DesError& e) {
        SetError(record, {e.number(), std::string(e.what()), 0, comFunction, std::string{}, std::string{}});
    } catch (const std::bad_alloc&) {
        SetError(record, {7, std::string("Out of memory"), 0, comFunction, std::string{}, std::string{}});
    } catch (const std::exception& e) {
        SetError(record, {RuntimeInvalidCall, std::string("Unexpected error: ") + e.what(), 0, comFunction,
                          std::string{}, std::string{}});
    } catch (...) {
        SetError(record,
                 {RuntimeInvalidCall, std::string("Unexpected error"), 0, comFunction, std::string{}, std::string{}});
    }
}

}  // namespace elatectwn4::command
