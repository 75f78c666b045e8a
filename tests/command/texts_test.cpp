#include <gtest/gtest.h>

#include <string>

#include "command/pcsc_error_text.h"
#include "command/response_text.h"

namespace elatectwn4::command {
namespace {

TEST(PCSCErrorText, GivesEachCodeItsTextAndTheRestAnUnexpectedError) {
    struct Case {
        std::uint32_t code;
        std::string text;
    };
    // The ends of the indexed range and of its gaps, its neighbours, the
    // texts outside it, and strangers.
    const Case cases[] = {
        {0, "OK"},
        {0x80100004, "One or more of the supplied parameters could not be properly interpreted."},
        {0x8010000C, "No Smart Card is currently in the device."},
        {0x8010001F, "An unexpected card error has occurred."},
        {0x8010002E, "Cannot find a smart card reader."},
        {0x80100069, "The smart card has been removed, so that further communication is not possible."},
        {0x80100007, "Unexpected error 0x80100007"},
        {0x80100020, "Unexpected error 0x80100020"},
        {0xFFFFFFFF, "Unexpected error 0xFFFFFFFF"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(PCSCErrorText(c.code), c.text) << std::hex << c.code;
}

const std::string kNotAllowed = "[Checking error]  Command not allowed, ";
const std::string kP1P2 = "[Checking error]  Wrong parameter(s) P1-P2, ";
const std::string kUnattended = "[Unknown]   Unattended error";
const std::string kLoadKey = "MifareAuthenticate:LoadKey";

// One row per way a text is made, and the edge cases of each group.
TEST(GetResponseText, ReadsTheStatusWordAsTheCardMeantIt) {
    struct Case {
        std::string sw1sw2, command, text;
    };
    const Case cases[] = {
        {"9000", "", "[OK]  Successful operation"},
        {"6110", "", "[OK]  16 response bytes still available"},
        {"6284", "", "[Warning]  State of non-volatile memory unchanged, FCI not formatted properly"},
        {"63C5", "", "[Warning]  State of non-volatile memory changed, counter provided by 5"},
        {"6401", "", "[Execution error]  State of non-volatile memory unchanged, unknown error 01"},
        {"6581", "", "[Execution error]  State of non-volatile memory changed, memory failure"},
        {"6699", "", "[Execution error]  Security-related issue."},
        {"6700", "", "[Checking error]  Wrong length"},
        {"6882", "", "[Checking error]  Function in CLA not supported, secure messaging not supported"},
        {"6982", "", kNotAllowed + "security status not satisfied"},
        {"6B00", "", kP1P2 + "no information given"},
        {"6cab", "", "[Checking error]  Wrong length Le, should be AB"},
        {"6D01", "", "[Checking error]  Instruction code not supported or invalid, unknown error 01"},
        {"6E00", "", "[Checking error]  Class not supported, no information given"},
        {"6FFF", "", "[Checking error]  No precise diagnosis, unknown error FF"},
        {"9F00", "", kUnattended},
        {"6982", kLoadKey, "[Error]  Card key not supported"},
        {"6981", kLoadKey, "[Error]  Unknown error code"},
        {"6982", "SCardTransmit:LOADKEY", "[Error]  Card key not supported"},
        // Only the last eight characters count, and only for SW1 69.
        {"6982", kLoadKey + " ", kNotAllowed + "security status not satisfied"},
        {"6A82", kLoadKey, kP1P2 + "file not found"},
        {"9100", "", "[Success]  Successful operation"},
        {"91ae", "",
         "[Error]  Current authentication status doesn't allow the requested command. "
         "Authenticate first."},
        {"F1", "", "[Error]  Unrecoverable error within file, file will be disabled"},
        {"01", "", kUnattended},
        // Two characters are a DESFire status, never the ISO class 69.
        {"82", kLoadKey, kUnattended},
        // An unreadable part counts as 0.
        {"", "", kUnattended},
        {"ZZ", "", "[Success]  Successful operation"},  // DESFire 91 00
        {"69ZZ", "", kNotAllowed + "no information given"},
        {"6A8", "", kP1P2 + "unknown error A8"},  // SW1 6A, SW2 A8: the last two characters
        {"90", "", kUnattended},                  // DESFire 0x90 has no text
        {"698200", "", kNotAllowed + "no information given"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(GetResponseText(c.sw1sw2, c.command), c.text) << '"' << c.sw1sw2 << "\" \"" << c.command << '"';
}

}  // namespace
}  // namespace elatectwn4::command
