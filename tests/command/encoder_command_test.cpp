#include "command/encoder_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "command/pcsc_error_text.h"
#include "support/record_text.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::command {
namespace {

using test::Bytes;
using test::RecordText;
using test::ScriptedPcsc;

constexpr std::uint32_t kCommandFailed = 0x90010F04;
const std::string kInvalidParameterText = "One or more of the supplied parameters could not be properly interpreted.";

// One encoder session over the scripted reader.
class Session {
public:
    Session() { channel = Channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1, false, &error}; }

    sceReturnCode Run(std::uint32_t code, const Params& params = {}, bool more = false) {
        return EncoderCommand(channel, code, params, response, sw1sw2, more);
    }
    std::string ResponseHex() const { return test::Hex(Bytes(response)); }

    std::shared_ptr<ScriptedPcsc> fake = std::make_shared<ScriptedPcsc>();
    CError error;
    Channel channel;
    std::string response = "stale";
    std::string sw1sw2 = "stale";

private:
    static std::vector<std::uint8_t> Bytes(const std::string& s) { return {s.begin(), s.end()}; }
};

std::string Failure(const std::string& name, const std::string& reason) {
    return RecordText(kCommandFailed, "Encoder command failed", 0, "EncoderCommand", "SCardTransmit:" + name, reason);
}

// ---- Templates ----------------------------------------------------------------

struct TemplateCase {
    std::uint32_t code;
    Params params;
    std::string sent;
    std::string name;
    friend void PrintTo(const TemplateCase& c, std::ostream* os) { *os << c.name << " -> " << c.sent; }
};

// The answer refuses, so that the record also shows the name the command goes by.
class EveryCommand : public ::testing::TestWithParam<TemplateCase> {};

TEST_P(EveryCommand, SendsTheExactBytesAndGoesByItsName) {
    const TemplateCase& c = GetParam();
    Session s;
    const bool native = (c.code & 0xF00) == 0x400 || c.code == cmd::MoreResponseNative;
    s.fake->Expect(c.sent).Reply(native ? "9D" : "6A82");

    EXPECT_EQ(s.Run(c.code, c.params), sceError);
    EXPECT_EQ(RecordText(s.error), Failure(c.name, native ? "9D" : "6A82"));
    EXPECT_EQ(s.fake->Transmitted(), std::vector<std::string>{c.sent});
}

const std::string kChangeKeyData = "1F2E3D4C5B6A79880123456789ABCDEF0F1E2D3C4B5A6978";

INSTANTIATE_TEST_SUITE_P(
    CommandTable, EveryCommand,
    ::testing::Values(
        TemplateCase{cmd::SetSimpleProtocol, {}, "FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF", "SetSimpleProtocol"},
        TemplateCase{cmd::GetUID, {}, "FF CA 00 00 00", "GetUID"},
        TemplateCase{cmd::MoreResponseIso, {}, "90 AF 00 00 00", "MoreResponse"},
        TemplateCase{cmd::MoreResponseNative, {}, "AF", "MoreResponse"},
        // Key type B (2) is computed but LOAD KEYS has no place for it.
        TemplateCase{cmd::LoadKey, {2, 1, std::string("A0A1A2A3A4A5")}, "FF 82 00 01 06 A0 A1 A2 A3 A4 A5", "LoadKey"},
        TemplateCase{
            cmd::LoadKey, {1, 0x1F, std::string("d3f7d3f7d3f7")}, "FF 82 00 1F 06 D3 F7 D3 F7 D3 F7", "LoadKey"},
        // Slot and length keep their last two hex digits.
        TemplateCase{cmd::LoadKey,
                     {0, 0x123, std::string("0011223344556677")},
                     "FF 82 00 23 08 00 11 22 33 44 55 66 77",
                     "LoadKey"},
        TemplateCase{cmd::GeneralAuthenticate, {4, 1, 1}, "FF 86 00 00 05 01 00 04 60 01", "GeneralAuthenticate"},
        TemplateCase{cmd::GeneralAuthenticate, {63, 2, 1}, "FF 86 00 00 05 01 00 3F 61 01", "GeneralAuthenticate"},
        TemplateCase{cmd::GeneralAuthenticate, {0x1234, 3, 0}, "FF 86 00 00 05 01 12 34 60 00", "GeneralAuthenticate"},
        TemplateCase{cmd::GeneralAuthenticate,
                     {std::string("255"), std::string("2"), std::string("&h1f")},
                     "FF 86 00 00 05 01 00 FF 61 1F",
                     "GeneralAuthenticate"},
        TemplateCase{cmd::ReadBinary, {4}, "FF B0 00 04 00", "ReadBinary"},
        TemplateCase{cmd::ReadBinary, {256}, "FF B0 01 00 00", "ReadBinary"},
        TemplateCase{cmd::ReadBinary, {0x12345}, "FF B0 23 45 00", "ReadBinary"},
        TemplateCase{cmd::ReadBinary, {-1}, "FF B0 FF FF 00", "ReadBinary"},
        TemplateCase{cmd::ReadBinary, {std::string(" 12 ")}, "FF B0 00 0C 00", "ReadBinary"},
        TemplateCase{cmd::ReadBinary, {std::string("&H3F")}, "FF B0 00 3F 00", "ReadBinary"},
        TemplateCase{cmd::WriteBinary,
                     {5, std::string("00112233445566778899AABBCCDDEEFF")},
                     "FF D6 00 05 10 00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF",
                     "WriteBinary"},
        TemplateCase{cmd::SelectApplication, {std::string("000001")}, "5A 00 00 01", "SelectApplication"},
        TemplateCase{cmd::DesfireAuthenticateStart, {0}, "0A 00", "DesfireAuthenticate"},
        TemplateCase{cmd::DesfireAuthenticateStart, {13}, "0A 0D", "DesfireAuthenticate"},
        TemplateCase{cmd::DesfireAuthenticateToken,
                     {std::string("0011223344556677 8899AABBCCDDEEFF")},
                     "AF 00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF",
                     "DesfireAuthenticate"},
        TemplateCase{cmd::DesfireGetVersion, {}, "60", "DesfireGetVersion"},
        TemplateCase{cmd::DesfireFormat, {}, "FC", "DesfireFormat"},
        TemplateCase{cmd::DesfireGetApplications, {}, "6A", "DesfireGetApplications"},
        TemplateCase{cmd::DesfireCreateApplication,
                     {std::string("123456"), 0x0F, 3},
                     "CA 12 34 56 0F 03",
                     "DesfireCreateApplication"},
        TemplateCase{cmd::DesfireCreateApplication,
                     {std::string("000001"), 0xEF, std::string("14")},
                     "CA 00 00 01 EF 0E",
                     "DesfireCreateApplication"},
        TemplateCase{cmd::DesfireDeleteApplication, {std::string("123456")}, "DA 12 34 56", "DesfireDeleteApplication"},
        TemplateCase{cmd::DesfireGetKeyVersion, {std::string("01")}, "64 01", "DesfireGetKeyVersion"},
        TemplateCase{cmd::DesfireGetKeySettings, {}, "45", "DesfireGetKeySettings"},
        TemplateCase{cmd::DesfireChangeKey,
                     {std::string("00"), kChangeKeyData},
                     "C4 00 1F 2E 3D 4C 5B 6A 79 88 01 23 45 67 89 AB CD EF 0F 1E 2D 3C 4B 5A 69 78",
                     "DesfireChangeKey"},
        TemplateCase{cmd::DesfireChangeKeySettings, {std::string("0F")}, "54 0F", "DesfireChangeKeySettings"},
        TemplateCase{cmd::DesfireGetFileIDs, {}, "6F", "DesfireGetFileIDs"},
        TemplateCase{cmd::DesfireGetFileSettings, {std::string("01")}, "F5 01", "DesfireGetFileSettings"},
        // A number where hex text is expected is written in decimal.
        TemplateCase{cmd::DesfireGetFileSettings, {10}, "F5 10", "DesfireGetFileSettings"},
        TemplateCase{cmd::DesfireChangeFileSettingsPlain,
                     {std::string("01"), std::string("03"), std::string("1234")},
                     "5F 01 03 12 34",
                     "DesfireChangeFileSettings"},
        TemplateCase{cmd::DesfireChangeFileSettingsCiphered,
                     {std::string("02"), std::string("0011223344556677")},
                     "5F 02 00 11 22 33 44 55 66 77",
                     "DesfireChangeFileSettings"},
        TemplateCase{cmd::DesfireCreateStdDataFile,
                     {std::string("01"), std::string("00"), std::string("EEEE"), std::string("200000")},
                     "CD 01 00 EE EE 20 00 00",
                     "DesfireCreateStdDataFile"},
        TemplateCase{cmd::DesfireCreateBackupDataFile,
                     {std::string("02"), std::string("01"), std::string("1234"), std::string("400000")},
                     "CB 02 01 12 34 40 00 00",
                     "DesfireCreateBackupDataFile"},
        TemplateCase{cmd::DesfireCreateValueFile,
                     {std::string("03"), std::string("01"), std::string("0000"), std::string("00000000"),
                      std::string("E8030000"), std::string("64000000"), std::string("01")},
                     "CC 03 01 00 00 00 00 00 00 E8 03 00 00 64 00 00 00 01",
                     "DesfireCreateValueFile"},
        TemplateCase{
            cmd::DesfireCreateLinearRecordFile,
            {std::string("04"), std::string("00"), std::string("1111"), std::string("100000"), std::string("050000")},
            "C1 04 00 11 11 10 00 00 05 00 00",
            "DesfireCreateLinearRecordFile"},
        TemplateCase{
            cmd::DesfireCreateCyclicRecordFile,
            {std::string("05"), std::string("03"), std::string("2222"), std::string("080000"), std::string("030000")},
            "C0 05 03 22 22 08 00 00 03 00 00",
            "DesfireCreateCyclicRecordFile"},
        TemplateCase{cmd::DesfireDeleteFile, {std::string("05")}, "DF 05", "DesfireDeleteFile"},
        TemplateCase{cmd::DesfireReadData,
                     {std::string("01"), std::string("000000"), std::string("100000")},
                     "BD 01 00 00 00 10 00 00",
                     "DesfireReadData"},
        // [LENGTH] is computed from P1 but has no place in the payload commands.
        TemplateCase{cmd::DesfireWriteData,
                     {std::string(""), std::string("05"), std::string("01000000050000AABBCCDDEE")},
                     "3D 01 00 00 00 05 00 00 AA BB CC DD EE",
                     "DesfireWriteData"},
        TemplateCase{cmd::DesfireReadRecords,
                     {std::string("04"), std::string("010000"), std::string("020000")},
                     "BB 04 01 00 00 02 00 00",
                     "DesfireReadRecords"},
        TemplateCase{cmd::DesfireWriteRecord,
                     {std::string(""), 3, std::string("04000000030000112233")},
                     "3B 04 00 00 00 03 00 00 11 22 33",
                     "DesfireWriteRecord"},
        TemplateCase{cmd::DesfireClearRecordFile, {std::string("06")}, "EB 06", "DesfireClearRecordFile"},
        TemplateCase{cmd::DesfireGetValue, {std::string("07")}, "6C 07", "DesfireGetValue"},
        TemplateCase{
            cmd::DesfireDebit, {std::string(""), 5, std::string("0764000000")}, "DC 07 64 00 00 00", "DesfireDebit"},
        TemplateCase{
            cmd::DesfireCredit, {std::string(""), 5, std::string("07E8030000")}, "0C 07 E8 03 00 00", "DesfireCredit"},
        TemplateCase{cmd::DesfireLimitedCredit,
                     {std::string(""), 5, std::string("070A000000")},
                     "1C 07 0A 00 00 00",
                     "DesfireLimitedCredit"},
        TemplateCase{cmd::DesfireCommitTransaction, {}, "C7", "DesfireCommitTransaction"},
        TemplateCase{cmd::DesfireAbortTransaction, {}, "A7", "DesfireAbortTransaction"},
        TemplateCase{cmd::DesfireContinue,
                     {std::string("DesfireWriteData"), 3, std::string("AABBCC")},
                     "AF AA BB CC",
                     "DesfireWriteData"}));

TEST(Placeholders, AreMatchedWithoutRegardToCaseAndReplacedEverywhereInTurn) {
    // A value that itself holds later placeholders gets them filled by the
    // later substitutions, whatever their case: the template is filled one
    // placeholder after the other over the whole text.
    Session s;
    s.fake->Expect("5F 03 03 03 12 34").Reply("00");
    EXPECT_EQ(s.Run(cmd::DesfireChangeFileSettingsPlain,
                    {std::string("[comm_set][Comm_Set]"), std::string("03"), std::string("1234")}),
              sceSuccess);
}

TEST(Placeholders, ThatTheTemplateLacksNeedNoParameter) {
    // LoadKey never places its key type, so an unreadable one goes unnoticed.
    Session s;
    s.fake->Expect("FF 82 00 01 06 A0 A1 A2 A3 A4 A5").Reply("9000");
    EXPECT_EQ(s.Run(cmd::LoadKey, {std::string("key B"), 1, std::string("A0A1A2A3A4A5")}), sceSuccess);
}

struct BadParamsCase {
    std::uint32_t code;
    Params params;
    std::string name;
    friend void PrintTo(const BadParamsCase& c, std::ostream* os) {
        *os << c.name << " with " << c.params.size() << " parameter(s)";
    }
};

class UnusableParameters : public ::testing::TestWithParam<BadParamsCase> {};

TEST_P(UnusableParameters, FailAsAnInvalidParameterWithoutSendingAnything) {
    const BadParamsCase& c = GetParam();
    Session s;
    EXPECT_EQ(s.Run(c.code, c.params), sceError);
    EXPECT_EQ(RecordText(s.error), Failure(c.name, kInvalidParameterText));
    EXPECT_TRUE(s.fake->Transmitted().empty());
    EXPECT_EQ(s.response, "");
    EXPECT_EQ(s.sw1sw2, "FFFF");
}

INSTANTIATE_TEST_SUITE_P(
    MissingOrNotNumbers, UnusableParameters,
    ::testing::Values(BadParamsCase{cmd::ReadBinary, {}, "ReadBinary"},
                      BadParamsCase{cmd::ReadBinary, {std::string("x4")}, "ReadBinary"},
                      BadParamsCase{cmd::ReadBinary, {std::string("4.5")}, "ReadBinary"},
                      BadParamsCase{cmd::ReadBinary, {std::string("")}, "ReadBinary"},
                      BadParamsCase{cmd::LoadKey, {2, 1}, "LoadKey"},
                      BadParamsCase{cmd::GeneralAuthenticate, {4, 1}, "GeneralAuthenticate"},
                      BadParamsCase{cmd::DesfireAuthenticateStart, {std::string("zero")}, "DesfireAuthenticate"},
                      BadParamsCase{cmd::DesfireWriteData, {std::string("01"), 5}, "DesfireWriteData"},
                      BadParamsCase{cmd::DesfireCreateValueFile,
                                    {std::string("01"), std::string("00"), std::string("0000")},
                                    "DesfireCreateValueFile"},
                      BadParamsCase{cmd::Escape, {}, "Escape"},
                      // Blanks only: the hex parse yields no byte to send.
                      BadParamsCase{cmd::Escape, {std::string("   ")}, "Escape"}));

// ---- Codes that never reach the card ------------------------------------------

TEST(EmptyTemplates, AlwaysFailWithTheInvalidParameterText) {
    for (const auto& [code, params, name] :
         {BadParamsCase{cmd::ReaderAuthenticate, {std::string("00:11:22:33:44:55")}, "ReaderAuthenticate"},
          BadParamsCase{cmd::DesfireAuthenticate,
                        {std::string("00"), std::string("000000"), std::string("0011223344556677"),
                         std::string("0011223344556677"), std::string("0011223344556677")},
                        "DesfireAuthenticate"}}) {
        Session s;
        EXPECT_EQ(s.Run(code, params), sceError) << name;
        EXPECT_EQ(RecordText(s.error), Failure(name, kInvalidParameterText));
        EXPECT_TRUE(s.fake->Calls().empty());
        EXPECT_FALSE(s.channel.readerAuthenticated);
    }
}

TEST(UnknownCodes, FailWithAnEmptyCommandNameAndSendNothing) {
    for (std::uint32_t code : {0x000u, 0x100u, 0x103u, 0x205u, 0x305u, 0x40Au, 0x410u, 0x415u, 0x420u, 0x42Bu, 0x430u,
                               0x43Cu, 0x440u, 0x442u, 0x501u, 0xFFFFFFFFu}) {
        Session s;
        EXPECT_EQ(s.Run(code, {std::string("00")}), sceError) << std::hex << code;
        EXPECT_EQ(RecordText(s.error), Failure("", kInvalidParameterText)) << std::hex << code;
        EXPECT_TRUE(s.fake->Calls().empty());
        EXPECT_EQ(CommandName(code), "");
    }
}

TEST(SessionState, ClosedEncoderAndMissingCardAreReportedBeforeAnythingElse) {
    struct Case {
        PcscHandle context, card;
        std::string record;
    };
    for (const auto& [context, card, record] :
         {Case{0, 0x2001, RecordText(0x90010F01, "Encoder is closed", 0, "EncoderCommand", "", "")},
          Case{0, 0, RecordText(0x90010F01, "Encoder is closed", 0, "EncoderCommand", "", "")},
          Case{0x1001, 0, RecordText(0x90010F06, "No card in encoder", 0, "EncoderCommand", "", "")}}) {
        Session s;
        s.channel.context = context;
        s.channel.card = card;
        s.error = CError{1, "old", 2, "Old", "OldCommand", "OldCode"};
        // Even an unknown code is refused for the session first.
        EXPECT_EQ(s.Run(0x999), sceError);
        EXPECT_EQ(RecordText(s.error), record);
        EXPECT_EQ(s.response, "");
        EXPECT_EQ(s.sw1sw2, "FFFF");
        EXPECT_TRUE(s.fake->Calls().empty());
    }
}

// ---- Status judgement -----------------------------------------------------------

struct StatusCase {
    std::uint32_t code;
    std::string answer;
    sceReturnCode result;
    std::string responseHex;
    std::string sw1sw2;
    friend void PrintTo(const StatusCase& c, std::ostream* os) {
        *os << std::hex << c.code << " answered " << c.answer;
    }
};

class AnswerStatus : public ::testing::TestWithParam<StatusCase> {};

TEST_P(AnswerStatus, DecidesSuccessAndSplitsDataFromStatus) {
    const StatusCase& c = GetParam();
    Session s;
    const std::string sent = c.code == cmd::GetUID ? "FF CA 00 00 00" : "60";
    s.fake->Expect(sent).Reply(c.answer);
    EXPECT_EQ(s.Run(c.code), c.result);
    EXPECT_EQ(s.ResponseHex(), c.responseHex);
    EXPECT_EQ(s.sw1sw2, c.sw1sw2);
    if (c.result == sceSuccess) {
        EXPECT_EQ(s.error.Number, 0);
    } else {
        const std::string name = c.code == cmd::GetUID ? "GetUID" : "DesfireGetVersion";
        EXPECT_EQ(RecordText(s.error), Failure(name, c.sw1sw2));
    }
}

INSTANTIATE_TEST_SUITE_P(IsoAndNative, AnswerStatus,
                         ::testing::Values(
                             // ISO answers: the last two bytes are the status.
                             StatusCase{cmd::GetUID, "04 A1 B2 C3 90 00", sceSuccess, "04 A1 B2 C3", "9000"},
                             StatusCase{cmd::GetUID, "90 00", sceSuccess, "", "9000"},
                             StatusCase{cmd::GetUID, "91 00", sceSuccess, "", "9100"},
                             StatusCase{cmd::GetUID, "01 91 01", sceSuccess, "01", "9101"},
                             StatusCase{cmd::GetUID, "01 02 91 AF", sceSuccess, "01 02", "91AF"},
                             StatusCase{cmd::GetUID, "69 82", sceError, "", "6982"},
                             StatusCase{cmd::GetUID, "11 22 63 00", sceError, "", "6300"},
                             StatusCase{cmd::GetUID, "00 00", sceError, "", "0000"},
                             StatusCase{cmd::GetUID, "90 01", sceError, "", "9001"},
                             // A native status byte means nothing in an ISO answer.
                             StatusCase{cmd::GetUID, "AF", sceError, "", ""},
                             // Native answers: the first byte is the status.
                             StatusCase{cmd::DesfireGetVersion, "00", sceSuccess, "", "00"},
                             StatusCase{cmd::DesfireGetVersion, "00 04 01 01", sceSuccess, "04 01 01", "00"},
                             StatusCase{cmd::DesfireGetVersion, "AF 04 01 01", sceSuccess, "04 01 01", "AF"},
                             StatusCase{cmd::DesfireGetVersion, "AE", sceError, "", "AE"},
                             StatusCase{cmd::DesfireGetVersion, "0C", sceError, "", "0C"},
                             StatusCase{cmd::DesfireGetVersion, "90 00", sceError, "", "90"},
                             StatusCase{cmd::DesfireGetVersion, "91 AF", sceError, "", "91"}));

TEST(AnswerStatus, EmptyAnswerSucceedsWithNothingReceived) {
    Session s;
    s.fake->Expect("FF CA 00 00 00").Reply("");
    EXPECT_EQ(s.Run(cmd::GetUID), sceSuccess);
    EXPECT_EQ(s.response, "");
    EXPECT_EQ(s.sw1sw2, "FFFF");
}

TEST(AnswerStatus, NineThousandAfterAnOrdinaryCommandLeavesTheReaderUnauthenticated) {
    Session s;
    s.fake->Expect("FF CA 00 00 00").Reply("01 02 03 04 90 00");
    EXPECT_EQ(s.Run(cmd::GetUID), sceSuccess);
    EXPECT_FALSE(s.channel.readerAuthenticated);
}

// ---- Escape -----------------------------------------------------------------------

TEST(Escape, ReturnsTheWholeRawAnswerWithoutJudgingIt) {
    for (const std::string answer : {"04 A1 B2 C3 90 00", "6A 81", "AF"}) {
        Session s;
        s.fake->Expect("FF CA 00 00 00").Reply(answer);
        EXPECT_EQ(s.Run(cmd::Escape, {std::string("FF CA 00 00 00")}), sceSuccess) << answer;
        EXPECT_EQ(s.ResponseHex(), answer);
        EXPECT_EQ(s.sw1sw2, "");
        EXPECT_EQ(s.error.Number, 0);
    }
}

TEST(Escape, IsRecognisedByNameSoAContinuationNamedEscapeActsAlike) {
    Session s;
    s.fake->Expect("AF 01").Reply("6A 81");
    EXPECT_EQ(s.Run(cmd::DesfireContinue, {std::string("Escape"), 1, std::string("01")}), sceSuccess);
    EXPECT_EQ(s.ResponseHex(), "6A 81");
    EXPECT_EQ(s.sw1sw2, "");
}

TEST(Escape, OddDigitCountsAndNonHexPairsAreReadTheWayTheHexParserReadsThem) {
    Session s;
    s.fake->Expect("0F CA").Reply("90 00");
    s.fake->Expect("00 01").Reply("90 00");
    EXPECT_EQ(s.Run(cmd::Escape, {std::string("F CA")}), sceSuccess);
    EXPECT_EQ(s.Run(cmd::Escape, {std::string("ZZ01")}), sceSuccess);
}

// ---- Continuation ----------------------------------------------------------------

TEST(Continuation, IsoFramesAreFetchedWithMoreResponseAndConcatenated) {
    Session s;
    s.fake->Expect("FF CA 00 00 00").Reply("01 02 91 AF");
    s.fake->Expect("90 AF 00 00 00").Reply("03 91 AF");
    s.fake->Expect("90 AF 00 00 00").Reply("04 05 90 00");
    EXPECT_EQ(s.Run(cmd::GetUID, {}, true), sceSuccess);
    EXPECT_EQ(s.ResponseHex(), "01 02 03 04 05");
    EXPECT_EQ(s.sw1sw2, "9000");
}

TEST(Continuation, NativeFramesAreFetchedWithAfAndConcatenated) {
    Session s;
    s.fake->Expect("60").Reply("AF 04 01 01 01 00 1A 05");
    s.fake->Expect("AF").Reply("AF 04 01 01 01 04 1A 05");
    s.fake->Expect("AF").Reply("00 04 A1 B2 C3 D4 E5 F6");
    EXPECT_EQ(s.Run(cmd::DesfireGetVersion, {}, true), sceSuccess);
    EXPECT_EQ(s.ResponseHex(), "04 01 01 01 00 1A 05 04 01 01 01 04 1A 05 04 A1 B2 C3 D4 E5 F6");
    EXPECT_EQ(s.sw1sw2, "00");
}

TEST(Continuation, IsLeftToTheCallerWhenNotAskedFor) {
    Session s;
    s.fake->Expect("60").Reply("AF 04 01");
    EXPECT_EQ(s.Run(cmd::DesfireGetVersion, {}, false), sceSuccess);
    EXPECT_EQ(s.ResponseHex(), "04 01");
    EXPECT_EQ(s.sw1sw2, "AF");
    EXPECT_EQ(s.fake->Transmitted().size(), 1u);
}

TEST(Continuation, RefusedFrameDropsEverythingGatheredAndNamesMoreResponse) {
    Session s;
    s.fake->Expect("BD 01 00 00 00 00 00 00").Reply("AF 11 22 33");
    s.fake->Expect("AF").Reply("7E");
    EXPECT_EQ(s.Run(cmd::DesfireReadData, {std::string("01"), std::string("000000"), std::string("000000")}, true),
              sceError);
    EXPECT_EQ(s.response, "");
    EXPECT_EQ(s.sw1sw2, "7E");
    EXPECT_EQ(RecordText(s.error), Failure("MoreResponse", "7E"));
}

TEST(Continuation, TransmissionFailureKeepsThePreviousStatus) {
    Session s;
    s.fake->Expect("FF CA 00 00 00").Reply("01 91 AF");
    s.fake->Expect("90 AF 00 00 00").Fail(pcsc_code::RemovedCard);
    EXPECT_EQ(s.Run(cmd::GetUID, {}, true), sceError);
    EXPECT_EQ(s.response, "");
    EXPECT_EQ(s.sw1sw2, "91AF");
    EXPECT_EQ(
        RecordText(s.error),
        Failure("MoreResponse", "The smart card has been removed, so that further communication is not possible."));
}

std::string NativeFrame(std::uint8_t status, std::size_t dataBytes) {
    std::string hex = test::Hex(std::vector<std::uint8_t>{status});
    for (std::size_t i = 0; i < dataBytes; ++i)
        hex += i % 2 ? "5A" : "A5";
    return hex;
}

TEST(Continuation, EndlessFramesStopAfterTheFrameLimit) {
    Session s;
    s.fake->Expect("60").Reply("AF 01");
    s.fake->Expect("AF").Reply("AF 01").Times(MaxContinuationFrames);
    EXPECT_EQ(s.Run(cmd::DesfireGetVersion, {}, true), sceError);
    EXPECT_EQ(s.fake->Transmitted().size(), 1u + MaxContinuationFrames);
    EXPECT_EQ(s.fake->Pending(), 0u);
    EXPECT_EQ(s.response, "");
    EXPECT_EQ(RecordText(s.error), Failure("MoreResponse", "Too many continuation frames"));
}

TEST(Continuation, TheLastFrameAllowedMayStillEndTheAnswer) {
    Session s;
    s.fake->Expect("60").Reply("AF 01");
    s.fake->Expect("AF").Reply("AF 01").Times(MaxContinuationFrames - 1);
    s.fake->Expect("AF").Reply("00 01");
    EXPECT_EQ(s.Run(cmd::DesfireGetVersion, {}, true), sceSuccess);
    EXPECT_EQ(s.response, std::string(1 + MaxContinuationFrames, '\x01'));
}

TEST(Continuation, StopsOnceTheGatheredDataReachesTheLimit) {
    // Full frames of 4095 data bytes: 16 stay below 64 KiB, the 17th passes it.
    constexpr std::size_t kData = pcsc_const::MaxAnswer - 1;
    constexpr std::size_t kFramesBelow = MaxGatheredBytes / kData;
    static_assert(kFramesBelow * kData < MaxGatheredBytes && (kFramesBelow + 1) * kData >= MaxGatheredBytes);

    Session s;
    s.fake->Expect("60").Reply(NativeFrame(0xAF, kData));
    s.fake->Expect("AF").Reply(NativeFrame(0xAF, kData)).Times(kFramesBelow);
    EXPECT_EQ(s.Run(cmd::DesfireGetVersion, {}, true), sceError);
    EXPECT_EQ(s.fake->Transmitted().size(), kFramesBelow + 1);
    EXPECT_EQ(RecordText(s.error), Failure("MoreResponse", "Too much data in continuation frames"));

    Session ends;
    ends.fake->Expect("60").Reply(NativeFrame(0xAF, kData));
    ends.fake->Expect("AF").Reply(NativeFrame(0xAF, kData)).Times(kFramesBelow - 1);
    ends.fake->Expect("AF").Reply(NativeFrame(0x00, kData));
    EXPECT_EQ(ends.Run(cmd::DesfireGetVersion, {}, true), sceSuccess);
    EXPECT_EQ(ends.response.size(), (kFramesBelow + 1) * kData);
}

// ---- Transmission failures --------------------------------------------------------

TEST(TransmissionFailure, CarriesThePcscTextAndNoDllError) {
    for (std::uint32_t code : {pcsc_code::RemovedCard, pcsc_code::NotReady, pcsc_code::InvalidHandle, 0x80100016u}) {
        Session s;
        s.fake->Expect("FF B0 00 01 00").Fail(code);
        EXPECT_EQ(s.Run(cmd::ReadBinary, {1}), sceError);
        EXPECT_EQ(RecordText(s.error), Failure("ReadBinary", PCSCErrorText(code)));
        EXPECT_EQ(s.response, "");
        EXPECT_EQ(s.sw1sw2, "FFFF");
    }
}

TEST(TransmissionFailure, AnAnswerLongerThanTheBufferIsRefusedNotRead) {
    Session s;
    s.fake->Expect("FF CA 00 00 00").Reply("01 02 90 00").ReportLength(pcsc_const::MaxAnswer + 1);
    EXPECT_EQ(s.Run(cmd::GetUID), sceError);
    EXPECT_EQ(RecordText(s.error), Failure("GetUID", "Answer longer than the receive buffer"));
    EXPECT_EQ(s.response, "");
}

TEST(TransmissionFailure, AnExceptionFromTheBoundaryBecomesTheRecord) {
    class Throwing : public ScriptedPcsc {
    public:
        std::uint32_t Transmit(PcscHandle, std::uint32_t, std::span<const std::uint8_t>, std::span<std::uint8_t>,
                               std::size_t&) override {
            throw std::runtime_error("driver crashed");
        }
    };
    Session s;
    auto throwing = std::make_shared<Throwing>();
    s.channel.pcsc = throwing.get();
    EXPECT_EQ(s.Run(cmd::GetUID), sceError);
    EXPECT_EQ(RecordText(s.error), RecordText(5, "Unexpected error: driver crashed", 0, "EncoderCommand", "", ""));
    EXPECT_EQ(s.response, "");
}

TEST(TransmissionFailure, WithoutAnErrorRecordStillReturnsError) {
    Session s;
    s.channel.error = nullptr;
    s.fake->Expect("FF CA 00 00 00").Reply("6A 81");
    EXPECT_EQ(s.Run(cmd::GetUID), sceError);
    EXPECT_EQ(s.sw1sw2, "6A81");
}

TEST(Transmission, UsesTheProtocolTheReaderAgreedToAndT1Otherwise) {
    for (const auto& [active, expected] : {std::pair{0u, 2u}, std::pair{1u, 1u}, std::pair{2u, 2u}}) {
        Session s;
        s.channel.activeProtocol = active;
        s.fake->Expect("FF CA 00 00 00").Reply("90 00");
        EXPECT_EQ(s.Run(cmd::GetUID), sceSuccess);
        ASSERT_EQ(s.fake->Calls().size(), 1u);
        EXPECT_EQ(s.fake->Calls()[0].detail, "card=0x2001 protocol=" + std::to_string(expected) + " FF CA 00 00 00");
    }
}

}  // namespace
}  // namespace elatectwn4::command
