// Helpers shared by the encoder tests: the error record as one comparable
// value, and the scripted fake's calls as readable lines.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "elatectwn4/error.h"
#include "support/record_text.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::test {

/// The record as one comparable line (support/record_text.h).
using Record = std::string;

inline Record Of(const CError& e) {
    return RecordText(e);
}

/// The record of a failure: the number, its text, the operation and the reader's side.
inline Record Failure(std::uint32_t number, const std::string& description, const std::string& comFunction,
                      const std::string& rdrCommand = {}, const std::string& rdrRetCode = {},
                      std::uint32_t lastDllError = 0) {
    return RecordText(number, description, lastDllError, comFunction, rdrCommand, rdrRetCode);
}

/// The record after a success of `operation`.
inline Record Cleared(const std::string& operation) {
    return RecordText(0, "", 0, operation, "", "");
}

/// Every call the fake saw, as "Function detail".
inline std::vector<std::string> Trail(const ScriptedPcsc& fake) {
    std::vector<std::string> lines;
    for (const auto& call : fake.Calls())
        lines.push_back(call.function + " " + call.detail);
    return lines;
}

// The scripted fake's default handles and the calls an open makes with them.
inline const std::string kEstablish = "EstablishContext scope=2";
inline const std::string kRelease = "ReleaseContext context=0x1001";
inline const std::string kAtrAttrib = "GetAttrib card=0x2001 attribute=0x90303";
inline const std::string kStatus = "Status card=0x2001";
inline const std::string kDisconnect = "Disconnect card=0x2001 disposition=0";
inline std::string ConnectTo(const std::string& reader) {
    return "Connect context=0x1001 reader=\"" + reader + "\" share=1 protocols=2";
}

/// The storage-card ATR of a MIFARE Classic 1K (the fake's default).
inline const std::string kMifare1KAtr = "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A";
/// The ATR of a DESFire EV1 behind a PC/SC reader.
inline const std::string kDesfireAtr = "3B 81 80 01 80 80";

}  // namespace elatectwn4::test
