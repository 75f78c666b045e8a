// Selection, the three-pass authentication and the enciphered frames, byte
// for byte, against a card whose side is computed with OpenSSL.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apdu_fixture.h"
#include "desfire/secure_messaging.h"

namespace elatectwn4::desfire {
namespace {

using desfire_test::Concat;
using desfire_test::Hex;
using desfire_test::MakeKey;

const Bytes kRndA = Hex("1F2E3D4C5B6A7988");
const Bytes kRndB = Hex("C3A5F00F96E11E78");

// A record a previous operation left; selection must not clear it on success.
CError Sentinel() {
    CError e;
    e.Number = 1;
    e.Description = "left by an earlier call";
    e.ComFunction = "Earlier";
    return e;
}

TEST_F(DesfireApdu, AuthenticationSendsExactlyTheLegacyTokenAndBuildsTheSessionKey) {
    struct Row {
        std::string application;  // as the host writes it
        std::int32_t keyNumber;
        std::string keyText;
        Key cardKey;     // the key as the card holds it
        bool tripleDes;  // session key from both halves of the challenges
    };
    const Row rows[] = {
        {"a1 b2 c3", 1, "1122334455667788", MakeKey("1122334455667788"), false},
        {"A1B2C3", 13, "4a1b7c3d5e6f7081 92a3b4c5d6e7f809", MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809"), true},
        // Equal halves written out in 32 digits still count as Triple-DES.
        {"000000", 0, "0123456789ABCDEF0123456789ABCDEF", MakeKey("0123456789ABCDEF"), true},
        // A short key is taken as it is: the engine fills it with zero bytes.
        {"A1B2C3", 2, "12345678", MakeKey("1234567800000000"), false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.keyText);
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        record = Sentinel();
        FixRndA(kRndA);
        std::string id = row.application;
        id.erase(std::remove(id.begin(), id.end(), ' '), id.end());
        for (char& c : id)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));

        const CardSide card{row.cardKey, kRndB};
        fake->Expect("5A" + id).Reply("00");
        fake->Expect("0A" + ToHex(Bytes{static_cast<std::uint8_t>(row.keyNumber)}))
            .Reply("AF" + ToHex(card.Challenge()));
        fake->Expect("AF" + ToHex(card.Token(kRndA))).Reply("00" + ToHex(card.Proof(kRndA)));

        ASSERT_EQ(DESFireSelectApplication(ctx, row.application, row.keyNumber, row.keyText), sceSuccess) << Record();
        EXPECT_EQ(Record(), test::RecordText(Sentinel()));

        const Bytes second =
            row.tripleDes ? Concat({Bytes(kRndA.begin() + 4, kRndA.end()), Bytes(kRndB.begin() + 4, kRndB.end())})
                          : Concat({Bytes(kRndA.begin(), kRndA.begin() + 4), Bytes(kRndB.begin(), kRndB.begin() + 4)});
        const Bytes expected =
            Concat({Bytes(kRndA.begin(), kRndA.begin() + 4), Bytes(kRndB.begin(), kRndB.begin() + 4), second});
        EXPECT_EQ(ToHex(SessionKeyNow()), ToHex(expected));
        EXPECT_EQ(session.selectedApplicationId, id);
        EXPECT_EQ(session.authenticatedKeyNumber, row.keyNumber);
    }
}

TEST_F(DesfireApdu, ThePublishedLegacyTranscriptOfARealCardAuthenticates) {
    // A real card with the all-zero DES key: RndB = CC F5 32 70 57 0A 76 69.
    FixRndA(Hex("A0A1A2A3A4A5A6A7"));
    fake->Expect("5A000000").Reply("00");
    fake->Expect("0A00").Reply("AF DF6AB29AAE46BA27");
    fake->Expect("AF 05EEC31F1E6A0CC3 1FEF8398A6621370").Reply("00 26ACED3C771EF9A0");
    ASSERT_EQ(DESFireSelectRoot(ctx, "0000000000000000"), sceSuccess) << Record();
    EXPECT_EQ(ToHex(SessionKeyNow()), "A0A1A2A3CCF53270A0A1A2A3CCF53270");
    EXPECT_EQ(session.selectedApplicationId, "000000");
    EXPECT_EQ(session.authenticatedKeyNumber, 0);
}

TEST_F(DesfireApdu, SelectionRefusesItsArgumentsInOrderBeforeSendingAnything) {
    struct Row {
        std::string application;
        std::int32_t keyNumber;
        std::string key;
        ErrorNumber number;
    };
    const Row rows[] = {
        {"A1B2C", 0, "1122334455667788", ErrorNumber::IncorrectApplicationId},
        {"A1B2C3D4", 0, "1122334455667788", ErrorNumber::IncorrectApplicationId},
        {"A1B2G3", 99, "XX", ErrorNumber::IncorrectApplicationId},
        {"A1B2C3", 14, "XX", ErrorNumber::BadKeyNumber},
        {"A1B2C3", -1, "", ErrorNumber::BadKeyNumber},
        {"A1B2C3", 0, "11223344556677XX", ErrorNumber::InvalidKey},
        {"A1B2C3", 0, "11-22", ErrorNumber::InvalidKey},
        {"A1B2C3", 0, "", ErrorNumber::BadKeyLength},
        {"A1B2C3", 0, "  ", ErrorNumber::BadKeyLength},
        {"A1B2C3", 0, std::string(17, '1'), ErrorNumber::BadKeyLength},
        {"A1B2C3", 0, std::string(31, '1'), ErrorNumber::BadKeyLength},
        {"A1B2C3", 0, std::string(33, '1'), ErrorNumber::BadKeyLength},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(DESFireSelectApplication(ctx, row.application, row.keyNumber, row.key), sceError);
        EXPECT_EQ(Record(), Line(row.number, "DESFireSelectApplication")) << row.application << " " << row.key;
    }
    EXPECT_TRUE(fake->Transmitted().empty());
}

// One exchange of a refused authentication: the command expected and the answer.
struct Step {
    std::string command;
    std::string answer;
};

TEST_F(DesfireApdu, ARefusedAuthenticationReportsItsStepAndKeepsThePreviousSession) {
    const Key key = MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809");
    const CardSide card{key, kRndB};
    const std::string challenge = "AF" + ToHex(card.Challenge());
    const std::string token = "AF" + ToHex(card.Token(kRndA));
    const std::string anyToken = "AF" + std::string(32, '?');
    struct Row {
        std::vector<Step> exchanges;
        std::string record;
    };
    const auto connect = [](const std::string& status) {
        return Line(ErrorNumber::CannotConnectToApplication, "DESFireSelectApplication", "DesfireAuthenticate2",
                    status);
    };
    const std::string rndAFailed =
        Line(ErrorNumber::AuthenticationFailure, "DESFireSelectApplication", "DesfireAuthenticate4", "RndA failed");
    const Row rows[] = {
        {{{"5AA1B2C3", "00"}, {"0A03", "AE"}}, connect("AE")},
        // The select's own refusal only shows in the next step.
        {{{"5AA1B2C3", "A0"}, {"0A03", "A0"}}, connect("A0")},
        {{{"5AA1B2C3", "00"}, {"0A03", "AF 010203"}}, connect("AF")},
        {{{"5AA1B2C3", "00"}, {"0A03", "AF" + ToHex(card.Challenge()) + "00"}}, connect("AF")},
        {{{"5AA1B2C3", "00"}, {"0A03", "00" + ToHex(card.Challenge())}}, connect("00")},
        // No status at all is no answer: the command layer's record.
        {{{"5AA1B2C3", "00"}, {"0A03", ""}},
         Line(ErrorNumber::CommandFailed, "DESFireSelectApplication:EncoderCommand",
              "SCardTransmit:DesfireAuthenticate", "No status word in the answer: nothing received")},
        {{{"5AA1B2C3", "00"}, {"0A03", challenge}, {anyToken, "AE"}},
         Line(ErrorNumber::AuthenticationFailure, "DESFireSelectApplication", "DesfireAuthenticate3", "AE")},
        {{{"5AA1B2C3", "00"}, {"0A03", challenge}, {token, "00" + ToHex(card.Proof(Hex("0000000000000000")))}},
         rndAFailed},
        {{{"5AA1B2C3", "00"}, {"0A03", challenge}, {token, "00" + ToHex(card.Proof(kRndA)) + "000000"}}, rndAFailed},
        {{{"5AA1B2C3", "00"}, {"0A03", challenge}, {token, "00"}}, rndAFailed},
    };
    const Key previous = MakeKey("00112233445566778899AABBCCDDEEFF");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.record);
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        for (const Step& e : row.exchanges)
            fake->Expect(e.command).Reply(e.answer);
        FixRndA(kRndA);
        OpenSession(previous, 5, "010203");

        EXPECT_EQ(DESFireSelectApplication(ctx, "A1B2C3", 3, ToHex(key)), sceError);
        EXPECT_EQ(Record(), row.record);
        EXPECT_EQ(ToHex(SessionKeyNow()), ToHex(previous));
        EXPECT_EQ(session.authenticatedKeyNumber, 5);
        EXPECT_EQ(session.selectedApplicationId, "010203");
    }
}

// The card leaving at each exchange is the fault table's (tests/faults).
TEST_F(DesfireApdu, ACommandLayerFailureKeepsItsRecordWithTheCallersInFront) {
    channel.card = 0;
    EXPECT_EQ(DESFireSelectRoot(ctx, "1122334455667788"), sceError);
    EXPECT_EQ(Record(), test::RecordText(static_cast<std::uint32_t>(ErrorNumber::NoCard), "No card in encoder", 0,
                                         "DESFireSelectRoot:DESFireSelectApplication:EncoderCommand", "", ""));
}

TEST_F(DesfireApdu, EncipheredFramesChainEveryPaddedPieceFromTheZeroVector) {
    const auto crc = [](const Bytes& data) {
        const std::uint16_t c = desfire_test::CrcA(data);
        return Bytes{static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(c >> 8)};
    };
    const Bytes settings = Hex("0F");
    const Bytes fileSettings = Hex("03 E1 23");
    const Bytes seven = Hex("01 02 03 04 05 06 07");
    const Bytes keyA = Hex("00112233445566778899AABBCCDDEEFF");
    const Bytes keyB = Hex("F0E1D2C3B4A5968778695A4B3C2D1E0F");
    struct Row {
        std::vector<FramePiece> pieces;
        Bytes plain;  // what the card finds after undoing send mode
    };
    const Row rows[] = {
        // 1 + 2 + 5 = one block exactly: no padding of its own.
        {{{settings, 5}}, Concat({settings, crc(settings), Bytes(5, 0)})},
        {{{fileSettings, 3}}, Concat({fileSettings, crc(fileSettings), Bytes(3, 0)})},
        // 7 + 2 = 9 bytes: padded to two blocks.
        {{{seven, 0}}, Concat({seven, crc(seven), Bytes(7, 0)})},
        // Each piece ends on a block boundary before the next one starts.
        {{{keyA, 0}, {keyB, 4}}, Concat({keyA, crc(keyA), Bytes(6, 0), keyB, crc(keyB), Bytes(6, 0)})},
    };
    const Key sessionKeys[] = {MakeKey("0123456789ABCDEF"), MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809")};
    for (const Key& sessionKey : sessionKeys) {
        OpenSession(sessionKey);
        for (const Row& row : rows) {
            EXPECT_EQ(ToHex(BuildEncipheredFrame(session, row.pieces).view()),
                      ToHex(desfire_test::SendMode(sessionKey, row.plain)))
                << ToHex(sessionKey) << " " << ToHex(row.plain);
        }
    }
}

TEST(DesfireSession, ResetForgetsEverythingAndOverwritesTheKeys) {
    Session session;
    session.selectedApplicationId = "010203";
    const Bytes key = Hex("00112233445566778899AABBCCDDEEFF");
    std::copy(key.begin(), key.end(), session.sessionKey.data());
    session.authenticatedKeyNumber = 3;
    session.versionCache = {1, 2, 3};
    session.Engine();
    const std::uint8_t* buffer = session.sessionKey.data();

    session.Reset();

    EXPECT_EQ(session.selectedApplicationId, "");
    EXPECT_EQ(session.authenticatedKeyNumber, -1);
    EXPECT_TRUE(session.versionCache.empty());
    EXPECT_EQ(session.cipherEngine, nullptr);
    EXPECT_EQ(ToHex(Bytes(buffer, buffer + 16)), std::string(32, '0'));
}

}  // namespace
}  // namespace elatectwn4::desfire
