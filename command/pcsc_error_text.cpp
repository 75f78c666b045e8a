#include "command/pcsc_error_text.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace elatectwn4::command {

namespace {

constexpr std::uint32_t kFirstIndexed = 0x80100004;

// Indexed by the code's offset from 0x80100004; an empty entry has no text of
// its own and reads as an unexpected error.
constexpr std::array<std::string_view, 0x1C> kIndexedTexts{
    "One or more of the supplied parameters could not be properly interpreted.",                         // 04
    "Registry startup information is missing or invalid.",                                               // 05
    "Not enough memory available to complete this command.",                                             // 06
    "",                                                                                                  // 07
    "",                                                                                                  // 08
    "The specified reader name is not recognized.",                                                      // 09
    "The user-specified timeout value has expired.",                                                     // 0A
    "The smart card cannot be accessed because of other connections outstanding.",                       // 0B
    "No Smart Card is currently in the device.",                                                         // 0C
    "The specified smart card name is not recognized.",                                                  // 0D
    "The system could not dispose of the media in the requested manner.",                                // 0E
    "The requested protocols are incompatible with the protocol currently in use with the smart card.",  // 0F
    "The reader or smart card is not ready to accept commands.",                                         // 10
    "One or more of the supplied parameters values could not be properly interpreted.",                  // 11
    "",                                                                                                  // 12
    "",                                                                                                  // 13
    "",                                                                                                  // 14
    "",                                                                                                  // 15
    "",                                                                                                  // 16
    "The specified reader is not currently available for use.",                                          // 17
    "",                                                                                                  // 18
    "",                                                                                                  // 19
    "The reader driver does not meet minimal requirements for support.",                                 // 1A
    "The reader driver did not produce a unique reader name.",                                           // 1B
    "The smart card does not meet minimal requirements for support.",                                    // 1C
    "The Smart card resource manager is not running.",                                                   // 1D
    "The Smart card resource manager has shut down.",                                                    // 1E
    "An unexpected card error has occurred.",                                                            // 1F
};

struct CodeText {
    std::uint32_t code;
    std::string_view text;
};

constexpr std::array kOtherTexts{
    CodeText{0, "OK"},
    CodeText{0x8010002E, "Cannot find a smart card reader."},
    CodeText{0x80100069, "The smart card has been removed, so that further communication is not possible."},
};

std::string_view KnownText(std::uint32_t code) noexcept {
    if (code >= kFirstIndexed && code - kFirstIndexed < kIndexedTexts.size())
        return kIndexedTexts[code - kFirstIndexed];
    for (const auto& entry : kOtherTexts) {
        if (entry.code == code) return entry.text;
    }
    return {};
}

}  // namespace

}  // namespace elatectwn4::command

namespace elatectwn4 {

std::string PCSCErrorText(std::uint32_t code) {
    using command::KnownText;
    if (const std::string_view text = KnownText(code); !text.empty()) return std::string(text);
    char hex[9];
    std::snprintf(hex, sizeof hex, "%X", static_cast<unsigned>(code));
    return std::string("Unexpected error 0x") + hex;
}

}  // namespace elatectwn4
