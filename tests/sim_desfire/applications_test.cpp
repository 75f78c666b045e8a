// Card level: version, applications, format, memory, keys and key settings.
#include <functional>

#include "fixture.h"

using namespace desfire_test;

namespace {

Bytes CreateApp(ByteSpan aid, std::uint8_t settings, std::uint8_t keys) {
    return Concat({Bytes{0xCA}, aid, Bytes{settings, keys}});
}

Bytes AidNumber(unsigned n) {
    return {static_cast<std::uint8_t>(n), 0x00, 0x10};
}

}  // namespace

class Applications : public CardTest {};

TEST_F(Applications, GetVersionAnswersInThreeFrames) {
    const Answer hardware = host_.Send(Bytes{0x60});
    ASSERT_EQ(Is(hardware.status), Is(0xAF));
    EXPECT_EQ(hardware.data.size(), 7u);
    EXPECT_EQ(hardware.data[0], 0x04) << "vendor NXP";
    EXPECT_EQ(hardware.data[5], 0x18) << "4 KB";
    const Answer software = host_.Send(Bytes{0xAF});
    ASSERT_EQ(Is(software.status), Is(0xAF));
    EXPECT_EQ(software.data.size(), 7u);
    const Answer production = host_.Send(Bytes{0xAF});
    ASSERT_EQ(Is(production.status), Is(0x00));
    ASSERT_EQ(production.data.size(), 14u);
    EXPECT_EQ(ToHex(ByteSpan(production.data).first(7)), ToHex(card_.Uid()));
    EXPECT_EQ(card_.Uid().size(), 7u);
    EXPECT_EQ(card_.Uid()[0], 0x04);
    EXPECT_EQ(Status(Bytes{0x60, 0x00}), Is(0x7E));
}

TEST_F(Applications, AreCreatedListedAndDeleted) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    EXPECT_EQ(host_.Send(Bytes{0x6A}).data.size(), 0u);
    EXPECT_EQ(Status(CreateApp(Hex("010203"), 0x0F, 1)), Is(0x00));
    EXPECT_EQ(Status(CreateApp(Hex("040506"), 0x0B, 14)), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x6A}).data), "010203040506");

    EXPECT_EQ(Status(Hex("DA 010203")), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x6A}).data), "040506");
    EXPECT_EQ(Status(Hex("DA 010203")), Is(0xA0));
    EXPECT_EQ(Is(host_.Select(Hex("010203"))), Is(0xA0));

    // The application's own master key may delete it; the card level is selected then.
    ASSERT_EQ(Is(host_.Select(Hex("040506"))), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(0, kZeroKey)), Is(0x00));
    EXPECT_EQ(Status(Hex("DA 040506")), Is(0x00));
    EXPECT_EQ(Status(Bytes{0x6F}), Is(0x9D)) << "no application selected any more";
    EXPECT_EQ(Status(Bytes{0x6A}), Is(0x00));
}

TEST_F(Applications, RefusalsCarryTheCardsStatus) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    ASSERT_EQ(Status(CreateApp(kAid, 0x0F, 2)), Is(0x00));
    struct Case {
        const char* what;
        Bytes frame;
        std::uint8_t status;
    } const cases[] = {
        {"duplicate", CreateApp(kAid, 0x0F, 2), 0xDE},
        {"application id zero", CreateApp(Hex("000000"), 0x0F, 2), 0x9E},
        {"no keys", CreateApp(Hex("000001"), 0x0F, 0), 0x9E},
        {"fifteen keys", CreateApp(Hex("000001"), 0x0F, 15), 0x9E},
        {"AES keys", CreateApp(Hex("000001"), 0x0F, 0x82), 0x9E},
        {"short frame", Hex("CA 000001 0F"), 0x7E},
        {"delete of the card level", Hex("DA 000000"), 0x9E},
        {"delete of a missing application", Hex("DA 000009"), 0xA0},
        {"format with an argument", Hex("FC 00"), 0x7E},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
        EXPECT_EQ(Status(c.frame), Is(c.status)) << c.what;
    }
    ASSERT_EQ(Is(host_.Select(kAid)), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(0, kZeroKey)), Is(0x00));
    EXPECT_EQ(Status(CreateApp(Hex("000001"), 0x0F, 1)), Is(0x9D)) << "only at card level";
    EXPECT_EQ(Status(Bytes{0x6A}), Is(0x9D)) << "only at card level";
    ASSERT_EQ(Is(host_.Authenticate(0, kZeroKey)), Is(0x00));
    EXPECT_EQ(Status(Bytes{0xFC}), Is(0xAE)) << "format needs the card master key";
}

TEST_F(Applications, TheCardMasterKeySettingsGuardTheDirectory) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    // No free listing, no free create/delete.
    ASSERT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{0x09})})), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
    EXPECT_EQ(Status(CreateApp(kAid, 0x0F, 1)), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x45}).data), "0901");
    ASSERT_EQ(Is(host_.Select(Hex("000000"))), Is(0x00));
    EXPECT_EQ(Status(Bytes{0x6A}), Is(0xAE));
    EXPECT_EQ(Status(CreateApp(Hex("000002"), 0x0F, 1)), Is(0xAE));
    EXPECT_EQ(Status(Hex("DA A1B2C3")), Is(0xAE));
    EXPECT_EQ(Status(Bytes{0x45}), Is(0xAE));

    // With free create/delete anyone creates, but deleting still needs a master key.
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
    ASSERT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{0x0F})})), Is(0x00));
    ASSERT_EQ(Is(host_.Select(Hex("000000"))), Is(0x00));
    EXPECT_EQ(Status(CreateApp(Hex("000002"), 0x0F, 1)), Is(0x00));
    EXPECT_EQ(Status(Hex("DA 000002")), Is(0xAE));
}

TEST_F(Applications, TheCardHoldsAtMost28ApplicationsAndGivesTheirIdsInFramesOfWholeIds) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    Bytes all;
    for (unsigned n = 1; n <= 28; ++n) {
        ASSERT_EQ(Status(CreateApp(AidNumber(n), 0x0F, 1)), Is(0x00)) << n;
        const Bytes aid = AidNumber(n);
        all.insert(all.end(), aid.begin(), aid.end());
    }
    EXPECT_EQ(Status(CreateApp(AidNumber(29), 0x0F, 1)), Is(0xCE));
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
    const Answer first = host_.Send(Bytes{0x6A});
    ASSERT_EQ(Is(first.status), Is(0xAF));
    EXPECT_EQ(first.data.size(), 57u);
    const Answer second = host_.Send(Bytes{0xAF});
    ASSERT_EQ(Is(second.status), Is(0x00));
    EXPECT_EQ(ToHex(Concat({first.data, second.data})), ToHex(all));
    EXPECT_EQ(card_.FreeMemory(), 4096u - 28 * 32);
}

TEST_F(Applications, FormatEmptiesTheCardButKeepsItsMasterKey) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication());
    ASSERT_EQ(Status(Hex("CD 01 00 EEEE 000100")), Is(0x00));
    const std::uint64_t before = card_.FreeMemory();
    EXPECT_LT(before, 4096u);
    ASSERT_EQ(Is(host_.Select(Hex("000000"))), Is(0x00));
    EXPECT_EQ(Status(Bytes{0xFC}), Is(0xAE)) << "the select ended the session";
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
    EXPECT_EQ(Status(Bytes{0xFC}), Is(0x00));
    EXPECT_EQ(host_.Send(Bytes{0x6A}).data.size(), 0u);
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x6E}).data), "001000");
    EXPECT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
}

TEST_F(Applications, MemoryRunsOutWithOutOfEeprom) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication());
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x6E}).data), ToHex(Le24(4096 - 32)));
    EXPECT_EQ(Status(Concat({Hex("CD 01 00 EEEE"), Le24(4096 - 64)})), Is(0x00));
    EXPECT_EQ(Status(Hex("CD 02 00 EEEE 200000")), Is(0x00));
    EXPECT_EQ(Status(Hex("CD 03 00 EEEE 010000")), Is(0x0E));
    EXPECT_EQ(Status(Hex("DF 01")), Is(0x00));
    EXPECT_EQ(Status(Hex("CD 03 00 EEEE 010000")), Is(0x00)) << "a deleted file gives its memory back";
}

class Keys : public CardTest {};

TEST_F(Keys, ChangeKeyOfAnotherKeyCarriesTheXorAndBothCrcs) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    // Key 1 holds kReadKey now; the XOR with it is not trivial.
    const Key next = MakeKey("00112233445566778899AABBCCDDEEFF");
    EXPECT_EQ(Status(ChangeOtherKeyFrame(host_, 1, kReadKey, next)), Is(0x00));
    EXPECT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0xAE));
    EXPECT_EQ(Is(host_.Authenticate(1, next)), Is(0x00));
}

TEST_F(Keys, ChangeKeyRefusesBrokenCryptograms) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    const Key next = MakeKey("00112233445566778899AABBCCDDEEFF");
    struct Case {
        const char* what;
        std::function<Bytes()> frame;
        std::uint8_t status;
    } const cases[] = {
        {"wrong old key in the XOR", [&] { return ChangeOtherKeyFrame(host_, 1, kWriteKey, next); }, 0x1E},
        {"own-key layout for another key", [&] { return ChangeOwnKeyFrame(host_, 1, next); }, 0x1E},
        {"another-key layout for the own key", [&] { return ChangeOtherKeyFrame(host_, 0, kAppMasterKey, next); },
         0x1E},
        {"the XOR and the new key as two padded pieces (48 bytes)",
         [&] {
             Bytes x(16);
             for (int i = 0; i < 16; ++i)
                 x[i] = kReadKey[i] ^ next[i];
             return Concat({Bytes{0xC4, 0x01}, SendMode(host_.Session(), Concat({WithCrc(x), WithCrc(next)}))});
         },
         0x7E},
        {"one block short",
         [&] {
             Bytes frame = ChangeOwnKeyFrame(host_, 0, next);
             frame.resize(frame.size() - 8);
             return frame;
         },
         0x7E},
        {"a key number beyond the application", [&] { return ChangeOtherKeyFrame(host_, 3, kZeroKey, next); }, 0x40},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
        EXPECT_EQ(Status(c.frame()), Is(c.status)) << c.what;
    }
    EXPECT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00)) << "key 1 unchanged";
    EXPECT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00)) << "key 0 unchanged";
}

TEST_F(Keys, ChangeKeyAccessFollowsTheKeySettings) {
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
    const Key next = MakeKey("8899AABBCCDDEEFF0011223344556677");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        card_.Load(elatectwn4::sim::desfire::DesfireCard().Save());  // factory state
        ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
        ASSERT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{c.settings})})), Is(0x00));
        ASSERT_EQ(Is(host_.Authenticate(c.authenticateWith, keys[c.authenticateWith])), Is(0x00));
        const Bytes frame = c.change == c.authenticateWith ? ChangeOwnKeyFrame(host_, c.change, next)
                                                           : ChangeOtherKeyFrame(host_, c.change, keys[c.change], next);
        EXPECT_EQ(Status(frame), Is(c.status));
        if (c.status == 0x00) {
            EXPECT_EQ(Is(host_.Authenticate(c.change, next)), Is(0x00));
        }
    }
}

TEST_F(Keys, ChangingTheSessionKeyEndsTheSession) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0D, 2));
    ASSERT_EQ(Status(Bytes{0x45}), Is(0x00));
    const Key next = MakeKey("0102030405060708A1A2A3A4A5A6A7A8");
    ASSERT_EQ(Status(ChangeOwnKeyFrame(host_, 0, next)), Is(0x00));
    EXPECT_EQ(Status(Bytes{0x45}), Is(0xAE));
    EXPECT_EQ(Is(host_.Authenticate(0, next)), Is(0x00));
}

TEST_F(Keys, KeyVersionsComeFromTheParityBits) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    const Key versioned = MakeKey("0101000101000100 F0F1F2F3F4F5F6F7");  // parity bits 11011010
    ASSERT_EQ(Status(ChangeOtherKeyFrame(host_, 2, kWriteKey, versioned)), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x64, 0x02}).data), "DA");
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x64, 0x01}).data), "AA") << "0F1E2D3C4B5A6978";
    EXPECT_EQ(Status(Bytes{0x64, 0x03}), Is(0x40));
}

TEST_F(Keys, KeySettingsChangeOnlyUnderTheMasterKeyWithAnIntactCryptogram) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x45}).data), "0F03");
    Bytes badPadding = WithCrc(Bytes{0x0B});
    badPadding.back() = 0x01;
    struct Case {
        const char* what;
        std::function<Bytes()> frame;
        std::uint8_t status;
    } const cases[] = {
        {"bad CRC",
         [&] {
             return Concat({Bytes{0x54}, SendMode(host_.Session(), Hex("0B00000000000000"))});
         },
         0x1E},
        {"bad padding",
         [&] {
             return Concat({Bytes{0x54}, SendMode(host_.Session(), badPadding)});
         },
         0x1E},
        {"two blocks",
         [&] {
             return Concat({Bytes{0x54}, SendMode(host_.Session(), Concat({WithCrc(Bytes{0x0B}), Bytes(8)}))});
         },
         0x7E},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
        EXPECT_EQ(Status(c.frame()), Is(c.status)) << c.what;
    }
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{0x0B})})), Is(0xAE)) << "not the master key";
    ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{0x07})})), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x45}).data), "0703");
    EXPECT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{0x0F})})), Is(0x9D)) << "configuration frozen";
}
