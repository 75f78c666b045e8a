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
    const Case cases[] = {
        {0, "OK"},
        {0x80100004, "One or more of the supplied parameters could not be properly interpreted."},
        {0x80100005, "Registry startup information is missing or invalid."},
        {0x80100006, "Not enough memory available to complete this command."},
        {0x80100009, "The specified reader name is not recognized."},
        {0x8010000A, "The user-specified timeout value has expired."},
        {0x8010000B, "The smart card cannot be accessed because of other connections outstanding."},
        {0x8010000C, "No Smart Card is currently in the device."},
        {0x8010000D, "The specified smart card name is not recognized."},
        {0x8010000E, "The system could not dispose of the media in the requested manner."},
        {0x8010000F,
         "The requested protocols are incompatible with the protocol currently in use with the smart card."},
        {0x80100010, "The reader or smart card is not ready to accept commands."},
        {0x80100011, "One or more of the supplied parameters values could not be properly interpreted."},
        {0x80100017, "The specified reader is not currently available for use."},
        {0x8010001A, "The reader driver does not meet minimal requirements for support."},
        {0x8010001B, "The reader driver did not produce a unique reader name."},
        {0x8010001C, "The smart card does not meet minimal requirements for support."},
        {0x8010001D, "The Smart card resource manager is not running."},
        {0x8010001E, "The Smart card resource manager has shut down."},
        {0x8010001F, "An unexpected card error has occurred."},
        {0x8010002E, "Cannot find a smart card reader."},
        {0x80100069, "The smart card has been removed, so that further communication is not possible."},
        // Gaps inside the indexed range, its neighbours, and strangers.
        {0x80100007, "Unexpected error 0x80100007"},
        {0x80100008, "Unexpected error 0x80100008"},
        {0x80100012, "Unexpected error 0x80100012"},
        {0x80100016, "Unexpected error 0x80100016"},
        {0x80100018, "Unexpected error 0x80100018"},
        {0x80100019, "Unexpected error 0x80100019"},
        {0x80100003, "Unexpected error 0x80100003"},
        {0x80100020, "Unexpected error 0x80100020"},
        {0x80100068, "Unexpected error 0x80100068"},
        {0x8010006A, "Unexpected error 0x8010006A"},
        {0x5, "Unexpected error 0x5"},
        {0xFFFFFFFF, "Unexpected error 0xFFFFFFFF"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(PCSCErrorText(c.code), c.text) << std::hex << c.code;
}

struct ResponseCase {
    std::string sw1sw2;
    std::string command;
    std::string text;
    friend void PrintTo(const ResponseCase& c, std::ostream* os) {
        *os << '"' << c.sw1sw2 << "\" \"" << c.command << '"';
    }
};

class ResponseText : public ::testing::TestWithParam<ResponseCase> {};

TEST_P(ResponseText, ReadsTheStatusWordAsTheCardMeantIt) {
    const ResponseCase& c = GetParam();
    EXPECT_EQ(GetResponseText(c.sw1sw2, c.command), c.text);
}

const std::string kUnchanged = "[Warning]  State of non-volatile memory unchanged, ";
const std::string kChanged = "[Warning]  State of non-volatile memory changed, ";
const std::string kExecUnchanged = "[Execution error]  State of non-volatile memory unchanged, ";
const std::string kExecChanged = "[Execution error]  State of non-volatile memory changed, ";
const std::string kCla = "[Checking error]  Function in CLA not supported, ";
const std::string kNotAllowed = "[Checking error]  Command not allowed, ";
const std::string kP1P2 = "[Checking error]  Wrong parameter(s) P1-P2, ";
const std::string kIns = "[Checking error]  Instruction code not supported or invalid, ";
const std::string kClass = "[Checking error]  Class not supported, ";
const std::string kDiagnosis = "[Checking error]  No precise diagnosis, ";
const std::string kUnattended = "[Unknown]   Unattended error";
const std::string kLoadKey = "MifareAuthenticate:LoadKey";

INSTANTIATE_TEST_SUITE_P(
    Iso7816, ResponseText,
    ::testing::Values(
        ResponseCase{"9000", "", "[OK]  Successful operation"}, ResponseCase{"90FF", "", "[OK]  Successful operation"},
        ResponseCase{"6110", "", "[OK]  16 response bytes still available"},
        ResponseCase{"61FF", "", "[OK]  255 response bytes still available"},
        ResponseCase{"6200", "", kUnchanged + "no information given"},
        ResponseCase{"6281", "", kUnchanged + "part of returned data may be corrupted"},
        ResponseCase{"6282", "", kUnchanged + "end of file/record reached before reading requested bytes"},
        ResponseCase{"6283", "", kUnchanged + "selected file invalidated"},
        ResponseCase{"6284", "", kUnchanged + "FCI not formatted properly"},
        ResponseCase{"627F", "", kUnchanged + "unknown error 7F"},
        ResponseCase{"627f", "", kUnchanged + "unknown error 7F"},
        ResponseCase{"6300", "", kChanged + "no information given"},
        ResponseCase{"6381", "", kChanged + "file filled up by the last write"},
        ResponseCase{"63C0", "", kChanged + "counter provided by 0"},
        ResponseCase{"63C5", "", kChanged + "counter provided by 5"},
        ResponseCase{"63CF", "", kChanged + "counter provided by 15"},
        ResponseCase{"63D0", "", kChanged + "unknown error D0"},
        ResponseCase{"6400", "", kExecUnchanged + "no information given"},
        ResponseCase{"6401", "", kExecUnchanged + "unknown error 01"},
        ResponseCase{"6500", "", kExecChanged + "no information given"},
        ResponseCase{"6581", "", kExecChanged + "memory failure"},
        ResponseCase{"6582", "", kExecChanged + "unknown error 82"},
        ResponseCase{"6600", "", "[Execution error]  Security-related issue."},
        ResponseCase{"6699", "", "[Execution error]  Security-related issue."},
        ResponseCase{"6700", "", "[Checking error]  Wrong length"},
        ResponseCase{"6701", "", "[Checking error]  unknown error 01"},
        ResponseCase{"6800", "", kCla + "no information given"},
        ResponseCase{"6881", "", kCla + "logical channel not supported"},
        ResponseCase{"6882", "", kCla + "secure messaging not supported"},
        ResponseCase{"6883", "", kCla + "unknown error 83"},
        ResponseCase{"6900", "", kNotAllowed + "no information given"},
        ResponseCase{"6981", "", kNotAllowed + "command incompatible with file structure"},
        ResponseCase{"6982", "", kNotAllowed + "security status not satisfied"},
        ResponseCase{"6983", "", kNotAllowed + "authentication method blocked"},
        ResponseCase{"6984", "", kNotAllowed + "referenced data invalidated"},
        ResponseCase{"6985", "", kNotAllowed + "conditions of use not satisfied"},
        ResponseCase{"6986", "", kNotAllowed + "command not allowed (no current EF)"},
        ResponseCase{"6987", "", kNotAllowed + "expected SM data objects missing"},
        ResponseCase{"6988", "", kNotAllowed + "SM data objects incorrect"},
        ResponseCase{"6989", "", kNotAllowed + "unknown error 89"},
        ResponseCase{"6A00", "", kP1P2 + "no information given"},
        ResponseCase{"6A80", "", kP1P2 + "incorrect parameters in the data field"},
        ResponseCase{"6A81", "", kP1P2 + "function not supported"}, ResponseCase{"6A82", "", kP1P2 + "file not found"},
        ResponseCase{"6A83", "", kP1P2 + "record not found"},
        ResponseCase{"6A84", "", kP1P2 + "not enough memory space in the file"},
        ResponseCase{"6A85", "", kP1P2 + "Lc inconsistent with TLV structure"},
        ResponseCase{"6A86", "", kP1P2 + "incorrect parameters P1-P2"},
        ResponseCase{"6A87", "", kP1P2 + "Lc inconsistent with P1-P2"},
        ResponseCase{"6A88", "", kP1P2 + "referenced data not found"},
        ResponseCase{"6A89", "", kP1P2 + "unknown error 89"}, ResponseCase{"6B00", "", kP1P2 + "no information given"},
        ResponseCase{"6B01", "", kP1P2 + "unknown error 01"},
        ResponseCase{"6C10", "", "[Checking error]  Wrong length Le, should be 10"},
        ResponseCase{"6cab", "", "[Checking error]  Wrong length Le, should be AB"},
        ResponseCase{"6D00", "", kIns + "no information given"}, ResponseCase{"6D01", "", kIns + "unknown error 01"},
        ResponseCase{"6E00", "", kClass + "no information given"},
        ResponseCase{"6E01", "", kClass + "unknown error 01"},
        ResponseCase{"6F00", "", kDiagnosis + "no information given"},
        ResponseCase{"6FFF", "", kDiagnosis + "unknown error FF"}, ResponseCase{"6000", "", kUnattended},
        ResponseCase{"9F00", "", kUnattended}, ResponseCase{"0000", "", kUnattended}));

INSTANTIATE_TEST_SUITE_P(
    ReaderKeyLoading, ResponseText,
    ::testing::Values(ResponseCase{"6982", kLoadKey, "[Error]  Card key not supported"},
                      ResponseCase{"6983", kLoadKey, "[Error]  Reader key not supported"},
                      ResponseCase{"6984", kLoadKey, "[Error]  Plain transmission not supported"},
                      ResponseCase{"6985", kLoadKey, "[Error]  Secured transmission not supported"},
                      ResponseCase{"6986", kLoadKey, "[Error]  Volatile memory not available"},
                      ResponseCase{"6987", kLoadKey, "[Error]  Non volatile memory not available"},
                      ResponseCase{"6988", kLoadKey, "[Error]  Key number not valid"},
                      ResponseCase{"6989", kLoadKey, "[Error]  Incorrect key length"},
                      ResponseCase{"6900", kLoadKey, "[Error]  Unknown error code"},
                      ResponseCase{"6981", kLoadKey, "[Error]  Unknown error code"},
                      ResponseCase{"6982", "SCardTransmit:LOADKEY", "[Error]  Card key not supported"},
                      ResponseCase{"6982", ":loadkey", "[Error]  Card key not supported"},
                      // Only the last eight characters count, and only for SW1 69.
                      ResponseCase{"6982", "loadkey", kNotAllowed + "security status not satisfied"},
                      ResponseCase{"6982", "MifareAuthenticate:LoadKey ",
                                   kNotAllowed + "security status not satisfied"},
                      ResponseCase{"6A82", kLoadKey, kP1P2 + "file not found"}));

INSTANTIATE_TEST_SUITE_P(
    Desfire, ResponseText,
    ::testing::Values(
        ResponseCase{"9100", "", "[Success]  Successful operation"},
        ResponseCase{"00", "", "[Success]  Successful operation"},
        ResponseCase{
            "0C", "",
            "[Warning]  No changes done to the backup files, CommitTransaction / AbortTransaction not necessary"},
        ResponseCase{"910E", "", "[Error]  Insufficient non-volatile memory to complete command"},
        ResponseCase{"911C", "", "[Error]  Command code not supported"},
        ResponseCase{"1E", "", "[Error]  CRC or MAC doesn't match data or padding bytes not valid"},
        ResponseCase{"9140", "", "[Error]  Invalid key number specified"},
        ResponseCase{"7E", "", "[Error]  Length of command string invalid"},
        ResponseCase{"919D", "", "[Error]  Current configuration / status doesn't allow the requested command"},
        ResponseCase{"9E", "", "[Error]  Value of the parameter(s) invalid"},
        ResponseCase{"91A0", "", "[Error]  Requested Application not present on PICC"},
        ResponseCase{"A1", "", "[Error]  Unrecoverable error within application, application will be disabled"},
        ResponseCase{"AE", "",
                     "[Error]  Current authentication status doesn't allow the requested command. Authenticate first."},
        ResponseCase{"91ae", "",
                     "[Error]  Current authentication status doesn't allow the requested command. Authenticate first."},
        ResponseCase{"91AF", "", "[Error]  Additional data frame is expected to be sent"},
        ResponseCase{"BE", "",
                     "[Error]  Attempt to read/write data from/to beyond the file's/record's limits or attempt to "
                     "exceed the limits of a value file"},
        ResponseCase{"C1", "", "[Error]  Unrecoverable error with PICC, PICC will be disabled"},
        ResponseCase{"CA", "",
                     "[Error]  Previous command wasn't fully completed. Not all frames were requested or provided by "
                     "the PCD"},
        ResponseCase{"CD", "", "[Error]  PICC was disabled by an unrecoverable error"},
        ResponseCase{"CE", "",
                     "[Error]  Number of applications limited to 28, no additional CreateApplication possible"},
        ResponseCase{"DE", "",
                     "[Error]  Creation of file/application failed because file/application with the same number "
                     "already exists"},
        ResponseCase{"EE", "",
                     "[Error]  Could not complete non-volatile write operation due to loss of power, internal "
                     "backup/rollback mechanism activated"},
        ResponseCase{"F0", "", "[Error]  Specified file number doesn't exist"},
        ResponseCase{"91F1", "", "[Error]  Unrecoverable error within file, file will be disabled"},
        ResponseCase{"91FF", "", kUnattended}, ResponseCase{"01", "", kUnattended},
        // "69" alone is a DESFire status, never the ISO class 69.
        ResponseCase{"82", kLoadKey, kUnattended}));

INSTANTIATE_TEST_SUITE_P(
    Malformed, ResponseText,
    ::testing::Values(
        // An unreadable part counts as 0.
        ResponseCase{"", "", kUnattended}, ResponseCase{"ZZ", "", "[Success]  Successful operation"},  // DESFire 91 00
        ResponseCase{"69ZZ", "", kNotAllowed + "no information given"},
        ResponseCase{"6A8", "", kP1P2 + "unknown error A8"},  // SW1 6A, SW2 A8: the last two characters
        ResponseCase{"6", "", kUnattended}, ResponseCase{"90", "", kUnattended},  // DESFire 0x90 has no text
        ResponseCase{"698200", "", kNotAllowed + "no information given"},
        ResponseCase{"63C", "", kChanged + "unknown error 3C"}));

}  // namespace
}  // namespace elatectwn4::command
