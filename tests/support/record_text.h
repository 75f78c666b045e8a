// The error record as one line, so that a failed comparison shows every
// member side by side.
#pragma once

#include <cstdint>
#include <string>

#include "elatectwn4/error.h"

namespace elatectwn4::test {

/// "90010F04 | Encoder command failed | 0 | EncoderCommand | SCardTransmit:ReadBinary | 6982":
/// Number and LastDllError as unsigned hex, then the four texts.
std::string RecordText(const CError& record);

/// The same line built from expected values.
std::string RecordText(std::uint32_t number, const std::string& description, std::uint32_t lastDllError,
                       const std::string& comFunction, const std::string& rdrCommand, const std::string& rdrRetCode);

}  // namespace elatectwn4::test
