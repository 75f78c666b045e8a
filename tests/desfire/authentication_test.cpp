// Selection, the three-pass authentication and the enciphered frames, byte
// for byte, against a card whose side is computed with OpenSSL.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apdu_fixture.h"

namespace elatectwn4::desfire {
namespace {

const Bytes kRndA = Hex("1F2E3D4C5B6A7988");
const Bytes kRndB = Hex("C3A5F00F96E11E78");

class DesfireAuthentication : public DesfireApdu {
protected:
    /// The authentication draws exactly these bytes for RndA.
    void FixRndA(const Bytes& rndA) {
        session.random = [rndA](std::span<std::uint8_t> out) {
            ASSERT_EQ(out.size(), rndA.size());
            std::copy(rndA.begin(), rndA.end(), out.begin());
        };
    }
};

TEST_F(DesfireAuthentication, SendsExactlyTheLegacyTokenAndBuildsTheSessionKey) {
    // A record a previous operation left; selection must not clear it on success.
    const std::string earlier = test::RecordText(1, "left by an earlier call", 0, "Earlier", "", "");
    const struct {
        std::string application;  // as the host writes it
        std::int32_t keyNumber;
        std::string keyText;
        Key cardKey;  // the key as the card holds it
        std::string sessionKey;
    } rows[] = {
        {"a1 b2 c3", 1, "1122334455667788", MakeKey("1122334455667788"), "1F2E3D4CC3A5F00F1F2E3D4CC3A5F00F"},
        {"A1B2C3", 13, "4a1b7c3d5e6f7081 92a3b4c5d6e7f809", kSession, "1F2E3D4CC3A5F00F5B6A798896E11E78"},
        // Equal halves written out in 32 digits still count as Triple-DES.
        {"000000", 0, "0123456789ABCDEF0123456789ABCDEF", MakeKey("0123456789ABCDEF"),
         "1F2E3D4CC3A5F00F5B6A798896E11E78"},
        // A short key is taken as it is: the engine fills it with zero bytes.
        {"A1B2C3", 2, "12345678", MakeKey("1234567800000000"), "1F2E3D4CC3A5F00F1F2E3D4CC3A5F00F"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.keyText);
        const std::string id = ToHex(Hex(row.application));
        const CardSide card{row.cardKey, kRndB};
        Play("5A" + id + "> 00; 0A" + ToHex(Bytes{static_cast<std::uint8_t>(row.keyNumber)}) + "> AF" +
                 ToHex(card.Challenge()) + "; AF" + ToHex(card.Token(kRndA)) + "> 00" + ToHex(card.Proof(kRndA)),
             "");
        FixRndA(kRndA);
        record.Number = 1;
        record.Description = "left by an earlier call";
        record.ComFunction = "Earlier";
        ASSERT_EQ(DESFireSelectApplication(ctx, row.application, row.keyNumber, row.keyText), sceSuccess) << Record();
        EXPECT_EQ(Record(), earlier);
        EXPECT_EQ(SessionKeyNow(), row.sessionKey);
        EXPECT_EQ(session.selectedApplicationId, id);
        EXPECT_EQ(session.authenticatedKeyNumber, row.keyNumber);
    }
}

TEST_F(DesfireAuthentication, ThePublishedLegacyTranscriptOfARealCardAuthenticates) {
    // A real card with the all-zero DES key: RndB = CC F5 32 70 57 0A 76 69.
    Play("5A000000 > 00; 0A00 > AF DF6AB29AAE46BA27; AF 05EEC31F1E6A0CC3 1FEF8398A6621370 > 00 26ACED3C771EF9A0", "");
    FixRndA(Hex("A0A1A2A3A4A5A6A7"));
    ASSERT_EQ(DESFireSelectRoot(ctx, "0000000000000000"), sceSuccess) << Record();
    EXPECT_EQ(SessionKeyNow(), "A0A1A2A3CCF53270A0A1A2A3CCF53270");
    EXPECT_EQ(session.selectedApplicationId, "000000");
}

TEST_F(DesfireAuthentication, ARefusalReportsItsStepAndKeepsThePreviousSession) {
    const CardSide card{kSession, kRndB};
    const std::string challenge = "0A03 > AF" + ToHex(card.Challenge()), token = "; AF" + ToHex(card.Token(kRndA));
    const auto connect = [](const std::string& status) {
        return Line(ErrorNumber::CannotConnectToApplication, "DESFireSelectApplication", "DesfireAuthenticate2",
                    status);
    };
    const std::string rndAFailed =
        Line(ErrorNumber::AuthenticationFailure, "DESFireSelectApplication", "DesfireAuthenticate4", "RndA failed");
    const struct {
        std::string script;  // after "5AA1B2C3 >"
        std::string record;
    } rows[] = {
        {"00; 0A03 > AE", connect("AE")},
        // The select's own refusal only shows in the next step.
        {"A0; 0A03 > A0", connect("A0")},
        {"00; 0A03 > AF 010203", connect("AF")},
        {"00;" + challenge + "00", connect("AF")},
        {"00; 0A03 > 00" + ToHex(card.Challenge()), connect("00")},
        // No status at all is no answer: the command layer's record.
        {"00; 0A03 > ", Line(ErrorNumber::CommandFailed, "DESFireSelectApplication:EncoderCommand",
                             "SCardTransmit:DesfireAuthenticate", "No status word in the answer: nothing received")},
        {"00;" + challenge + "; AF" + std::string(32, '?') + "> AE",
         Line(ErrorNumber::AuthenticationFailure, "DESFireSelectApplication", "DesfireAuthenticate3", "AE")},
        {"00;" + challenge + token + "> 00" + ToHex(card.Proof(Hex("0000000000000000"))), rndAFailed},
        {"00;" + challenge + token + "> 00" + ToHex(card.Proof(kRndA)) + "000000", rndAFailed},
        {"00;" + challenge + token + "> 00", rndAFailed},
    };
    const Key previous = MakeKey("00112233445566778899AABBCCDDEEFF");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.script);
        Play("5AA1B2C3 >" + row.script, "010203", 5, previous);
        FixRndA(kRndA);
        EXPECT_EQ(DESFireSelectApplication(ctx, kApp, 3, ToHex(kSession)), sceError);
        EXPECT_EQ(Record(), row.record);
        EXPECT_EQ(SessionKeyNow(), ToHex(previous));
        EXPECT_EQ(session.authenticatedKeyNumber, 5);
        EXPECT_EQ(session.selectedApplicationId, "010203");
    }
    // A command-layer failure keeps its record with the callers in front.
    channel.card = 0;
    EXPECT_EQ(DESFireSelectRoot(ctx, "1122334455667788"), sceError);
    EXPECT_EQ(Record(), test::RecordText(static_cast<std::uint32_t>(ErrorNumber::NoCard), "No card in encoder", 0,
                                         "DESFireSelectRoot:DESFireSelectApplication:EncoderCommand", "", ""));
}

TEST(DesfireSession, ResetForgetsTheSessionAndOverwritesItsKey) {
    Session session;
    session.selectedApplicationId = "010203";
    const Bytes key = Hex("00112233445566778899AABBCCDDEEFF");
    std::copy(key.begin(), key.end(), session.sessionKey.data());
    session.authenticatedKeyNumber = 3;
    const std::uint8_t* buffer = session.sessionKey.data();

    session.Reset();

    EXPECT_EQ(session.selectedApplicationId, "");
    EXPECT_EQ(session.authenticatedKeyNumber, -1);
    EXPECT_EQ(ToHex(Bytes(buffer, buffer + 16)), std::string(32, '0'));
}

}  // namespace
}  // namespace elatectwn4::desfire
