// Applications and keys: the checks before anything is sent, the exact
// frames, and what the members make of the card's answers.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "apdu_fixture.h"
#include "command/error_record.h"
#include "desfire/exchange.h"

namespace elatectwn4::desfire {
namespace {

using desfire_test::Concat;
using desfire_test::Hex;
using desfire_test::MakeKey;
using desfire_test::SendMode;

const Key kSession = MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809");
const std::string kApp = "A1B2C3";
const std::string kCard(kCardLevel);

Bytes Crc(const Bytes& data) {
    const std::uint16_t c = desfire_test::CrcA(data);
    return {static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(c >> 8)};
}

// The version record of the simulated EV1 with storage code `storage`.
Bytes Version(std::uint8_t storage = 0x18) {
    return Concat({Hex("04 01 01 01 00 18 05 04 01 01 01 04"), Bytes{storage},
                   Hex("05 04 5A 3B 2C 1D 0E 80 BA 45 12 60 30 2C 13")});
}

class DesfireMembers : public DesfireApdu {
protected:
    // What a row of a table runs: a member with the outputs it writes.
    std::string applications = "unchanged";
    Variant information;
    std::int32_t keyVersion = -7;
    std::int32_t keySettings = -7;
    std::int32_t keyCount = -7;

    // `application` "" = no session; otherwise a session with key `keyNumber`.
    void UseSession(const std::string& application, std::int32_t keyNumber = 0) {
        session.Reset();
        if (!application.empty()) OpenSession(kSession, keyNumber, application);
    }
    void Script(const std::vector<std::pair<std::string, std::string>>& exchanges) {
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        for (const auto& [command, answer] : exchanges)
            fake->Expect(command).Reply(answer);
    }
};

TEST(DesfireStatus, TheNativeAndTheWrappedFormOfAStatusAreTheSameAnswer) {
    using command::StatusWord;
    struct Row {
        std::optional<StatusWord> status;
        std::uint8_t code;
        bool same;
    };
    const Row rows[] = {{StatusWord::Native(0x00), 0x00, true},
                        {StatusWord::Iso(0x9100), 0x00, true},
                        {StatusWord::Native(0xAF), 0xAF, true},
                        {StatusWord::Iso(0x91AF), 0xAF, true},
                        {StatusWord::Iso(0x910C), 0x0C, true},
                        {StatusWord::Iso(0x9000), 0x00, false},
                        {StatusWord::Native(0x0C), 0x00, false},
                        {StatusWord::Iso(0x0000), 0x00, false},
                        {StatusWord{}, 0x00, false},
                        {std::nullopt, 0x00, false}};
    for (const Row& row : rows) {
        Reply reply;
        reply.status = row.status;
        EXPECT_EQ(reply.IsStatus(row.code), row.same) << reply.StatusText() << " " << int{row.code};
    }
}

TEST_F(DesfireMembers, AnExchangeTellsAnAnswerARefusalAndAReaderFailureApart) {
    struct Row {
        std::uint32_t code;
        command::Params params;
        std::string sent;
        std::string answer;  // "" with failure: the transmission fails
        std::uint32_t failure;
        Reply::Outcome outcome;
        std::string command, status, data;
    };
    using O = Reply::Outcome;
    const std::string keySettings = "DesfireGetKeySettings";
    const Row rows[] = {
        {command::cmd::DesfireGetKeySettings, {}, "45", "00 0F 01", 0, O::Answered, keySettings, "00", "0F01"},
        {command::cmd::DesfireGetKeySettings, {}, "45", "AE", 0, O::Refused, keySettings, "AE", ""},
        {command::cmd::DesfireGetKeySettings,
         {},
         "45",
         "",
         pcsc_code::RemovedCard,
         O::ReaderFailed,
         keySettings,
         "FFFF",
         ""},
        // A continuation is named after the transfer it continues.
        {command::cmd::DesfireContinue,
         {std::string("DesfireWriteData"), std::string("02"), std::string("AABB")},
         "AFAABB",
         "1E",
         0,
         O::Refused,
         "DesfireWriteData",
         "1E",
         ""},
    };
    // More frames announced for ever: the command layer gives up, not the card.
    fake->Expect("60").Reply("AF 01");
    fake->Expect("AF").Reply("AF 01").Times(command::MaxContinuationFrames);
    const Reply endless = Exchange(ctx, command::cmd::DesfireGetVersion, {}, {.moreResponse = true});
    EXPECT_EQ(endless.outcome, Reply::Outcome::ReaderFailed);
    EXPECT_EQ(endless.StatusText(), "AF");

    for (const Row& row : rows) {
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        auto& expected = fake->Expect(row.sent);
        if (row.failure != 0) {
            expected.Fail(row.failure);
        } else {
            expected.Reply(row.answer);
        }
        const Reply reply = Exchange(ctx, row.code, row.params, {.moreResponse = true});
        EXPECT_EQ(reply.outcome, row.outcome) << row.answer;
        EXPECT_EQ(reply.command, row.command);
        EXPECT_EQ(reply.StatusText(), row.status);
        EXPECT_EQ(ToHex(reply.data.view()), row.data);
    }
}

TEST_F(DesfireMembers, ChecksComeFirstInTheirOrderAndNothingIsSent) {
    using Call = std::function<sceReturnCode(Context&)>;
    struct Row {
        std::string application;  // the session; "" = none
        Call call;
        ErrorNumber number;
        std::string comFunction;
    };
    const Key k = kSession;
    const std::string key16 = "0011223344556677";
    const std::string key32 = ToHex(k);
    const Row rows[] = {
        {"", DESFireFormat, ErrorNumber::RootLevelOnly, "DESFireFormat"},
        {kApp, DESFireFormat, ErrorNumber::RootLevelOnly, "DESFireFormat"},
        {kApp, [](Context& c) { return DESFireCreateApplication(c, "000000", 0, 14); }, ErrorNumber::RootLevelOnly,
         "DESFireCreateApplication"},
        {kCard, [](Context& c) { return DESFireCreateApplication(c, "00 00 00", 0, 1); },
         ErrorNumber::IncorrectApplicationId, "DESFireCreateApplication"},
        {kCard, [](Context& c) { return DESFireCreateApplication(c, "A1B2", 256, 0); },
         ErrorNumber::IncorrectApplicationId, "DESFireCreateApplication"},
        {kCard, [](Context& c) { return DESFireCreateApplication(c, "A1B2C3", 256, 0); }, ErrorNumber::InvalidParameter,
         "DESFireCreateApplication"},
        {kCard, [](Context& c) { return DESFireCreateApplication(c, "A1B2C3", -1, 1); }, ErrorNumber::InvalidParameter,
         "DESFireCreateApplication"},
        {kCard, [](Context& c) { return DESFireCreateApplication(c, "A1B2C3", 255, 0); }, ErrorNumber::InvalidParameter,
         "DESFireCreateApplication"},
        {kCard, [](Context& c) { return DESFireCreateApplication(c, "A1B2C3", 0, 15); }, ErrorNumber::InvalidParameter,
         "DESFireCreateApplication"},
        {"", [](Context& c) { return DESFireDeleteApplication(c, "000000"); }, ErrorNumber::IncorrectApplicationId,
         "DESFireDeleteApplication"},
        {"", [](Context& c) { return DESFireDeleteApplication(c, "A1B2CX"); }, ErrorNumber::IncorrectApplicationId,
         "DESFireDeleteApplication"},
        {"", [this](Context& c) { return DESFireGetVersion(c, 28, information); }, ErrorNumber::InvalidParameter,
         "DESFireGetVersion"},
        {"", [this](Context& c) { return DESFireGetVersion(c, -3, information); }, ErrorNumber::InvalidParameter,
         "DESFireGetVersion"},
        {"", [&](Context& c) { return DESFireChangeKey(c, 0, key16, key16); }, ErrorNumber::NotAuthenticated,
         "DESFireChangeKey"},
        {kCard, [&](Context& c) { return DESFireChangeKey(c, 1, key16, key16); }, ErrorNumber::BadKeyNumber,
         "DESFireChangeKey"},
        {kApp, [&](Context& c) { return DESFireChangeKey(c, 14, "", ""); }, ErrorNumber::BadKeyNumber,
         "DESFireChangeKey"},
        {kApp, [&](Context& c) { return DESFireChangeKey(c, -1, "", ""); }, ErrorNumber::BadKeyNumber,
         "DESFireChangeKey"},
        {kApp, [&](Context& c) { return DESFireChangeKey(c, 13, key16.substr(1), "XX"); }, ErrorNumber::BadKeyLength,
         "DESFireChangeKey"},
        {kApp, [&](Context& c) { return DESFireChangeKey(c, 13, "00112233445566GG", key32); },
         ErrorNumber::BadKeyLength, "DESFireChangeKey"},
        {kApp, [&](Context& c) { return DESFireChangeKey(c, 13, key32, key32 + "0"); }, ErrorNumber::BadKeyLength,
         "DESFireChangeKey"},
        {"", [this](Context& c) { return DESFireGetKeyVersion(c, 0, keyVersion); }, ErrorNumber::NotAuthenticated,
         "DESFireGetKeyVersion"},
        {kCard, [this](Context& c) { return DESFireGetKeyVersion(c, 1, keyVersion); }, ErrorNumber::BadKeyNumber,
         "DESFireGetKeyVersion"},
        {"", [this](Context& c) { return DESFireGetKeySettings(c, keySettings, keyCount); },
         ErrorNumber::NotAuthenticated, "DESFireGetKeySettings"},
        {"", [](Context& c) { return DESFireChangeKeySettings(c, 0x0F); }, ErrorNumber::NotAuthenticated,
         "DESFireChangeKeySettings"},
        {kApp, [](Context& c) { return DESFireChangeKeySettings(c, 256); }, ErrorNumber::InvalidParameter,
         "DESFireChangeKeySettings"},
    };
    for (const Row& row : rows) {
        UseSession(row.application);
        EXPECT_EQ(row.call(ctx), sceError) << row.comFunction;
        EXPECT_EQ(Record(), Line(row.number, row.comFunction));
    }
    EXPECT_TRUE(fake->Transmitted().empty());
    EXPECT_EQ(applications, "unchanged");
    EXPECT_EQ(keyVersion, -7);
    EXPECT_EQ(keySettings, -7);
}

TEST_F(DesfireMembers, EachMemberSendsItsCommandAndReadsTheAnswer) {
    struct Row {
        std::string application;
        std::function<sceReturnCode(Context&)> call;
        std::vector<std::pair<std::string, std::string>> exchanges;
        std::string comFunction;
        std::function<void()> check;
    };
    const Row rows[] = {
        {kCard, DESFireFormat, {{"FC", "00"}}, "DESFireFormat", [] {}},
        {kCard,
         [](Context& c) { return DESFireCreateApplication(c, "a1 b2 c3", 0x0F, 14); },
         {{"CA A1B2C3 0F 0E", "00"}},
         "DESFireCreateApplication",
         [] {}},
        // Deleting the selected application leaves the session as it is.
        {kApp,
         [](Context& c) { return DESFireDeleteApplication(c, "A1B2C3"); },
         {{"DA A1B2C3", "00"}},
         "DESFireDeleteApplication",
         [this] { EXPECT_EQ(session.selectedApplicationId, kApp); }},
        {kCard,
         [this](Context& c) { return DESFireGetApplications(c, applications); },
         {{"6A", "AF A1B2C3 010203"}, {"AF", "00 FFFFFF"}},
         "DESFireGetApplications",
         [this] { EXPECT_EQ(applications, "A1B2C3,010203,FFFFFF"); }},
        {kCard,
         [this](Context& c) { return DESFireGetApplications(c, applications); },
         {{"6A", "00"}},
         "DESFireGetApplications",
         [this] { EXPECT_EQ(applications, ""); }},
        {kApp,
         [this](Context& c) { return DESFireGetKeyVersion(c, 13, keyVersion); },
         {{"64 0D", "00 2A"}},
         "DESFireGetKeyVersion",
         [this] { EXPECT_EQ(keyVersion, 0x2A); }},
        // The key count's upper bits come back as the card set them.
        {kApp,
         [this](Context& c) { return DESFireGetKeySettings(c, keySettings, keyCount); },
         {{"45", "00 0F 83"}},
         "DESFireGetKeySettings",
         [this] {
             EXPECT_EQ(keySettings, 0x0F);
             EXPECT_EQ(keyCount, 0x83);
         }},
        {kApp,
         [](Context& c) { return DESFireChangeKeySettings(c, 0x0B); },
         {{"54" + ToHex(SendMode(kSession, Concat({Hex("0B"), Crc(Hex("0B")), Bytes(5, 0)}))), "00"}},
         "DESFireChangeKeySettings",
         [] {}},
    };
    for (const Row& row : rows) {
        UseSession(row.application);
        Script(row.exchanges);
        EXPECT_EQ(row.call(ctx), sceSuccess) << row.comFunction << ": " << Record();
        EXPECT_EQ(Record(), Cleared(row.comFunction));
        row.check();
    }
}

TEST_F(DesfireMembers, AnAnswerOtherThanCompletionOrOfTheWrongShapeFails) {
    struct Row {
        std::string application;
        std::function<sceReturnCode(Context&)> call;
        std::string command, answer;
        std::string comFunction, commandName, status;
    };
    const std::string key16 = "0011223344556677";
    const Row rows[] = {
        {kCard, DESFireFormat, "FC", "AE", "DESFireFormat", "DesfireFormat", "AE"},
        {kCard, [](Context& c) { return DESFireCreateApplication(c, "A1B2C3", 0, 1); }, "CAA1B2C30001", "DE",
         "DESFireCreateApplication", "DesfireCreateApplication", "DE"},
        {kCard, [](Context& c) { return DESFireDeleteApplication(c, "A1B2C3"); }, "DAA1B2C3", "A0",
         "DESFireDeleteApplication", "DesfireDeleteApplication", "A0"},
        {kCard, [this](Context& c) { return DESFireGetApplications(c, applications); }, "6A", "9D",
         "DESFireGetApplications", "DesfireGetApplications", "9D"},
        {kCard, [this](Context& c) { return DESFireGetApplications(c, applications); }, "6A", "00 A1B2C3 01",
         "DESFireGetApplications", "DesfireGetApplications", "00"},
        {kCard, [this](Context& c) { return DESFireGetVersion(c, dfvAllData, information); }, "60", "00 0401",
         "DESFireGetVersion", "DesfireGetVersion", "00"},
        // Each frame has its size: 7, 7, then 14 bytes.
        {kCard, [this](Context& c) { return DESFireGetVersion(c, dfvAllData, information); }, "60",
         "AF 04010101001805 04", "DESFireGetVersion", "DesfireGetVersion", "AF"},
        {kApp, [this](Context& c) { return DESFireGetKeyVersion(c, 1, keyVersion); }, "6401", "40",
         "DESFireGetKeyVersion", "DesfireGetKeyVersion", "40"},
        {kApp, [this](Context& c) { return DESFireGetKeyVersion(c, 1, keyVersion); }, "6401", "00",
         "DESFireGetKeyVersion", "DesfireGetKeyVersion", "00"},
        {kApp, [this](Context& c) { return DESFireGetKeySettings(c, keySettings, keyCount); }, "45", "00 0F",
         "DESFireGetKeySettings", "DesfireGetKeySettings", "00"},
        {kApp, [](Context& c) { return DESFireChangeKeySettings(c, 0); }, "54" + std::string(16, '?'), "9D",
         "DESFireChangeKeySettings", "DesfireChangeKeySettings", "9D"},
        {kApp, [&](Context& c) { return DESFireChangeKey(c, 0, key16, key16); }, "C400" + std::string(48, '?'), "1E",
         "DESFireChangeKey", "DesfireChangeKey", "1E"},
        // Nothing received: the status as the command layer left it.
        {kCard, DESFireFormat, "FC", "", "DESFireFormat", "DesfireFormat", "FFFF"},
    };
    for (const Row& row : rows) {
        UseSession(row.application);
        Script({{row.command, row.answer}});
        EXPECT_EQ(row.call(ctx), sceError) << row.comFunction;
        EXPECT_EQ(Record(),
                  Line(ErrorNumber::OperationFailed, row.comFunction, "SCardTransmit:" + row.commandName, row.status));
    }
    EXPECT_EQ(applications, "unchanged");
    EXPECT_EQ(keyVersion, -7);
    EXPECT_EQ(keySettings, -7);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(information));
    EXPECT_TRUE(session.versionCache.empty()) << "a short record is not kept";

    // A reader failure ends the same way.
    UseSession(kCard);
    channel.card = 0;
    EXPECT_EQ(DESFireFormat(ctx), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::OperationFailed, "DESFireFormat", "SCardTransmit:DesfireFormat", "FFFF"));
}

TEST_F(DesfireMembers, ChangeKeySendsTheFrameOfItsCase) {
    const Bytes oldKey = Hex("00112233445566778899AABBCCDDEEFF");
    const Bytes newKey = Hex("F0E1D2C3B4A59687F0E1D2C3B4A59687");
    Bytes difference(16);
    for (std::size_t i = 0; i < 16; ++i)
        difference[i] = oldKey[i] ^ newKey[i];
    struct Row {
        std::int32_t keyNumber;  // the session is authenticated with key 1
        bool cardConformance;
        std::string newKeyText;
        Bytes plain;  // what the card finds after undoing send mode
    };
    const Row rows[] = {
        // The session's own key: new key, CRC, six zero bytes.
        {1, false, ToHex(newKey), Concat({newKey, Crc(newKey), Bytes(6, 0)})},
        {1, true, ToHex(newKey), Concat({newKey, Crc(newKey), Bytes(6, 0)})},
        // Another key: two pieces of 24 bytes each.
        {2, false, ToHex(newKey), Concat({difference, Crc(difference), Bytes(6, 0), newKey, Crc(newKey), Bytes(6, 0)})},
        // A 16-digit key is a single-DES key with equal halves.
        {2, false, "f0e1 d2c3 b4a5 9687",
         Concat({difference, Crc(difference), Bytes(6, 0), newKey, Crc(newKey), Bytes(6, 0)})},
        // As the cards expect it: one 24-byte run.
        {2, true, ToHex(newKey), Concat({difference, Crc(difference), Crc(newKey), Bytes(4, 0)})},
    };
    for (const Row& row : rows) {
        UseSession(kApp, 1);
        ctx.cardConformance = row.cardConformance;
        Script({{"C4" + ToHex(Bytes{static_cast<std::uint8_t>(row.keyNumber)}) + ToHex(SendMode(kSession, row.plain)),
                 "00"}});
        EXPECT_EQ(DESFireChangeKey(ctx, row.keyNumber, ToHex(oldKey), row.newKeyText), sceSuccess) << Record();
        EXPECT_EQ(Record(), Cleared("DESFireChangeKey"));
        EXPECT_EQ(session.authenticatedKeyNumber, 1) << "the session fields stay as they were";
    }
}

TEST_F(DesfireMembers, TheVersionRecordIsAskedOnceAndServesEverySelector) {
    UseSession("");
    Script({{"60", "AF 04010101001805"}, {"AF", "AF 04010101041805"}, {"AF", "00 045A3B2C1D0E80BA451260302C13"}});
    struct Row {
        std::int32_t requested;
        Variant expected;
    };
    const Row rows[] = {
        {dfvAllData, Version()},
        {dfvUID, Hex("04 5A 3B 2C 1D 0E 80")},
        {dfvBatchNo, Hex("BA 45 12 60 30")},
        {dfvStorageSize, std::int32_t{4096}},
        {dfvHardwareVendorID, std::uint8_t{0x04}},
        {dfvSoftwareMinorVersion, std::uint8_t{0x04}},
        {dfvProductionWeek, std::uint8_t{0x2C}},
        {dfvProductionYear, std::uint8_t{0x13}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(DESFireGetVersion(ctx, row.requested, information), sceSuccess) << Record();
        EXPECT_EQ(Record(), Cleared("DESFireGetVersion"));
        EXPECT_EQ(information, row.expected) << row.requested;
    }
    EXPECT_EQ(fake->Pending(), 0u);
    session.Reset();
    Script({{"60", "AF 04010101001805"}, {"AF", "AF 04010101041805"}, {"AF", "00 045A3B2C1D0E80BA451260302C13"}});
    EXPECT_EQ(DESFireGetVersion(ctx, dfvAllData, information), sceSuccess) << "asked again after the session ended";
}

TEST_F(DesfireMembers, TheStorageSizeIsTheMidpointForAnOddCode) {
    struct Row {
        std::uint8_t code;
        std::int32_t size;
    };
    const Row rows[] = {{0x18, 4096}, {0x19, 6144}, {0x1A, 8192}, {0x00, 1}, {0x01, 2}, {0x3D, 1610612736}};
    for (const Row& row : rows) {
        session.versionCache = Version(row.code);
        EXPECT_EQ(DESFireGetVersion(ctx, dfvStorageSize, information), sceSuccess);
        EXPECT_EQ(information, Variant{row.size}) << int{row.code};
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
