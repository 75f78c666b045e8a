// File management: the checks before anything is sent, the field encodings
// on the wire, and what the members make of the card's answers.
#include "desfire/files.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "apdu_fixture.h"

namespace elatectwn4::desfire {
namespace {

using desfire_test::Hex;
using desfire_test::MakeKey;
using desfire_test::SendMode;
using desfire_test::WithCrc;

const Key kSession = MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809");
const AccessRights kRights{1, 2, 3, 0};  // read, write, read&write, change
const AccessRights kFree{14, 14, 14, 14};
const AccessRights kBadChange{1, 2, 3, 16};
const AccessRights kBadRead{-1, 2, 3, 0};

using Call = std::function<sceReturnCode(Context&)>;

class DesfireFiles : public DesfireApdu {
protected:
    void Authenticated(bool yes = true) {
        session.Reset();
        if (yes) OpenSession(kSession, 0);
    }
};

TEST(DesfireFields, EncodeBytesLittleEndianFieldsAndRights) {
    EXPECT_EQ(ByteField(8), "08");
    EXPECT_EQ(ByteField(257), "01");
    EXPECT_EQ(ByteField(-1), "FF");
    EXPECT_EQ(LittleEndianField(32, 3), "200000");
    EXPECT_EQ(LittleEndianField(0xFFFFFF, 3), "FFFFFF");
    EXPECT_EQ(LittleEndianField(-10, 4), "F6FFFFFF");
    EXPECT_EQ(LittleEndianField(300, 4), "2C010000");
    EXPECT_EQ(kRights.Field(), "3012");
    EXPECT_EQ((AccessRights{15, 14, 13, 0}).Field(), "D0FE");
}

TEST_F(DesfireFiles, ChecksComeFirstInTheirOrderAndNothingIsSent) {
    std::string information = "unchanged";
    std::string ids = "unchanged";
    struct Row {
        bool authenticated;
        Call call;
        ErrorNumber number;
        std::string comFunction;
    };
    const Row rows[] = {
        {false, [&](Context& c) { return DESFireGetFileIDs(c, ids); }, ErrorNumber::NotAuthenticated,
         "DESFireGetFileIDs"},
        {false, [](Context& c) { return DESFireCreateStdDataFile(c, 16, 2, kBadChange, 0); },
         ErrorNumber::NotAuthenticated, "DESFireCreateStdDataFile"},
        // Several faults at once: the first in the order is reported.
        {true, [](Context& c) { return DESFireCreateStdDataFile(c, 16, 2, kBadChange, 0); },
         ErrorNumber::InvalidFileNumber, "DESFireCreateStdDataFile"},
        {true, [](Context& c) { return DESFireCreateStdDataFile(c, -1, 0, kRights, 1); },
         ErrorNumber::InvalidFileNumber, "DESFireCreateStdDataFile"},
        {true, [](Context& c) { return DESFireCreateStdDataFile(c, 15, 2, kBadChange, 0); },
         ErrorNumber::InvalidCommunicationSettings, "DESFireCreateStdDataFile"},
        {true, [](Context& c) { return DESFireCreateStdDataFile(c, 15, 3, kBadChange, 0); }, ErrorNumber::BadKeyNumber,
         "DESFireCreateStdDataFile"},
        {true, [](Context& c) { return DESFireCreateStdDataFile(c, 15, 1, kBadRead, 1); }, ErrorNumber::BadKeyNumber,
         "DESFireCreateStdDataFile"},
        {true, [](Context& c) { return DESFireCreateStdDataFile(c, 15, 0, kRights, 0); }, ErrorNumber::InvalidFileSize,
         "DESFireCreateStdDataFile"},
        {true, [](Context& c) { return DESFireCreateBackupDataFile(c, 0, 0, kRights, 0x1000000); },
         ErrorNumber::InvalidFileSize, "DESFireCreateBackupDataFile"},
        // Value and record files take only 0..7.
        {true, [](Context& c) { return DESFireCreateValueFile(c, 8, 0, kRights, 0, 0, 0, false); },
         ErrorNumber::InvalidFileNumber, "DESFireCreateValueFile"},
        {true, [](Context& c) { return DESFireCreateValueFile(c, 7, 0, kRights, 1, 0, 5, false); },
         ErrorNumber::InvalidLimits, "DESFireCreateValueFile"},
        {true, [](Context& c) { return DESFireCreateValueFile(c, 7, 0, kRights, -10, 100, -11, true); },
         ErrorNumber::ValueOutOfBounds, "DESFireCreateValueFile"},
        {true, [](Context& c) { return DESFireCreateValueFile(c, 7, 0, kRights, -10, 100, 101, true); },
         ErrorNumber::ValueOutOfBounds, "DESFireCreateValueFile"},
        {true, [](Context& c) { return DESFireCreateLinearRecordFile(c, 8, 0, kRights, 1, 1); },
         ErrorNumber::InvalidFileNumber, "DESFireCreateLinearRecordFile"},
        {true, [](Context& c) { return DESFireCreateLinearRecordFile(c, 7, 0, kRights, 0, 0); },
         ErrorNumber::InvalidRecordSize, "DESFireCreateLinearRecordFile"},
        {true, [](Context& c) { return DESFireCreateCyclicRecordFile(c, 7, 0, kRights, 0x1000000, 1); },
         ErrorNumber::InvalidRecordSize, "DESFireCreateCyclicRecordFile"},
        {true, [](Context& c) { return DESFireCreateCyclicRecordFile(c, 7, 0, kRights, 1, 0x1000000); },
         ErrorNumber::InvalidRecordCount, "DESFireCreateCyclicRecordFile"},
        {false, [](Context& c) { return DESFireDeleteFile(c, 16); }, ErrorNumber::NotAuthenticated,
         "DESFireDeleteFile"},
        {true, [](Context& c) { return DESFireDeleteFile(c, 16); }, ErrorNumber::InvalidFileNumber,
         "DESFireDeleteFile"},
        {true, [&](Context& c) { return DESFireGetFileSettings(c, 16, information); }, ErrorNumber::InvalidFileNumber,
         "DESFireGetFileSettings"},
        {true, [](Context& c) { return DESFireChangeFileSettings(c, 16, 256, kBadChange); },
         ErrorNumber::InvalidFileNumber, "DESFireChangeFileSettings"},
        {true, [](Context& c) { return DESFireChangeFileSettings(c, 15, 256, kBadChange); },
         ErrorNumber::InvalidCommunicationSettings, "DESFireChangeFileSettings"},
        {true, [](Context& c) { return DESFireChangeFileSettings(c, 15, -1, kRights); },
         ErrorNumber::InvalidCommunicationSettings, "DESFireChangeFileSettings"},
        {true, [](Context& c) { return DESFireChangeFileSettings(c, 15, 255, kBadChange); }, ErrorNumber::BadKeyNumber,
         "DESFireChangeFileSettings"},
        {false, DESFireCommitTransaction, ErrorNumber::NotAuthenticated, "DESFireCommitTransaction"},
        {false, DESFireAbortTransaction, ErrorNumber::NotAuthenticated, "DESFireAbortTransaction"},
    };
    for (const Row& row : rows) {
        Authenticated(row.authenticated);
        EXPECT_EQ(row.call(ctx), sceError) << row.comFunction;
        EXPECT_EQ(Record(), Line(row.number, row.comFunction));
    }
    EXPECT_TRUE(fake->Transmitted().empty());
    EXPECT_EQ(information, "unchanged");
    EXPECT_EQ(ids, "unchanged");
}

TEST_F(DesfireFiles, EachMemberSendsItsFieldsAndReadsTheAnswer) {
    std::string information = "unchanged";
    std::string ids = "unchanged";
    struct Row {
        Call call;
        std::vector<std::pair<std::string, std::string>> exchanges;
        std::string comFunction;
        std::function<void()> check;
    };
    const Row rows[] = {
        {[](Context& c) { return DESFireCreateStdDataFile(c, 8, dfcPlain, kRights, 32); },
         {{"CD 08 00 3012 200000", "00"}},
         "DESFireCreateStdDataFile",
         [] {}},
        {[](Context& c) { return DESFireCreateStdDataFile(c, 15, dfcCiphered, kFree, 0xFFFFFF); },
         {{"CD 0F 03 EEEE FFFFFF", "00"}},
         "DESFireCreateStdDataFile",
         [] {}},
        {[](Context& c) { return DESFireCreateBackupDataFile(c, 0, dfcPlainMac, AccessRights{}, 1); },
         {{"CB 00 01 0000 010000", "00"}},
         "DESFireCreateBackupDataFile",
         [] {}},
        {[](Context& c) { return DESFireCreateValueFile(c, 7, dfcPlain, kRights, -10, 100, 0, true); },
         {{"CC 07 00 3012 F6FFFFFF 64000000 00000000 01", "00"}},
         "DESFireCreateValueFile",
         [] {}},
        // Equal limits with the value on them are accepted.
        {[](Context& c) { return DESFireCreateValueFile(c, 0, dfcCiphered, kRights, 5, 5, 5, false); },
         {{"CC 00 03 3012 05000000 05000000 05000000 00", "00"}},
         "DESFireCreateValueFile",
         [] {}},
        {[](Context& c) { return DESFireCreateLinearRecordFile(c, 1, dfcCiphered, kRights, 0x123456, 2); },
         {{"C1 01 03 3012 563412 020000", "00"}},
         "DESFireCreateLinearRecordFile",
         [] {}},
        {[](Context& c) { return DESFireCreateCyclicRecordFile(c, 2, dfcPlainMac, kRights, 16, 0xFFFFFF); },
         {{"C0 02 01 3012 100000 FFFFFF", "00"}},
         "DESFireCreateCyclicRecordFile",
         [] {}},
        {[](Context& c) { return DESFireDeleteFile(c, 15); }, {{"DF 0F", "00"}}, "DESFireDeleteFile", [] {}},
        {[&](Context& c) { return DESFireGetFileIDs(c, ids); },
         {{"6F", "00 05 01 1F 03"}},
         "DESFireGetFileIDs",
         [&] { EXPECT_EQ(ids, "1,3,5,31"); }},
        {[&](Context& c) { return DESFireGetFileIDs(c, ids); },
         {{"6F", "00"}},
         "DESFireGetFileIDs",
         [&] { EXPECT_EQ(ids, ""); }},
        {[&](Context& c) { return DESFireGetFileSettings(c, 2, information); },
         {{"F5 02", "00 00 03 E1 12 200000"}},
         "DESFireGetFileSettings",
         [&] { EXPECT_EQ(information, "00 03 E1 12 20 00 00"); }},
        {[&](Context& c) { return DESFireGetFileSettings(c, 3, information); },
         {{"F5 03", "00 02 00 EEEE F6FFFFFF 64000000 00000000 01"}},
         "DESFireGetFileSettings",
         [&] { EXPECT_EQ(information, "02 00 EE EE F6 FF FF FF 64 00 00 00 00 00 00 00 01"); }},
        // A file type of its own needs at least type, settings and rights.
        {[&](Context& c) { return DESFireGetFileSettings(c, 1, information); },
         {{"F5 01", "00 05 00 E1 12"}},
         "DESFireGetFileSettings",
         [&] { EXPECT_EQ(information, "05 00 E1 12"); }},
        // Any settings byte is accepted for a change.
        {[](Context& c) { return DESFireChangeFileSettings(c, 15, 2, kRights); },
         {{"5F 0F 02 3012", "00"}},
         "DESFireChangeFileSettings",
         [] {}},
        {DESFireCommitTransaction, {{"C7", "00"}}, "DESFireCommitTransaction", [] {}},
        {DESFireAbortTransaction, {{"A7", "00"}}, "DESFireAbortTransaction", [] {}},
    };
    for (const Row& row : rows) {
        Authenticated();
        ScriptExchanges(row.exchanges);
        EXPECT_EQ(row.call(ctx), sceSuccess) << row.comFunction << ": " << Record();
        EXPECT_EQ(Record(), Cleared(row.comFunction));
        row.check();
    }
}

TEST_F(DesfireFiles, RefusalsAndMalformedAnswersEndInTheirOwnRecord) {
    std::string information = "unchanged";
    std::string ids = "unchanged";
    struct Row {
        Call call;
        std::string command, answer;
        std::string expected;  // the record line
    };
    const Row rows[] = {
        // Nothing to commit or abort is a failure of its own, without the card's words.
        {DESFireCommitTransaction, "C7", "0C", Line(ErrorNumber::NoChangesInBackup, "DESFireCommitTransaction")},
        {DESFireAbortTransaction, "A7", "0C", Line(ErrorNumber::NoChangesInBackup, "DESFireAbortTransaction")},
        {DESFireCommitTransaction, "C7", "AE",
         Line(ErrorNumber::OperationFailed, "DESFireCommitTransaction", "SCardTransmit:DesfireCommitTransaction",
              "AE")},
        {[&](Context& c) { return DESFireGetFileIDs(c, ids); }, "6F", "AE",
         Line(ErrorNumber::OperationFailed, "DESFireGetFileIDs", "SCardTransmit:DesfireGetFileIDs", "AE")},
        // File numbers run from 0 to 31, each at most once.
        {[&](Context& c) { return DESFireGetFileIDs(c, ids); }, "6F", "00 05 01 05",
         Line(ErrorNumber::OperationFailed, "DESFireGetFileIDs", "SCardTransmit:DesfireGetFileIDs", "00")},
        {[&](Context& c) { return DESFireGetFileIDs(c, ids); }, "6F", "00 01 20",
         Line(ErrorNumber::OperationFailed, "DESFireGetFileIDs", "SCardTransmit:DesfireGetFileIDs", "00")},
        {[&](Context& c) { return DESFireGetFileSettings(c, 1, information); }, "F501", "F0",
         Line(ErrorNumber::OperationFailed, "DESFireGetFileSettings", "SCardTransmit:DesfireGetFileSettings", "F0")},
        // A data file's record is 7 bytes, a value file's 17, a record file's 13.
        {[&](Context& c) { return DESFireGetFileSettings(c, 1, information); }, "F501", "00 00 03 E112 2000",
         Line(ErrorNumber::OperationFailed, "DESFireGetFileSettings", "SCardTransmit:DesfireGetFileSettings", "00")},
        {[&](Context& c) { return DESFireGetFileSettings(c, 1, information); }, "F501", "00 03 03 E112 010000 020000",
         Line(ErrorNumber::OperationFailed, "DESFireGetFileSettings", "SCardTransmit:DesfireGetFileSettings", "00")},
        {[](Context& c) { return DESFireDeleteFile(c, 1); }, "DF01", "F0",
         Line(ErrorNumber::OperationFailed, "DESFireDeleteFile", "SCardTransmit:DesfireDeleteFile", "F0")},
    };
    for (const Row& row : rows) {
        Authenticated();
        ScriptExchanges({{row.command, row.answer}});
        EXPECT_EQ(row.call(ctx), sceError) << row.command;
        EXPECT_EQ(Record(), row.expected);
    }
    EXPECT_EQ(information, "") << "emptied before the card is asked";
    EXPECT_EQ(ids, "unchanged");
}

TEST_F(DesfireFiles, ChangeFileSettingsSendsTheFormItsModeCallsFor) {
    // The enciphered form: settings (3), CRC, three zero bytes, in send mode.
    const std::string enciphered = "5F 04" + ToHex(SendMode(kSession, WithCrc(Hex("03 E1 12"))));
    const AccessRights rights{1, 2, 14, 1};
    const std::string plain = "5F 04 03 E112";
    const std::string settingsFreeChange = "00 00 00 EE 12 200000";
    const std::string settingsKeyChange = "00 00 00 E2 12 200000";
    struct Row {
        bool cardConformance;
        std::vector<std::pair<std::string, std::string>> exchanges;
        sceReturnCode result;
        std::string expected;
    };
    const Row rows[] = {
        {false, {{plain, "00"}}, sceSuccess, Cleared("DESFireChangeFileSettings")},
        // A refused plain form stays in the record when the enciphered one succeeds.
        {false,
         {{plain, "7E"}, {enciphered, "00"}},
         sceSuccess,
         Line(ErrorNumber::CommandFailed, "EncoderCommand", "SCardTransmit:DesfireChangeFileSettings", "7E")},
        {false,
         {{plain, "7E"}, {enciphered, "AE"}},
         sceError,
         Line(ErrorNumber::OperationFailed, "DESFireChangeFileSettings", "SCardTransmit:DesfireChangeFileSettings",
              "AE")},
        {true, {{"F504", settingsFreeChange}, {plain, "00"}}, sceSuccess, Cleared("DESFireChangeFileSettings")},
        {true, {{"F504", settingsKeyChange}, {enciphered, "00"}}, sceSuccess, Cleared("DESFireChangeFileSettings")},
        {true,
         {{"F504", settingsKeyChange}, {enciphered, "1E"}},
         sceError,
         Line(ErrorNumber::OperationFailed, "DESFireChangeFileSettings", "SCardTransmit:DesfireChangeFileSettings",
              "1E")},
        {true,
         {{"F504", "F0"}},
         sceError,
         Line(ErrorNumber::OperationFailed, "DESFireChangeFileSettings", "SCardTransmit:DesfireGetFileSettings", "F0")},
    };
    for (const Row& row : rows) {
        Authenticated();
        ctx.cardConformance = row.cardConformance;
        ScriptExchanges(row.exchanges);
        EXPECT_EQ(DESFireChangeFileSettings(ctx, 4, 3, rights), row.result);
        EXPECT_EQ(Record(), row.expected);
        EXPECT_EQ(fake->Pending(), 0u);
    }
}

}  // namespace
}  // namespace elatectwn4::desfire
