// The simulated card as a host sees it, against the card's documented
// behaviour: authentication and its session, the directory, keys, files and
// transactions, each step with the status the card gives.
#include "fixture.h"

using namespace desfire_test;

namespace {

Bytes CreateApp(ByteSpan aid, std::uint8_t settings, std::uint8_t keys) {
    return Concat({Bytes{0xCA}, aid, Bytes{settings, keys}});
}
// Create a data file (`count` 0) or a record file.
Bytes CreateFile(std::uint8_t command, std::uint8_t file, std::uint8_t mode, std::uint32_t size,
                 std::uint32_t count = 0, ByteSpan rights = Bytes{0xEE, 0xEE}) {
    return Concat({Bytes{command, file, mode}, rights, Le24(size), count ? Le24(count) : Bytes{}});
}
Bytes CreateValue(std::uint8_t file, std::int32_t low, std::int32_t high, std::int32_t value, std::uint8_t flags,
                  ByteSpan rights = Bytes{0xEE, 0xEE}) {
    return Concat({Bytes{0xCC, file, 0x00}, rights, Le32(low), Le32(high), Le32(value), Bytes{flags}});
}
Bytes Header(std::uint8_t command, std::uint8_t file, std::uint32_t offset, std::uint32_t length) {
    return Concat({Bytes{command, file}, Le24(offset), Le24(length)});
}
Bytes Amount(std::uint8_t command, std::uint8_t file, std::int32_t amount) {
    return Concat({Bytes{command, file}, Le32(amount)});
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

TEST_F(Card, AuthenticationAndItsSessionEndAsDocumented) {
    Run({Auth(1, kZeroKey, 0x40),  // at card level only key 0 exists
                                   // A broken-off exchange aborts the next command; a lone continuation is illegal.
         Send({0x0A, 0x00}, 0xAF), Send({0x45}, 0xCA), Send({0x45}, 0x00), Send({0xAF}, 0x1C),
         Send({0x60, 0x00}, 0x7E)});
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    // Without free directory listing GetKeySettings needs the master key session,
    // which a select, an error, an unknown command and a power-on all end.
    Run({Sealed({0x54}, {0x0D}, 0x00), Auth(0, kPiccKey), Send({0x45}, 0x00), Select(kRoot), Send({0x45}, 0xAE),
         Auth(0, kPiccKey), Send({0x64, 0x05}, 0x40), Send({0x45}, 0xAE), Auth(0, kPiccKey), Send({0x99}, 0x1C),
         Send({0x45}, 0xAE), Auth(0, kPiccKey)});
    card_.PowerOn();
    Run({Send({0x45}, 0xAE)});

    card_.Load(elatectwn4::sim::desfire::DesfireCard().Save());
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0D, 3));
    Run({Send({0xC7}, 0x0C), Send({0x6F}, 0x00, "NO_CHANGES is not an error"), Auth(1, kWriteKey, 0xAE),
         Auth(3, kReadKey, 0x40), Send({0x0A}, 0x7E), Send({0x0A, 0x00, 0x00}, 0x7E), Send({0x0A, 0x01}, 0xAF),
         Send(Concat({Bytes{0xAF}, Bytes(15, 0x11)}), 0x7E, "short token"), Auth(1, kReadKey),
         // A failed select leaves nothing selected to authenticate with; the version needs nothing.
         Select(Hex("777777"), 0xA0), Send({0x0A, 0x00}, 0xA0), Send({0x6F}, 0xA0), Send({0x60}, 0xAF),
         Send({0xAF}, 0xAF), Send({0xAF}, 0x00), Select(kAid), Auth(0, kAppMasterKey)});
}

TEST_F(Card, TheDirectoryAnswersAsDocumented) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    Run({Reads({0x6A}, ""), Send(CreateApp(Hex("010203"), 0x0F, 1), 0x00),
         Send(CreateApp(Hex("040506"), 0x0B, 14), 0x00), Reads({0x6A}, "010203040506"), Send(Hex("DA 010203"), 0x00),
         Reads({0x6A}, "040506"), Send(Hex("DA 010203"), 0xA0), Select(Hex("010203"), 0xA0),
         // The application's own master key may delete it; the card level is selected then.
         Select(Hex("040506")), Auth(0, kZeroKey), Send(Hex("DA 040506"), 0x00), Send({0x6F}, 0x9D), Send({0x6A}, 0x00),
         Send(CreateApp(kAid, 0x0F, 2), 0x00)});
    Run(EachAfter(Auth(0, kPiccKey),
                  {Send(CreateApp(kAid, 0x0F, 2), 0xDE), Send(CreateApp(kRoot, 0x0F, 2), 0x9E),
                   Send(CreateApp(Hex("000001"), 0x0F, 0), 0x9E), Send(CreateApp(Hex("000001"), 0x0F, 15), 0x9E),
                   Send(CreateApp(Hex("000001"), 0x0F, 0x82), 0x9E, "AES keys"), Send(Hex("CA 000001 0F"), 0x7E),
                   Send(Hex("DA 000000"), 0x9E), Send(Hex("DA 000009"), 0xA0), Send(Hex("FC 00"), 0x7E)}));
    Run({Select(kAid), Auth(0, kZeroKey), Send(CreateApp(Hex("000001"), 0x0F, 1), 0x9D, "only at card level"),
         Auth(0, kZeroKey), Send({0xFC}, 0xAE, "format needs the card master key"),
         // No free listing, no free create/delete.
         Select(kRoot), Auth(0, kPiccKey), Sealed({0x54}, {0x09}, 0x00), Select(kRoot), Send({0x6A}, 0xAE),
         Send(CreateApp(Hex("000002"), 0x0F, 1), 0xAE), Send(Hex("DA A1B2C3"), 0xAE),
         // With free create/delete anyone creates, but deleting still needs a master key.
         Auth(0, kPiccKey), Sealed({0x54}, {0x0F}, 0x00), Select(kRoot), Send(CreateApp(Hex("000002"), 0x0F, 1), 0x00),
         Send(Hex("DA 000002"), 0xAE)});
}

TEST_F(Card, HoldsAtMost28ApplicationsListedInFramesOfWholeIdsAndFormatGivesTheMemoryBack) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    Bytes all;
    for (std::uint8_t n = 1; n <= 29; ++n) {
        const Bytes aid{n, 0x00, 0x10};
        ASSERT_EQ(Status(CreateApp(aid, 0x0F, 1)), Is(n <= 28 ? 0x00 : 0xCE)) << int{n};
        if (n <= 28) all.insert(all.end(), aid.begin(), aid.end());
    }
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
    const Answer first = host_.Send(Bytes{0x6A});
    EXPECT_EQ(first.data.size(), 57u);
    EXPECT_EQ(ToHex(Concat({first.data, host_.Exchange(Bytes{0xAF}).data})), ToHex(all));
    Run({Reads({0x6E}, ToHex(Le24(4096 - 28 * 32))), Send({0xFC}, 0x00), Reads({0x6A}, ""), Reads({0x6E}, "001000"),
         Auth(0, kPiccKey)});
}

TEST_F(Card, KeysChangeOnlyWithAnIntactCryptogramUnderTheKeySettings) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
    Run(EachAfter(
        Auth(0, kAppMasterKey),
        {Built([&] { return ChangeOtherKeyFrame(host_, 1, kWriteKey, kNext); }, 0x1E, "wrong old key in the XOR"),
         Built([&] { return ChangeOtherKeyFrame(host_, 3, kZeroKey, kNext); }, 0x40, "a key beyond the application"),
         Built([&] { return ChangeOwnKeyFrame(host_, 1, kNext); }, 0x1E, "own-key layout for another key"),
         Built([&] { return Concat({ByteSpan(ChangeOwnKeyFrame(host_, 0, kNext)).first(18)}); }, 0x7E, "block short"),
         Built(
             [&] {
                 return Concat({Bytes{0x54}, SendMode(host_.Session(), Bytes(8, 0x0B))});
             },
             0x1E, "bad CRC")}));
    const Key versioned = MakeKey("0101000101000100 F0F1F2F3F4F5F6F7");  // parity bits 11011010
    Run({Auth(0, kAppMasterKey), Built([&] { return ChangeOtherKeyFrame(host_, 2, kWriteKey, versioned); }, 0x00),
         Reads({0x64, 0x02}, "DA"), Reads({0x64, 0x01}, "AA"), Send({0x64, 0x03}, 0x40), Auth(1, kReadKey),
         Sealed({0x54}, {0x0B}, 0xAE, "settings not under the master key"), Auth(0, kAppMasterKey),
         Sealed({0x54}, {0x07}, 0x00), Reads({0x45}, "0703"), Sealed({0x54}, {0x0F}, 0x9D, "configuration frozen"),
         // Changing the session's own key ends the session.
         Auth(0, kAppMasterKey), Built([&] { return ChangeOwnKeyFrame(host_, 0, kNext); }, 0x00),
         Built([&] { return ChangeOwnKeyFrame(host_, 0, kAppMasterKey); }, 0xAE, "again"), Auth(0, kNext)});

    const struct {
        std::uint8_t settings, authenticateWith, change, status;
    } cases[] = {
        {0x0F, 0, 2, 0x00}, {0x0F, 1, 2, 0xAE}, {0x1F, 1, 2, 0x00},  // change key 1 changes the others
        {0xEF, 2, 2, 0x00}, {0xEF, 0, 2, 0xAE},                      // each key changes itself
        {0xFF, 0, 2, 0x9D}, {0x0E, 0, 0, 0x9D}, {0x1F, 1, 0, 0xAE},  // frozen; master key fixed or its own
    };
    const Key keys[] = {kAppMasterKey, kReadKey, kWriteKey};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << std::hex << int{c.settings} << " " << int{c.authenticateWith});
        card_.Load(elatectwn4::sim::desfire::DesfireCard().Save());  // factory state
        ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3));
        ASSERT_EQ(Status(Concat({Bytes{0x54}, host_.Encipher(Bytes{c.settings})})), Is(0x00));
        ASSERT_EQ(Is(host_.Authenticate(c.authenticateWith, keys[c.authenticateWith])), Is(0x00));
        EXPECT_EQ(Status(c.change == c.authenticateWith ? ChangeOwnKeyFrame(host_, c.change, kNext)
                                                        : ChangeOtherKeyFrame(host_, c.change, keys[c.change], kNext)),
                  Is(c.status));
        if (c.status == 0x00) {
            EXPECT_EQ(Is(host_.Authenticate(c.change, kNext)), Is(0x00));
        }
    }
}

class Files : public CardTest {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3)); }
};

TEST_F(Files, ProtectedWritesRefuseATamperedMacOrCryptogramAndEndTheSession) {
    const Bytes data = Hex("0102030405060708");
    const auto tampered = [&](std::uint8_t file) {
        return [=, this] {
            Bytes frame =
                Concat({Header(0x3D, file, 0, 8), file == 1 ? Concat({data, host_.Mac(data)}) : host_.Encipher(data)});
            frame.back() ^= 0x01;
            return frame;
        };
    };
    Run({Send(CreateFile(0xCD, 1, 0x01, 8, 0, Bytes{0x10, 0x12}), 0x00),
         Send(CreateFile(0xCD, 3, 0x03, 8, 0, Bytes{0x10, 0x12}), 0x00), Auth(1, kReadKey),
         Built(tampered(1), 0x1E, "MAC changed"), Send(Concat({Header(0x3D, 1, 0, 1), Hex("01")}), 0xAE),
         Auth(1, kReadKey), Built(tampered(3), 0x1E, "cryptogram changed")});
}

TEST_F(Files, DataTravelsInFramesOfAtMost59BytesAndAnySplitButNotOneByteTooMany) {
    ASSERT_EQ(Status(CreateFile(0xCD, 1, 0x00, 200)), Is(0x00));
    Bytes data(200);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(3 + 7 * i);
    ASSERT_EQ(Is(host_.SendChained(Concat({Header(0x3D, 1, 0, 200), data})).status), Is(0x00));
    std::vector<std::size_t> sizes;
    Answer a = host_.Send(Header(0xBD, 1, 0, 0));
    for (sizes.push_back(a.data.size()); a.status == 0xAF; sizes.push_back(a.data.size()))
        a = host_.Send(Bytes{0xAF});
    EXPECT_EQ(Is(a.status), Is(0x00));
    EXPECT_EQ(sizes, (std::vector<std::size_t>{59, 59, 59, 23}));
    const Bytes frame = Concat({Header(0x3D, 1, 0, 64), ByteSpan(data).first(64)});
    EXPECT_EQ(Is(host_.SendChained(frame, 9, 10).status), Is(0x00));
    EXPECT_EQ(Is(host_.SendChained(Concat({frame, Bytes{0x00}})).status), Is(0x7E));
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 4), Hex("0102030405")})), Is(0x7E));
}

TEST_F(Files, TransactionsCommitAbortAndDropAsDocumented) {
    const Bytes readAll = Header(0xBD, 1, 0, 0);
    Run({Send(CreateFile(0xCB, 1, 0x00, 8), 0x00), Send(Concat({Header(0x3D, 1, 0, 4), Hex("01020304")}), 0x00),
         Send({0xA7}, 0x00), Send({0xA7}, 0x0C, "nothing left to abort"), Reads(readAll, "0000000000000000"),
         Send(Concat({Header(0x3D, 1, 2, 4), Hex("0A0B0C0D")}), 0x00), Send({0xC7}, 0x00), Send({0xC7}, 0x0C),
         Reads(readAll, "00000A0B0C0D0000"),
         // A select drops what was pending.
         Send(Concat({Header(0x3D, 1, 0, 1), Hex("FF")}), 0x00), Select(kAid), Send({0xC7}, 0x0C),
         Reads(readAll, "00000A0B0C0D0000"),
         // The upper limit counts the pending credit, which a refusal leaves in place.
         Auth(0, kAppMasterKey), Send(CreateValue(2, -10, 100, 0, 0x01), 0x00),
         Send(CreateValue(3, 0, 50, 50, 0), 0x00), Send(Amount(0x0C, 2, 100), 0x00), Send(Amount(0x0C, 2, 1), 0xBE),
         Reads({0x6C, 2}, ToHex(Le32(0))), Send({0xC7}, 0x00), Reads({0x6C, 2}, ToHex(Le32(100))),
         Send(Amount(0x0C, 2, -1), 0x9E, "a negative amount"),
         Send(Amount(0x1C, 3, 1), 0x9D, "limited credit not enabled"), Send(Amount(0x0C, 3, 1), 0xBE),
         Send(Amount(0x0C, 3, 0), 0x00, "zero is an amount"),
         // A limited credit gives back at most what was debited, once.
         Send(Amount(0x1C, 2, 1), 0xBE), Send(Amount(0xDC, 2, 10), 0x00), Send({0xC7}, 0x00),
         Send(Amount(0x1C, 2, 11), 0xBE), Send(Amount(0x1C, 2, 5), 0x00), Send({0xC7}, 0x00),
         Send(Amount(0x1C, 2, 1), 0xBE),
         // Credit needs the read&write key, debit any of the three.
         Auth(0, kAppMasterKey), Send(CreateValue(4, 0, 100, 50, 0, Bytes{0x10, 0x22}), 0x00), Auth(2, kWriteKey),
         Send(Amount(0xDC, 4, 5), 0x00), Send(Amount(0x0C, 4, 5), 0xAE), Auth(1, kReadKey),
         Send(Amount(0x0C, 4, 5), 0x00)});
}

TEST_F(Files, RecordsAreWrittenOnePerTransactionAndReadOldestFirst) {
    Run({Send(CreateFile(0xC1, 1, 0x00, 2, 5), 0x00), Send(Header(0xBB, 1, 0, 0), 0xBE, "no record yet")});
    for (std::uint8_t r = 1; r <= 4; ++r)
        Run({Send(Concat({Header(0x3B, 1, 0, 2), Bytes{r, r}}), 0x00), Send({0xC7}, 0x00)});
    Run({Reads(Header(0xBB, 1, 0, 0), "0101020203030404"), Reads(Header(0xBB, 1, 1, 2), "02020303"),
         Reads(Header(0xBB, 1, 3, 0), "0101"), Send(Header(0xBB, 1, 4, 0), 0xBE), Send(Header(0xBB, 1, 1, 4), 0xBE),
         Send(CreateFile(0xC1, 2, 0x00, 4, 2), 0x00), Send(Concat({Header(0x3B, 2, 0, 2), Hex("AAAA")}), 0x00),
         Send(Concat({Header(0x3B, 2, 3, 1), Hex("BB")}), 0x00),
         Send(Concat({Header(0x3B, 2, 3, 2), Hex("CCCC")}), 0xBE, "past the record's end"),
         Send(Header(0x3B, 2, 0, 0), 0x7E), Send({0xC7}, 0x00), Reads(Header(0xBB, 2, 0, 0), "AAAA00BB"),
         Send(Concat({Header(0x3B, 2, 0, 1), Hex("01")}), 0x00), Send({0xC7}, 0x00),
         Send(Concat({Header(0x3B, 2, 0, 1), Hex("02")}), 0xBE, "a full linear file"), Send({0xEB, 2}, 0x00),
         Send(Concat({Header(0x3B, 2, 0, 1), Hex("03")}), 0x9D, "cleared in this transaction"), Send({0xC7}, 0x00),
         Send(Header(0xBB, 2, 0, 0), 0xBE, "empty after the commit")});
}

TEST_F(Files, RightsSettingsAndRefusalsCarryTheCardsStatus) {
    const auto maced = [this](Bytes head, Bytes data) {
        return [this, head, data] { return Concat({head, data, host_.Mac(data)}); };
    };
    // file 1: maced, read free, write key 2, change key 0; file 2: every right never
    Run({Send(CreateFile(0xCD, 1, 0x01, 8, 0, Bytes{0xF0, 0xE2}), 0x00),
         Send(CreateFile(0xCD, 2, 0x00, 8, 0, Bytes{0xFF, 0xFF}), 0x00), Auth(1, kReadKey),
         Reads(Header(0xBD, 1, 0, 0), "0000000000000000"),  // free read answers plain, even to a session
         Built(maced(Header(0x3D, 1, 0, 1), Hex("01")), 0xAE, "key 1 cannot write"), Auth(2, kWriteKey),
         Built(maced(Header(0x3D, 1, 0, 1), Hex("01")), 0x00),
         Send(Concat({Header(0x3D, 1, 0, 1), Hex("01")}), 0xAF, "a maced file waits for its MAC"),
         Send(Concat({Bytes{0xAF}, Bytes(4, 0x00)}), 0x1E), Send(Header(0xBD, 2, 0, 0), 0x9D), Auth(0, kAppMasterKey),
         Send(CreateFile(0xC0, 5, 0x03, 0x23, 0x10, Bytes{0x11, 0x12}), 0x00),
         Send(CreateValue(3, -10, 100, 0, 0x01), 0x00), Send(CreateFile(0xCB, 4, 0x02, 0x1FF), 0x00),
         Reads({0x6F}, "01020503 04"), Reads({0xF5, 5}, "04 03 1112 230000 100000 000000"),
         Reads({0xF5, 3}, "02 00 EEEE F6FFFFFF 64000000 00000000 01"), Reads({0xF5, 4}, "01 02 EEEE FF0100"),
         Send({0xDF, 2}, 0x00), Reads({0x6F}, "01050304"),
         // File 5 changes under key 1, enciphered; the plain form is a length error.
         Auth(1, kReadKey), Send(Hex("5F 05 00 11 22"), 0x7E), Auth(1, kReadKey),
         Sealed(Hex("5F 05"), Hex("03 11 22"), 0x00), Reads({0xF5, 5}, "04 03 1122 230000 100000 000000"),
         Send(Hex("5F 04 00 EE EE"), 0x00), Auth(2, kWriteKey),
         Sealed(Hex("5F 05"), Hex("00 10 22"), 0xAE, "not the change key")});
    Run(EachAfter(Auth(0, kAppMasterKey),
                  {Send(Header(0xBD, 9, 0, 1), 0xF0), Send(Header(0xBD, 4, 0x1FE, 2), 0xBE, "read past the end"),
                   Send(Concat({Header(0x3D, 4, 0x1FE, 2), Hex("0102")}), 0xBE, "write past the end"),
                   Send({0x6C, 4}, 0x9E, "a value operation on a data file"),
                   Send({0xBD, 4, 0, 0, 0, 1, 0}, 0x7E, "short read frame"), Send(CreateFile(0xCD, 4, 0x00, 8), 0xDE),
                   Send(CreateFile(0xCD, 32, 0x00, 8), 0x9E), Send(CreateFile(0xCD, 6, 0x04, 8), 0x9E),
                   Send(CreateValue(6, 10, 0, 5, 0), 0x9E),
                   Send(CreateFile(0xC0, 6, 0x00, 4, 1), 0x9E, "cyclic file of one record"),
                   Send(CreateFile(0xCD, 6, 0x00, 5000), 0x0E)}));
}
