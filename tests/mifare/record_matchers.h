// Comparing error records so that a failure shows the whole record and what
// the status word in it means.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>

#include "command/response_text.h"
#include "elatectwn4/error.h"

namespace elatectwn4 {

inline void PrintTo(const CError& e, std::ostream* os) {
    *os << "{Number 0x" << std::hex << static_cast<std::uint32_t>(e.Number) << std::dec << " \"" << e.Description
        << "\", LastDllError " << e.LastDllError << ", ComFunction \"" << e.ComFunction << "\", RdrCommand \""
        << e.RdrCommand << "\", RdrRetCode \"" << e.RdrRetCode << "\"";
    if (e.RdrRetCode.size() == 4) {
        *os << " = " << command::GetResponseText(e.RdrRetCode, e.ComFunction);
    }
    *os << "}";
}

inline bool operator==(const CError& a, const CError& b) {
    return a.Number == b.Number && a.Description == b.Description && a.LastDllError == b.LastDllError &&
           a.ComFunction == b.ComFunction && a.RdrCommand == b.RdrCommand && a.RdrRetCode == b.RdrRetCode;
}

}  // namespace elatectwn4

namespace elatectwn4::mifare_test {

/// The record a component error leaves: its number with its own text.
inline CError Refusal(ErrorNumber number, const std::string& comFunction) {
    CError e;
    e.Number = ErrorValue(number);
    e.Description = std::string(ErrorDescription(number));
    e.ComFunction = comFunction;
    return e;
}

/// The record of a card that answered `status` to encoder command `command`.
inline CError CardRefusal(const std::string& comFunction, const std::string& command, const std::string& status) {
    CError e = Refusal(ErrorNumber::CommandFailed, comFunction);
    e.RdrCommand = "SCardTransmit:" + command;
    e.RdrRetCode = status;
    return e;
}

/// The record after a success: empty but for the operation's name.
inline CError Cleared(const std::string& comFunction) {
    CError e;
    e.ComFunction = comFunction;
    return e;
}

}  // namespace elatectwn4::mifare_test
