#pragma once

#include <string>
#include <string_view>

namespace elatectwn4::command {

/// Readable English text, with severity prefix, for an ISO 7816 status word
/// ("6982") or a DESFire status ("AE" or "91AE"). `encoderCommand` ending in
/// ":loadkey" selects the reader's key-loading texts for SW1 = 69.
std::string GetResponseText(std::string_view sw1sw2, std::string_view encoderCommand);

}  // namespace elatectwn4::command
