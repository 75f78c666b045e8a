// The members against the scripted card: the checks before anything is sent,
// the exact frames, and what they make of the card's answers.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "apdu_fixture.h"
#include "command/error_record.h"
#include "desfire/exchange.h"
#include "desfire/files.h"
#include "desfire/transfer.h"
#include "desfire/values.h"

namespace elatectwn4::desfire {
namespace {

using E = ErrorNumber;

const AccessRights kRights{1, 2, 3, 0};  // read, write, read&write, change
const AccessRights kFree{14, 14, 14, 14};
const AccessRights kBadChange{1, 2, 3, 16};
const AccessRights kBadRead{-1, 2, 3, 0};
const std::string key16 = "0011223344556677", key32 = ToHex(kSession);

// The version record of the simulated EV1 with storage code `storage`.
Bytes Version(std::uint8_t storage = 0x18) {
    return Concat({Hex("04 01 01 01 00 18 05 04 01 01 01 04"), Bytes{storage},
                   Hex("05 04 5A 3B 2C 1D 0E 80 BA 45 12 60 30 2C 13")});
}

class DesfireMembers : public DesfireApdu {
protected:
    // The out-arguments the rows write.
    std::string text = "unchanged";
    Variant information;
    std::int32_t number = -7, count = -7;
};

TEST(DesfireStatus, TheWrappedFormOfAStatusIsTheSameAnswer) {
    using command::StatusWord;
    for (const auto& [status, code, same] : {std::tuple{StatusWord::Iso(0x91AF), 0xAF, true},
                                             {StatusWord::Iso(0x9000), 0x00, false},
                                             {StatusWord::Native(0x0C), 0x00, false}}) {
        Reply reply;
        reply.status = status;
        EXPECT_EQ(reply.IsStatus(static_cast<std::uint8_t>(code)), same) << reply.StatusText();
    }
}

TEST_F(DesfireMembers, ChecksComeFirstInTheirOrderAndNothingIsSent) {
    const struct {
        std::string application;  // the session's; "" = none
        Call call;
        const char* member;
        E number;
    } rows[] = {
        {"", CALL(DESFireSelectApplication, "A1B2C3D4", 0, key16), E::IncorrectApplicationId},
        {"", CALL(DESFireSelectApplication, "A1B2G3", 99, "XX"), E::IncorrectApplicationId},
        {"", CALL(DESFireSelectApplication, kApp, 14, "XX"), E::BadKeyNumber},
        {"", CALL(DESFireSelectApplication, kApp, 0, "11223344556677XX"), E::InvalidKey},
        {"", CALL(DESFireSelectApplication, kApp, 0, std::string(17, '1')), E::BadKeyLength},
        {"", CALL(DESFireSelectApplication, kApp, 0, std::string(33, '1')), E::BadKeyLength},
        {kApp, CALL(DESFireFormat), E::RootLevelOnly},
        {kApp, CALL(DESFireCreateApplication, "000000", 0, 14), E::RootLevelOnly},
        {kCard, CALL(DESFireCreateApplication, "00 00 00", 0, 1), E::IncorrectApplicationId},
        {kCard, CALL(DESFireCreateApplication, kApp, 255, 0), E::InvalidParameter},
        {kCard, CALL(DESFireCreateApplication, kApp, -1, 1), E::InvalidParameter},
        {kCard, CALL(DESFireCreateApplication, kApp, 0, 15), E::InvalidParameter},
        {"", CALL(DESFireDeleteApplication, "000000"), E::IncorrectApplicationId},
        {"", CALL(DESFireGetVersion, 28, information), E::InvalidParameter},
        {"", CALL(DESFireChangeKey, 0, key16, key16), E::NotAuthenticated},
        {kCard, CALL(DESFireChangeKey, 1, key16, key16), E::BadKeyNumber},
        {kApp, CALL(DESFireChangeKey, 14, "", ""), E::BadKeyNumber},
        {kApp, CALL(DESFireChangeKey, 13, key16.substr(1), "XX"), E::BadKeyLength},
        {kApp, CALL(DESFireChangeKey, 13, "00112233445566GG", key32), E::BadKeyLength},
        {"", CALL(DESFireGetKeyVersion, 0, number), E::NotAuthenticated},
        {kCard, CALL(DESFireGetKeyVersion, 1, number), E::BadKeyNumber},
        {"", CALL(DESFireGetKeySettings, number, count), E::NotAuthenticated},
        {"", CALL(DESFireChangeKeySettings, 0x0F), E::NotAuthenticated},
        {kApp, CALL(DESFireChangeKeySettings, 256), E::InvalidParameter},
        {"", CALL(DESFireGetFileIDs, text), E::NotAuthenticated},
        {"", CALL(DESFireCreateStdDataFile, 16, 2, kBadChange, 0), E::NotAuthenticated},
        // Several faults at once: the first in the order is reported.
        {kApp, CALL(DESFireCreateStdDataFile, 16, 2, kBadChange, 0), E::InvalidFileNumber},
        {kApp, CALL(DESFireCreateStdDataFile, 15, 2, kBadChange, 0), E::InvalidCommunicationSettings},
        {kApp, CALL(DESFireCreateStdDataFile, 15, 3, kBadChange, 0), E::BadKeyNumber},
        {kApp, CALL(DESFireCreateStdDataFile, 15, 1, kBadRead, 1), E::BadKeyNumber},
        {kApp, CALL(DESFireCreateStdDataFile, 15, 0, kRights, 0), E::InvalidFileSize},
        {kApp, CALL(DESFireCreateBackupDataFile, 0, 0, kRights, 0x1000000), E::InvalidFileSize},
        // Value and record files take only 0..7.
        {kApp, CALL(DESFireCreateValueFile, 8, 0, kRights, 0, 0, 0, false), E::InvalidFileNumber},
        {kApp, CALL(DESFireCreateValueFile, 7, 0, kRights, 1, 0, 5, false), E::InvalidLimits},
        {kApp, CALL(DESFireCreateValueFile, 7, 0, kRights, -10, 100, 101, true), E::ValueOutOfBounds},
        {kApp, CALL(DESFireCreateLinearRecordFile, 8, 0, kRights, 1, 1), E::InvalidFileNumber},
        {kApp, CALL(DESFireCreateLinearRecordFile, 7, 0, kRights, 0, 0), E::InvalidRecordSize},
        {kApp, CALL(DESFireCreateCyclicRecordFile, 7, 0, kRights, 1, 0x1000000), E::InvalidRecordCount},
        {"", CALL(DESFireDeleteFile, 16), E::NotAuthenticated},
        {kApp, CALL(DESFireDeleteFile, 16), E::InvalidFileNumber},
        {kApp, CALL(DESFireGetFileSettings, 16, text), E::InvalidFileNumber},
        {kApp, CALL(DESFireChangeFileSettings, 16, 256, kBadChange), E::InvalidFileNumber},
        {kApp, CALL(DESFireChangeFileSettings, 15, 256, kBadChange), E::InvalidCommunicationSettings},
        {kApp, CALL(DESFireChangeFileSettings, 15, 255, kBadChange), E::BadKeyNumber},
        {"", CALL(DESFireCommitTransaction), E::NotAuthenticated},
        {"", CALL(DESFireAbortTransaction), E::NotAuthenticated},
        {"", CALL(DESFireWriteData, 16, -1, -1, "", true), E::NotAuthenticated},
        {kApp, CALL(DESFireWriteData, 16, -1, -1, "", true), E::InvalidFileNumber},
        {kApp, CALL(DESFireWriteData, 15, -1, -1, "", true), E::InvalidOffset},
        {kApp, CALL(DESFireReadData, 15, 0x1000000, 0, text, true), E::InvalidOffset},
        {kApp, CALL(DESFireWriteRecord, 15, 0xFFFFFF, -1, "", true), E::InvalidLength},
        {kApp, CALL(DESFireWriteData, 15, 0, 0x1000000, "", true), E::InvalidLength},
        // A length taken from the text must fit its three bytes as well.
        {kApp, CALL(DESFireWriteData, 0, 0, 0, std::string(0x1000000, '0'), true), E::InvalidLength},
        {kApp, CALL(DESFireReadRecords, 0, 0, -1, text, true), E::InvalidLength},
        {"", CALL(DESFireGetValue, 8, number), E::NotAuthenticated},
        {kApp, CALL(DESFireGetValue, 8, number), E::InvalidFileNumber},
        {kApp, CALL(DESFireDebit, 8, -1), E::InvalidFileNumber},
        {kApp, CALL(DESFireDebit, 7, -1), E::InvalidAmount},
        {"", CALL(DESFireClearRecordFile, 1), E::NotAuthenticated},
    };
    for (const auto& row : rows) {
        Play({}, row.application);
        EXPECT_EQ(row.call(ctx), sceError) << row.member;
        EXPECT_EQ(Record(), Line(row.number, row.member));
        EXPECT_TRUE(fake->Transmitted().empty()) << row.member;
    }
    EXPECT_EQ(text, "unchanged");
    EXPECT_EQ(number, -7);
    EXPECT_EQ(count, -7);
}

TEST_F(DesfireMembers, EachMemberSendsItsFieldsAndReadsTheAnswerOrEndsInItsOwnRecord) {
    const std::string none = "unchanged|-7|-7";  // the out-arguments: text, number, count
    const struct {
        std::string application;
        Call call;
        const char* member;
        std::string script, outs;
        std::string status;  // of a failure; "" = success, "FFFF" = nothing received
    } rows[] = {
        {kCard, CALL(DESFireFormat), "FC > 00", none, ""},
        {kCard, CALL(DESFireCreateApplication, "a1 b2 c3", 0x0F, 14), "CA A1B2C3 0F 0E > 00", none, ""},
        // Deleting the selected application leaves the session as it is.
        {kApp, CALL(DESFireDeleteApplication, kApp), "DA A1B2C3 > 00", none, ""},
        {kCard, CALL(DESFireGetApplications, text), "6A > AF A1B2C3 010203; AF > 00 FFFFFF",
         "A1B2C3,010203,FFFFFF|-7|-7", ""},
        {kCard, CALL(DESFireGetApplications, text), "6A > 00", "|-7|-7", ""},
        {kApp, CALL(DESFireGetKeyVersion, 13, number), "64 0D > 00 2A", "unchanged|42|-7", ""},
        // The key count's upper bits come back as the card set them.
        {kApp, CALL(DESFireGetKeySettings, number, count), "45 > 00 0F 83", "unchanged|15|131", ""},
        {kApp, CALL(DESFireChangeKeySettings, 0x0B), "54" + ToHex(SendMode(kSession, WithCrc(Hex("0B")))) + "> 00",
         none, ""},
        {kApp, CALL(DESFireCreateStdDataFile, 15, dfcCiphered, kRights, 0xFFFFFF), "CD 0F 03 3012 FFFFFF > 00", none,
         ""},
        {kApp, CALL(DESFireCreateBackupDataFile, 0, dfcPlainMac, {15, 14, 13, 0}, 1), "CB 00 01 D0FE 010000 > 00", none,
         ""},
        // Equal limits with the value on them are accepted.
        {kApp, CALL(DESFireCreateValueFile, 7, dfcPlain, kFree, -10, -10, -10, true),
         "CC 07 00 EEEE F6FFFFFF F6FFFFFF F6FFFFFF 01 > 00", none, ""},
        {kApp, CALL(DESFireCreateLinearRecordFile, 1, dfcCiphered, kRights, 0x123456, 2),
         "C1 01 03 3012 563412 020000 > 00", none, ""},
        {kApp, CALL(DESFireCreateCyclicRecordFile, 2, dfcPlainMac, kRights, 16, 0xFFFFFF),
         "C0 02 01 3012 100000 FFFFFF > 00", none, ""},
        {kApp, CALL(DESFireDeleteFile, 15), "DF 0F > 00", none, ""},
        {kApp, CALL(DESFireGetFileIDs, text), "6F > 00 05 01 1F 03", "1,3,5,31|-7|-7", ""},
        {kApp, CALL(DESFireGetFileSettings, 2, text), "F5 02 > 00 00 03 E1 12 200000", "00 03 E1 12 20 00 00|-7|-7",
         ""},
        // A file type of its own needs at least type, settings and rights.
        {kApp, CALL(DESFireGetFileSettings, 1, text), "F5 01 > 00 05 00 E1 12", "05 00 E1 12|-7|-7", ""},
        {kApp, CALL(DESFireCommitTransaction), "C7 > 00", none, ""},
        {kApp, CALL(DESFireAbortTransaction), "A7 > 00", none, ""},
        // No file-number check: the low byte goes out as it is.
        {kApp, CALL(DESFireClearRecordFile, 257), "EB 01 > 00", none, ""},
        {kCard, CALL(DESFireFormat), "FC > AE", none, "AE"},
        {kCard, CALL(DESFireFormat), "FC > ", none, "FFFF"},
        {kCard, CALL(DESFireGetApplications, text), "6A > 00 A1B2C3 01", none, "00"},
        {kCard, CALL(DESFireGetVersion, dfvAllData, information), "60 > 00 0401", none, "00"},
        // Each frame has its size: 7, 7, then 14 bytes.
        {kCard, CALL(DESFireGetVersion, dfvAllData, information), "60 > AF 04010101001805 04", none, "AF"},
        {kApp, CALL(DESFireGetKeyVersion, 1, number), "6401 > 00", none, "00"},
        {kApp, CALL(DESFireGetKeySettings, number, count), "45 > 00 0F", none, "00"},
        {kApp, CALL(DESFireChangeKey, 0, key16, key16), "C400" + std::string(48, '?') + "> 1E", none, "1E"},
        // File numbers run from 0 to 31, each at most once.
        {kApp, CALL(DESFireGetFileIDs, text), "6F > 00 05 01 05", none, "00"},
        {kApp, CALL(DESFireGetFileIDs, text), "6F > 00 01 20", none, "00"},
        // A data file's settings are 7 bytes, a record file's 13.
        {kApp, CALL(DESFireGetFileSettings, 1, text), "F501 > 00 00 03 E112 2000", "|-7|-7", "00"},
        {kApp, CALL(DESFireGetFileSettings, 1, text), "F501 > 00 03 03 E112 010000 020000", "|-7|-7", "00"},
        // Nothing to commit or abort is a failure of its own, without the card's words.
        {kApp, CALL(DESFireCommitTransaction), "C7 > 0C", none, "0C"},
        {kApp, CALL(DESFireAbortTransaction), "A7 > 0C", none, "0C"},
    };
    for (const auto& row : rows) {
        Play(row.script, row.application);
        text = "unchanged";
        number = count = -7;
        EXPECT_EQ(row.call(ctx), row.status.empty() ? sceSuccess : sceError) << row.member << ": " << Record();
        EXPECT_EQ(Record(), row.status.empty() ? Cleared(row.member)
                            : row.status == "0C"
                                ? Line(E::NoChangesInBackup, row.member)
                                : Failed(row.member, std::string(row.member).replace(0, 7, "Desfire"), row.status));
        EXPECT_EQ(fake->Pending(), 0u) << row.member;
        EXPECT_EQ(text + "|" + std::to_string(number) + "|" + std::to_string(count), row.outs) << row.member;
        EXPECT_EQ(session.selectedApplicationId, row.application) << row.member;
    }
    EXPECT_TRUE(std::holds_alternative<std::monostate>(information));
    EXPECT_TRUE(session.versionCache.empty()) << "a short record is not kept";
}

TEST_F(DesfireMembers, ChangeKeyAndChangeFileSettingsSendTheFormTheConformanceCallsFor) {
    const Bytes oldKey = Hex("00112233445566778899AABBCCDDEEFF"), newKey = Hex("F0E1D2C3B4A59687F0E1D2C3B4A59687");
    Bytes x(16);
    for (std::size_t i = 0; i < 16; ++i)
        x[i] = oldKey[i] ^ newKey[i];
    const std::string oldText = ToHex(oldKey), newText = ToHex(newKey), member = "DESFireChangeFileSettings";
    const auto sent = [](const std::string& head, const Bytes& plain) {
        return head + ToHex(SendMode(kSession, plain)) + "> ";
    };
    const std::string own = sent("C401", WithCrc(newKey)), plain = "5F 04 03 E112 > ";
    // The enciphered settings: settings (3), CRC, three zero bytes, in send mode.
    const std::string enciphered = sent("5F04", WithCrc(Hex("03 E1 12")));
    const AccessRights rights{1, 2, 14, 1};
    const struct {
        bool cardConformance;
        Call call;
        const char* member;
        std::string script;
        sceReturnCode result;
        std::string record;  // "" = cleared by the member
    } rows[] = {
        // The session is authenticated with key 1.
        {false, CALL(DESFireChangeKey, 1, oldText, newText), own + "00", sceSuccess, ""},
        {true, CALL(DESFireChangeKey, 1, oldText, newText), own + "00", sceSuccess, ""},
        // A 16-digit key is a single-DES key with equal halves.
        {false, CALL(DESFireChangeKey, 2, oldText, "f0e1 d2c3 b4a5 9687"),
         sent("C402", Concat({WithCrc(x), WithCrc(newKey)})) + "00", sceSuccess, ""},
        // As the cards expect it: one 24-byte run.
        {true, CALL(DESFireChangeKey, 2, oldText, newText),
         sent("C402", Concat({x, Crc(x), Crc(newKey), Bytes(4, 0)})) + "00", sceSuccess, ""},
        {false, CALL(DESFireChangeFileSettings, 4, 3, rights), plain + "00", sceSuccess, ""},
        // A refused plain form stays in the record when the enciphered one succeeds.
        {false, CALL(DESFireChangeFileSettings, 4, 3, rights), plain + "7E;" + enciphered + "00", sceSuccess,
         Line(E::CommandFailed, "EncoderCommand", "SCardTransmit:DesfireChangeFileSettings", "7E")},
        {false, CALL(DESFireChangeFileSettings, 4, 3, rights), plain + "7E;" + enciphered + "AE", sceError,
         Failed(member, "DesfireChangeFileSettings", "AE")},
        // With the card's conformance the change right decides the form.
        {true, CALL(DESFireChangeFileSettings, 4, 3, rights), "F504 > 00 00 00 EE 12 200000;" + plain + "00",
         sceSuccess, ""},
        {true, CALL(DESFireChangeFileSettings, 4, 3, rights), "F504 > 00 00 00 E2 12 200000;" + enciphered + "00",
         sceSuccess, ""},
        {true, CALL(DESFireChangeFileSettings, 4, 3, rights), "F504 > F0", sceError,
         Failed(member, "DesfireGetFileSettings", "F0")},
    };
    for (const auto& row : rows) {
        Play(row.script, kApp, 1);
        ctx.cardConformance = row.cardConformance;
        EXPECT_EQ(row.call(ctx), row.result) << row.script;
        EXPECT_EQ(Record(), row.record.empty() ? Cleared(row.member) : row.record);
        EXPECT_EQ(fake->Pending(), 0u);
        EXPECT_EQ(session.authenticatedKeyNumber, 1) << "the session fields stay as they were";
    }
}

TEST_F(DesfireMembers, TheVersionRecordIsAskedOnceAndServesEverySelector) {
    const std::string asked = "60 > AF 04010101001805; AF > AF 04010101041805; AF > 00 045A3B2C1D0E80BA451260302C13";
    Play(asked, "");
    const struct {
        std::int32_t requested;
        Variant expected;
    } rows[] = {
        {dfvAllData, Version()},
        {dfvUID, Hex("04 5A 3B 2C 1D 0E 80")},
        {dfvBatchNo, Hex("BA 45 12 60 30")},
        {dfvStorageSize, std::int32_t{4096}},
        {dfvSoftwareMinorVersion, std::uint8_t{0x04}},
        {dfvProductionYear, std::uint8_t{0x13}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(DESFireGetVersion(ctx, row.requested, information), sceSuccess) << Record();
        EXPECT_EQ(Record(), Cleared("DESFireGetVersion"));
        EXPECT_EQ(information, row.expected) << row.requested;
    }
    EXPECT_EQ(fake->Pending(), 0u);
    Play(asked, "");
    EXPECT_EQ(DESFireGetVersion(ctx, dfvAllData, information), sceSuccess) << "asked again after the session ended";

    // The storage size is the midpoint for an odd code.
    for (const auto& [code, size] : {std::pair{0x19, 6144}, {0x00, 1}, {0x3D, 1610612736}}) {
        session.versionCache = Version(static_cast<std::uint8_t>(code));
        EXPECT_EQ(DESFireGetVersion(ctx, dfvStorageSize, information), sceSuccess);
        EXPECT_EQ(information, Variant{std::int32_t{size}}) << code;
    }
    // 2^31 does not fit the host's Long.
    session.versionCache = Version(0x3E);
    try {
        DESFireGetVersion(ctx, dfvStorageSize, information);
        ADD_FAILURE() << "no overflow";
    } catch (const command::RuntimeError& e) {
        EXPECT_EQ(e.number(), command::RuntimeOverflow);
    }
}

}  // namespace
}  // namespace elatectwn4::desfire
