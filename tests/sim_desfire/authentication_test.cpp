// Legacy three-pass authentication, session keys, and when a session ends.
#include <functional>

#include "fixture.h"

using namespace desfire_test;

namespace {

const Bytes kSettingsNoFreeDirectory{0x0D};  // master key changeable, config changeable, no free listing

}  // namespace

class Authentication : public CardTest {};

TEST_F(Authentication, ReproducesARecordedExchangeWithAFactoryCard) {
    // A published trace of a factory card (all-zero DES key): RndB, the card's
    // challenge, the host's token for RndA B0A6405F57794A93 and the card's proof.
    random_.queue->push_back(Hex("D6F77968D2767EA3"));
    const Answer challenge = host_.Send(Bytes{0x0A, 0x00});
    ASSERT_EQ(Is(challenge.status), Is(0xAF));
    EXPECT_EQ(ToHex(challenge.data), "57B0C35A080AE608");

    const Bytes token = Hex("5BD89F653176AE3A7A1128C9D4035129");
    EXPECT_EQ(ToHex(SendMode(kZeroKey, Hex("B0A6405F57794A93 F77968D2767EA3D6"))), ToHex(token));
    const Answer proof = host_.Send(Concat({Bytes{0xAF}, token}));
    ASSERT_EQ(Is(proof.status), Is(0x00));
    EXPECT_EQ(ToHex(proof.data), "B53BF499FEAC13E4");
}

TEST_F(Authentication, CardAndHostAgreeOnTheLegacySessionKey) {
    struct Case {
        const char* key;
        const char* rndA;
        const char* rndB;
        const char* sessionKey;
    } const cases[] = {
        // Triple-DES: RndA 0..3, RndB 0..3, RndA 4..7, RndB 4..7.
        {"4A1B7C3D5E6F708192A3B4C5D6E7F809", "0102030405060708", "A1A2A3A4A5A6A7A8",
         "01020304A1A2A3A405060708A5A6A7A8"},
        // Single DES: RndA 0..3, RndB 0..3, twice.
        {"F00DCAFEBEEF1234", "1112131415161718", "B1B2B3B4B5B6B7B8", "11121314B1B2B3B411121314B1B2B3B4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        card_.PowerOn();
        ASSERT_EQ(Is(host_.Authenticate(0, kZeroKey)), Is(0x00));
        ASSERT_EQ(Status(ChangeOwnKeyFrame(host_, 0, MakeKey(c.key))), Is(0x00));

        random_.queue->push_back(Hex(c.rndB));
        ASSERT_EQ(Is(host_.Authenticate(0, MakeKey(c.key), Hex(c.rndA))), Is(0x00));
        ASSERT_EQ(ToHex(host_.Session()), c.sessionKey);

        // The card takes an enciphered command only under that very session key.
        const Bytes settings{0x0F};
        // The other kind of key's rule gives another key, which the card must refuse.
        Key wrongRule = host_.Session();
        const Bytes a = Hex(c.rndA), b = Hex(c.rndB);
        if (std::equal(wrongRule.begin(), wrongRule.begin() + 8, wrongRule.begin() + 8)) {
            std::copy(a.begin() + 4, a.end(), wrongRule.begin() + 8);
            std::copy(b.begin() + 4, b.end(), wrongRule.begin() + 12);
        } else {
            std::copy(wrongRule.begin(), wrongRule.begin() + 8, wrongRule.begin() + 8);
        }
        EXPECT_EQ(Status(Concat({Bytes{0x54}, SendMode(wrongRule, WithCrc(settings))})), Is(0x1E));
        ASSERT_EQ(Is(host_.Authenticate(0, MakeKey(c.key))), Is(0x00));
        EXPECT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(settings)})), Is(0x00));

        // Back to the factory key for the next case.
        ASSERT_EQ(Status(ChangeOwnKeyFrame(host_, 0, kZeroKey)), Is(0x00));
    }
}

TEST_F(Authentication, RefusesWhatARealCardRefuses) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    struct Case {
        const char* what;
        std::uint8_t keyNumber;
        Key key;
        std::uint8_t status;
    } const cases[] = {
        {"wrong key", 1, kWriteKey, 0xAE},
        {"the factory key after a change", 0, kZeroKey, 0xAE},
        {"key number beyond the application's keys", 3, kReadKey, 0x40},
        {"key number 14", 14, kReadKey, 0x40},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Is(host_.Authenticate(c.keyNumber, c.key)), Is(c.status)) << c.what;
    }
    EXPECT_EQ(Status(Bytes{0x0A}), Is(0x7E)) << "no key number";
    EXPECT_EQ(Status(Bytes{0x0A, 0x00, 0x00}), Is(0x7E)) << "extra byte";
    ASSERT_EQ(Is(host_.Send(Bytes{0x0A, 0x01}).status), Is(0xAF));
    EXPECT_EQ(Status(Concat({Bytes{0xAF}, Bytes(15, 0x11)})), Is(0x7E)) << "short token";
    EXPECT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00)) << "the right key still works";
}

TEST_F(Authentication, AtCardLevelOnlyKeyZeroExists) {
    EXPECT_EQ(Is(host_.Authenticate(1, kZeroKey)), Is(0x40));
    EXPECT_EQ(Is(host_.Authenticate(0, kZeroKey)), Is(0x00));
}

TEST_F(Authentication, IsLostOnSelectAfterAnErrorAndOnPowerOn) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    // Without free directory listing GetKeySettings needs the master key session.
    ASSERT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(kSettingsNoFreeDirectory)})), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
    const Bytes getKeySettings{0x45};
    ASSERT_EQ(Status(getKeySettings), Is(0x00));

    struct Case {
        const char* what;
        std::function<void()> interrupt;
    } const cases[] = {
        {"select of the card level", [&] { EXPECT_EQ(Is(host_.Select(Hex("000000"))), Is(0x00)); }},
        {"an error status",
         [&] {
             EXPECT_EQ(Status(Bytes{0x64, 0x05}), Is(0x40));
         }},
        {"an unknown command", [&] { EXPECT_EQ(Status(Bytes{0x99}), Is(0x1C)); }},
        {"power on", [&] { card_.PowerOn(); }},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
        ASSERT_EQ(Status(getKeySettings), Is(0x00)) << c.what;
        c.interrupt();
        EXPECT_EQ(Status(getKeySettings), Is(0xAE)) << "after " << c.what;
    }
}

TEST_F(Authentication, IsKeptAfterSuccessfulCommandsAndAfterNoChanges) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0D, 2));
    EXPECT_EQ(Status(Bytes{0x6F}), Is(0x00));
    EXPECT_EQ(Status(Bytes{0xC7}), Is(0x0C));
    EXPECT_EQ(Status(Bytes{0x6F}), Is(0x00)) << "NO_CHANGES is not an error";
}

TEST_F(Authentication, ABrokenOffExchangeAbortsTheNextCommand) {
    ASSERT_EQ(Is(host_.Send(Bytes{0x0A, 0x00}).status), Is(0xAF));
    EXPECT_EQ(Status(Bytes{0x45}), Is(0xCA));
    EXPECT_EQ(Status(Bytes{0x45}), Is(0x00)) << "the card is ready again";
    EXPECT_EQ(Status(Bytes{0xAF}), Is(0x1C)) << "a continuation without anything to continue";
}

TEST_F(Authentication, AFailedSelectLeavesNothingSelectedToAuthenticateWith) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 2));
    ASSERT_EQ(Status(Hex("CD 01 00 EEEE 080000")), Is(0x00));
    EXPECT_EQ(Is(host_.Select(Hex("777777"))), Is(0xA0));
    for (const Bytes& frame : {Bytes{0x0A, 0x00}, Bytes{0x45}, Bytes{0x6A}, Bytes{0x6F}, Bytes{0xF5, 0x01}}) {
        EXPECT_EQ(Status(frame), Is(0xA0)) << ToHex(frame);
    }
    EXPECT_EQ(Status(Bytes{0x60}), Is(0xAF)) << "the version needs no selection";
    EXPECT_EQ(Status(Bytes{0xAF}), Is(0xAF));
    EXPECT_EQ(Status(Bytes{0xAF}), Is(0x00));
    ASSERT_EQ(Is(host_.Select(kAid)), Is(0x00));
    EXPECT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
}
