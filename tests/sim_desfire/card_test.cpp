// The card as a host sees it: authentication and its session, the application
// directory, keys and key settings, each step with the status the card gives.
#include "fixture.h"

using namespace desfire_test;

namespace {

Bytes CreateApp(ByteSpan aid, std::uint8_t settings, std::uint8_t keys) {
    return Concat({Bytes{0xCA}, aid, Bytes{settings, keys}});
}

const Bytes kRoot = Hex("000000");
const Key kNext = MakeKey("00112233445566778899AABBCCDDEEFF");

}  // namespace

class Card : public CardTest {};

TEST_F(Card, ReproducesARecordedAuthenticationOfAFactoryCard) {
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

TEST_F(Card, AgreesWithTheHostOnTheLegacySessionKey) {
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

        // The other kind of key's rule gives another key, which the card must refuse.
        Key wrongRule = host_.Session();
        const Bytes a = Hex(c.rndA), b = Hex(c.rndB);
        if (std::equal(wrongRule.begin(), wrongRule.begin() + 8, wrongRule.begin() + 8)) {
            std::copy(a.begin() + 4, a.end(), wrongRule.begin() + 8);
            std::copy(b.begin() + 4, b.end(), wrongRule.begin() + 12);
        } else {
            std::copy(wrongRule.begin(), wrongRule.begin() + 8, wrongRule.begin() + 8);
        }
        EXPECT_EQ(Status(Concat({Bytes{0x54}, SendMode(wrongRule, WithCrc(Bytes{0x0F}))})), Is(0x1E));
        Run({Auth(0, MakeKey(c.key)), Sealed({0x54}, {0x0F}, 0x00),
             Sealed({0xC4, 0x00}, Bytes(kZeroKey.begin(), kZeroKey.end()), 0x00)});
    }
}

TEST_F(Card, AuthenticationAndItsSessionEndAsDocumented) {
    Run({
        Auth(1, kZeroKey, 0x40),  // at card level only key 0 exists
        // A broken-off exchange aborts the next command; a lone continuation is illegal.
        Send({0x0A, 0x00}, 0xAF),
        Send({0x45}, 0xCA),
        Send({0x45}, 0x00),
        Send({0xAF}, 0x1C),
        Send({0x60, 0x00}, 0x7E, "version with an argument"),
    });
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    // Without free directory listing GetKeySettings needs the master key session,
    // which a select, an error, an unknown command and a power-on all end.
    Run({Sealed({0x54}, {0x0D}, 0x00), Auth(0, kPiccKey), Send({0x45}, 0x00), Select(kRoot), Send({0x45}, 0xAE),
         Auth(0, kPiccKey), Send({0x45}, 0x00), Send({0x64, 0x05}, 0x40), Send({0x45}, 0xAE), Auth(0, kPiccKey),
         Send({0x45}, 0x00), Send({0x99}, 0x1C), Send({0x45}, 0xAE), Auth(0, kPiccKey), Send({0x45}, 0x00), PowerOn(),
         Send({0x45}, 0xAE)});

    card_.Load(elatectwn4::sim::desfire::DesfireCard().Save());
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0D, 3));
    Run({
        Send({0x6F}, 0x00),
        Send({0xC7}, 0x0C),
        Send({0x6F}, 0x00, "NO_CHANGES is not an error"),
        Auth(1, kWriteKey, 0xAE),
        Auth(0, kZeroKey, 0xAE),
        Auth(3, kReadKey, 0x40),
        Auth(14, kReadKey, 0x40),
        Send({0x0A}, 0x7E),
        Send({0x0A, 0x00, 0x00}, 0x7E),
        Send({0x0A, 0x01}, 0xAF),
        Send(Concat({Bytes{0xAF}, Bytes(15, 0x11)}), 0x7E, "short token"),
        Auth(1, kReadKey),
        // A failed select leaves nothing selected to authenticate with; the version needs nothing.
        Auth(0, kAppMasterKey),
        Send(Hex("CD 01 00 EEEE 080000"), 0x00),
        Select(Hex("777777"), 0xA0),
        Send({0x0A, 0x00}, 0xA0),
        Send({0x45}, 0xA0),
        Send({0x6A}, 0xA0),
        Send({0x6F}, 0xA0),
        Send({0xF5, 0x01}, 0xA0),
        Send({0x60}, 0xAF),
        Send({0xAF}, 0xAF),
        Send({0xAF}, 0x00),
        Select(kAid),
        Auth(0, kAppMasterKey),
    });
}

TEST_F(Card, TheDirectoryAnswersAsDocumented) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    Run({Reads({0x6A}, ""), Send(CreateApp(Hex("010203"), 0x0F, 1), 0x00),
         Send(CreateApp(Hex("040506"), 0x0B, 14), 0x00), Reads({0x6A}, "010203040506"), Send(Hex("DA 010203"), 0x00),
         Reads({0x6A}, "040506"), Send(Hex("DA 010203"), 0xA0), Select(Hex("010203"), 0xA0),
         // The application's own master key may delete it; the card level is selected then.
         Select(Hex("040506")), Auth(0, kZeroKey), Send(Hex("DA 040506"), 0x00), Send({0x6F}, 0x9D), Send({0x6A}, 0x00),
         Send(CreateApp(kAid, 0x0F, 2), 0x00)});
    Run(EachAfter(Auth(0, kPiccKey), {
                                         Send(CreateApp(kAid, 0x0F, 2), 0xDE, "duplicate"),
                                         Send(CreateApp(kRoot, 0x0F, 2), 0x9E, "application id zero"),
                                         Send(CreateApp(Hex("000001"), 0x0F, 0), 0x9E, "no keys"),
                                         Send(CreateApp(Hex("000001"), 0x0F, 15), 0x9E, "fifteen keys"),
                                         Send(CreateApp(Hex("000001"), 0x0F, 0x82), 0x9E, "AES keys"),
                                         Send(Hex("CA 000001 0F"), 0x7E, "short frame"),
                                         Send(Hex("DA 000000"), 0x9E, "delete of the card level"),
                                         Send(Hex("DA 000009"), 0xA0, "delete of a missing application"),
                                         Send(Hex("FC 00"), 0x7E, "format with an argument"),
                                     }));
    Run({Select(kAid), Auth(0, kZeroKey), Send(CreateApp(Hex("000001"), 0x0F, 1), 0x9D, "only at card level"),
         Send({0x6A}, 0x9D), Auth(0, kZeroKey), Send({0xFC}, 0xAE, "format needs the card master key"),
         // No free listing, no free create/delete.
         Select(kRoot), Auth(0, kPiccKey), Sealed({0x54}, {0x09}, 0x00), Auth(0, kPiccKey),
         Send(CreateApp(Hex("000003"), 0x0F, 1), 0x00), Reads({0x45}, "0901"), Select(kRoot), Send({0x6A}, 0xAE),
         Send(CreateApp(Hex("000002"), 0x0F, 1), 0xAE), Send(Hex("DA A1B2C3"), 0xAE), Send({0x45}, 0xAE),
         // With free create/delete anyone creates, but deleting still needs a master key.
         Auth(0, kPiccKey), Sealed({0x54}, {0x0F}, 0x00), Select(kRoot), Send(CreateApp(Hex("000002"), 0x0F, 1), 0x00),
         Send(Hex("DA 000002"), 0xAE)});
}

TEST_F(Card, HoldsAtMost28ApplicationsAndListsThemInFramesOfWholeIds) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    Bytes all;
    for (std::uint8_t n = 1; n <= 29; ++n) {
        const Bytes aid{n, 0x00, 0x10};
        ASSERT_EQ(Status(CreateApp(aid, 0x0F, 1)), Is(n <= 28 ? 0x00 : 0xCE)) << int{n};
        if (n <= 28) all.insert(all.end(), aid.begin(), aid.end());
    }
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
    const Answer first = host_.Send(Bytes{0x6A});
    ASSERT_EQ(Is(first.status), Is(0xAF));
    const Answer second = host_.Send(Bytes{0xAF});
    ASSERT_EQ(Is(second.status), Is(0x00));
    EXPECT_EQ(ToHex(Concat({first.data, second.data})), ToHex(all));
    EXPECT_EQ(first.data.size(), 57u);
    EXPECT_EQ(card_.FreeMemory(), 4096u - 28 * 32);
}

TEST_F(Card, MemoryRunsOutAndFormatGivesItAllBackButKeepsTheMasterKey) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication());
    Run({Reads({0x6E}, ToHex(Le24(4096 - 32))), Send(Concat({Hex("CD 01 00 EEEE"), Le24(4096 - 64)}), 0x00),
         Send(Hex("CD 02 00 EEEE 200000"), 0x00), Send(Hex("CD 03 00 EEEE 010000"), 0x0E), Send(Hex("DF 01"), 0x00),
         Send(Hex("CD 03 00 EEEE 010000"), 0x00, "a deleted file gives its memory back"), Select(kRoot),
         Send({0xFC}, 0xAE, "the select ended the session"), Auth(0, kPiccKey), Send({0xFC}, 0x00), Reads({0x6A}, ""),
         Reads({0x6E}, "001000"), Auth(0, kPiccKey)});
}

TEST_F(Card, KeysChangeOnlyWithAnIntactCryptogram) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    Bytes badPadding = WithCrc(Bytes{0x0B});
    badPadding.back() = 0x01;
    const auto sealedBy = [this](Bytes head, Bytes plain) {
        return [this, head, plain] { return Concat({head, SendMode(host_.Session(), plain)}); };
    };
    Run(EachAfter(
        Auth(0, kAppMasterKey),
        {
            Built(
                "wrong old key in the XOR", [&] { return ChangeOtherKeyFrame(host_, 1, kWriteKey, kNext); }, 0x1E),
            Built(
                "own-key layout for another key", [&] { return ChangeOwnKeyFrame(host_, 1, kNext); }, 0x1E),
            Built(
                "another-key layout for the own key",
                [&] { return ChangeOtherKeyFrame(host_, 0, kAppMasterKey, kNext); }, 0x1E),
            Built(
                "one block short",
                [&] {
                    Bytes frame = ChangeOwnKeyFrame(host_, 0, kNext);
                    frame.resize(frame.size() - 8);
                    return frame;
                },
                0x7E),
            Built(
                "a key number beyond the application", [&] { return ChangeOtherKeyFrame(host_, 3, kZeroKey, kNext); },
                0x40),
            Built("settings with a bad CRC", sealedBy({0x54}, Hex("0B00000000000000")), 0x1E),
            Built("settings with bad padding", sealedBy({0x54}, badPadding), 0x1E),
            Built("settings of two blocks", sealedBy({0x54}, Concat({WithCrc(Bytes{0x0B}), Bytes(8)})), 0x7E),
        }));
    Run({Auth(1, kReadKey), Auth(0, kAppMasterKey), Reads({0x45}, "0F03"),
         // Key 1 holds kReadKey now; the XOR with it is not trivial.
         Built(
             "change key 1", [&] { return ChangeOtherKeyFrame(host_, 1, kReadKey, kNext); }, 0x00),
         Auth(1, kReadKey, 0xAE), Auth(1, kNext), Sealed({0x54}, {0x0B}, 0xAE, "settings not under the master key"),
         Auth(0, kAppMasterKey), Sealed({0x54}, {0x07}, 0x00), Reads({0x45}, "0703"),
         Sealed({0x54}, {0x0F}, 0x9D, "configuration frozen"),
         // Changing the session's own key ends the session.
         Auth(0, kAppMasterKey),
         Built(
             "change key 0", [&] { return ChangeOwnKeyFrame(host_, 0, kNext); }, 0x00),
         Built(
             "change key 0 again", [&] { return ChangeOwnKeyFrame(host_, 0, kAppMasterKey); }, 0xAE),
         Auth(0, kNext)});
}

TEST_F(Card, ChangeKeyAccessFollowsTheKeySettings) {
    struct Case {
        const char* what;
        std::uint8_t settings;
        std::uint8_t authenticateWith;
        std::uint8_t change;
        std::uint8_t status;
    } const cases[] = {
        {"master key changes another key", 0x0F, 0, 2, 0x00},
        {"key 1 may not change key 2", 0x0F, 1, 2, 0xAE},
        {"change key 1 changes key 2", 0x1F, 1, 2, 0x00},
        {"same-key rule: key 2 changes itself", 0xEF, 2, 2, 0x00},
        {"same-key rule: master key may not change key 2", 0xEF, 0, 2, 0xAE},
        {"frozen keys", 0xFF, 0, 2, 0x9D},
        {"master key not changeable", 0x0E, 0, 0, 0x9D},
        {"only the master key changes the master key", 0x1F, 1, 0, 0xAE},
    };
    const Key keys[] = {kAppMasterKey, kReadKey, kWriteKey};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        card_.Load(elatectwn4::sim::desfire::DesfireCard().Save());  // factory state
        ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
        ASSERT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{c.settings})})), Is(0x00));
        ASSERT_EQ(Is(host_.Authenticate(c.authenticateWith, keys[c.authenticateWith])), Is(0x00));
        const Bytes frame = c.change == c.authenticateWith
                                ? ChangeOwnKeyFrame(host_, c.change, kNext)
                                : ChangeOtherKeyFrame(host_, c.change, keys[c.change], kNext);
        EXPECT_EQ(Status(frame), Is(c.status));
        if (c.status == 0x00) {
            EXPECT_EQ(Is(host_.Authenticate(c.change, kNext)), Is(0x00));
        }
    }
}

TEST_F(Card, KeyVersionsComeFromTheParityBits) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    const Key versioned = MakeKey("0101000101000100 F0F1F2F3F4F5F6F7");  // parity bits 11011010
    Run({Built(
             "change key 2", [&] { return ChangeOtherKeyFrame(host_, 2, kWriteKey, versioned); }, 0x00),
         Reads({0x64, 0x02}, "DA"), Reads({0x64, 0x01}, "AA"), Send({0x64, 0x03}, 0x40)});
}
