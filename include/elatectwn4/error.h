// The error record every operation leaves behind, and the component's own
// error numbers with the one description that belongs to each.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "elatectwn4/export.h"

namespace elatectwn4 {

/// The last failure of an Encoder. Every operation empties it on entry and
/// names itself in ComFunction, so after a success Number is 0.
///
/// Number is read back through a signed 32-bit field: the component's own
/// numbers (0x9001xxyy) therefore appear negative, as hosts expect.
class ELATECTWN4_API CError {
public:
    std::int32_t Number = 0;        ///< 0 = no error; see ErrorNumber
    std::string Description;        ///< English text that goes with Number
    std::int32_t LastDllError = 0;  ///< PC/SC return code of the failed call, else 0
    std::string ComFunction;        ///< the public operation (or private step) concerned
    std::string RdrCommand;         ///< e.g. "SCardConnect" or "SCardTransmit:ReadBinary"
    std::string RdrRetCode;         ///< PC/SC error text or the card's status word ("6982", "91AE")
};

/// The component's own error numbers. Use ErrorDescription() for the text.
enum class ErrorNumber : std::uint32_t {
    IncorrectOffsets = 0x90010B04,
    IncorrectBX = 0x90010B05,
    KeyMustBe12Hex = 0x90010B30,
    InvalidSecurityInformation = 0x90010B32,
    ReadError = 0x90010B40,
    WriteError = 0x90010B41,
    BlockMustBe32Hex = 0x90010B42,
    OperationFailed = 0x90010E03,
    NotAuthenticated = 0x90010E11,
    RootLevelOnly = 0x90010E12,
    IncorrectApplicationId = 0x90010E20,
    CannotConnectToApplication = 0x90010E21,
    BadKeyNumber = 0x90010E31,
    BadKeyLength = 0x90010E32,
    InvalidKey = 0x90010E33,
    InvalidParameter = 0x90010E40,
    InvalidFileNumber = 0x90010E41,
    InvalidCommunicationSettings = 0x90010E42,
    InvalidFileSize = 0x90010E43,
    InvalidLimits = 0x90010E44,
    ValueOutOfBounds = 0x90010E45,
    InvalidRecordSize = 0x90010E46,
    InvalidRecordCount = 0x90010E47,
    WrongFileType = 0x90010E48,
    InvalidOffset = 0x90010E49,
    InvalidLength = 0x90010E4A,
    InvalidCrc = 0x90010E4B,
    InvalidMac = 0x90010E4C,
    FileNotFound = 0x90010E4D,
    InvalidAmount = 0x90010E4E,
    NoChangesInBackup = 0x90010E4F,
    ValueExceedsLimits = 0x90010E50,
    CreditExceedsLimit = 0x90010E51,
    EncoderClosed = 0x90010F01,
    CannotOpenContext = 0x90010F02,  ///< "Cannot open encoder": no PC/SC context
    CannotOpenReader = 0x90010F03,   ///< "Cannot open encoder": no reader connected
    CommandFailed = 0x90010F04,
    AuthenticationFailure = 0x90010F05,
    NoCard = 0x90010F06,
    /// "Configuration dialog unavailable": Configure could not show its
    /// window. RdrCommand names the dialog program; RdrRetCode says why: the
    /// program is not installed, there is no display (neither DISPLAY nor
    /// WAYLAND_DISPLAY is set), the program could not open the display, or
    /// it ended without an answer.
    DialogUnavailable = 0x90010F07,
};

/// The description that always goes with an error number; "" for a number
/// that is not one of ErrorNumber.
ELATECTWN4_API std::string_view ErrorDescription(ErrorNumber number) noexcept;

/// The value CError::Number holds for an error number (negative).
constexpr std::int32_t ErrorValue(ErrorNumber number) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
}

}  // namespace elatectwn4
