// The reader session against the scripted PC/SC fake: the exact SCard calls,
// the record each failure leaves, the session's state afterwards, and the
// trace lines of a reconnection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "command/pcsc_error_text.h"
#include "elatectwn4/encoder.h"
#include "encoder_test_util.h"
#include "support/registry_dir.h"
#include "support/scripted_pcsc.h"
#include "support/trace_file.h"

namespace elatectwn4::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr std::uint32_t kNoCard = 0x90010F06;
constexpr std::uint32_t kClosed = 0x90010F01;
constexpr std::uint32_t kNoContext = 0x90010F02;
constexpr std::uint32_t kNoReader = 0x90010F03;
constexpr std::uint32_t kCommandFailed = 0x90010F04;

constexpr std::uint32_t kNoSmartcard = 0x8010000C;
constexpr std::uint32_t kRemovedCard = 0x80100069;
constexpr std::uint32_t kNoService = 0x8010001D;
// The texts themselves are the command layer's table; here only which one.
std::string Text(std::uint32_t code) {
    return command::PCSCErrorText(code);
}
const std::string kGetUid = "Transmit card=0x2001 protocol=2 FF CA 00 00 00";
const std::string kConnectA = ConnectTo("Reader A");

class Session : public ::testing::Test {
public:
    void SetUp() override { Fresh(); }

    // A new encoder for "Reader A" on a new fake.
    void Fresh() {
        ClearTrace();
        fake = std::make_shared<ScriptedPcsc>();
        encoder = std::make_unique<Encoder>(fake);
        encoder->Parameters("Device=Reader A");
        mark = 0;
    }

    // Opens on the fake's defaults (a MIFARE 1K in "Reader A") and forgets
    // the calls of the open.
    void OpenWithCard() {
        ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
        ASSERT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
        mark = fake->Calls().size();
    }

    std::vector<std::string> Since() const {
        const auto lines = Trail(*fake);
        return {lines.begin() + static_cast<std::ptrdiff_t>(mark), lines.end()};
    }

    RegistryDir registry;
    std::shared_ptr<ScriptedPcsc> fake;
    std::unique_ptr<Encoder> encoder;
    std::size_t mark = 0;
};

TEST_F(Session, ANewEncoderTalksToNoReaderAndDestroyingAnOpenOneReleases) {
    EXPECT_EQ(encoder->ATRString(), "");
    EXPECT_EQ(encoder->CardType(), sceUnknownType);  // the card-type routine ran with no ATR
    EXPECT_EQ(Of(encoder->LastError()), Cleared("CardType"));
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
    EXPECT_THAT(Trail(*fake), IsEmpty());
    OpenWithCard();
    encoder.reset();
    EXPECT_THAT(Since(), ElementsAre(kDisconnect, kRelease));
}

TEST_F(Session, WithoutResourceManagerNothingOpens) {
    fake->WillEstablishContext(kNoService);
    Encoder orphan(nullptr);  // no PC/SC boundary at all answers the same
    for (Encoder* e : {encoder.get(), &orphan}) {
        EXPECT_EQ(e->OpenEncoder(), sceError);
        EXPECT_EQ(Of(e->LastError()), Failure(kNoContext, "Cannot open encoder", "OpenEncoder", "SCardEstablishContext",
                                              Text(kNoService), kNoService));
        EXPECT_EQ(e->EncoderState(), sceClosed);
    }
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish));
}

TEST_F(Session, TheAtrComesFromStatusWhenTheAttributeIsNotOffered) {
    for (const std::uint32_t code : {0x8010001Fu, 0x80100011u, 0u}) {  // unsupported, invalid value, empty value
        Fresh();
        fake->WillGetAttrib(code, "");
        PcscStatus status;
        status.atr = Bytes(kDesfireAtr);
        fake->WillReportStatus(0, status);
        ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
        EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, kConnectA, kAtrAttrib, kStatus));
        EXPECT_EQ(encoder->ATRString(), kDesfireAtr);
    }
}

TEST_F(Session, AFailedConnectionLeavesTheRecordAndTheSessionAsTheCodeDemands) {
    struct Case {
        std::uint32_t code;
        bool reopen;  ///< ReOpenEncoder instead of OpenEncoder
        std::uint32_t number;
        bool staysOpen;  ///< connects again later in the same context
    };
    const Case cases[] = {
        {kNoSmartcard, false, kNoCard, true},
        {0x8010000D, false, kNoCard, true},  // unknown card
        {0x8010001C, false, kNoCard, true},  // unsupported card
        {kRemovedCard, false, kNoCard, true},
        {0x80100009, false, kNoReader, false},  // unknown reader
        {0x8010000B, false, kNoReader, false},  // sharing violation
        // Opening again keeps the context, unless the resource manager is gone.
        {0x80100009, true, kNoReader, true},
        {kNoService, true, kNoReader, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Text(c.code));
        Fresh();
        fake->WillConnect(c.code);
        if (c.reopen) {
            encoder->ReOpenEncoder();
        } else {
            EXPECT_EQ(encoder->OpenEncoder(), c.number == kNoCard ? sceSuccess : sceError);
        }
        EXPECT_EQ(Of(encoder->LastError()),
                  Failure(c.number, c.number == kNoCard ? "No card in encoder" : "Cannot open encoder", "OpenEncoder",
                          "SCardConnect", Text(c.code), c.code));
        EXPECT_EQ(encoder->ATRString(), "");
        auto trail = std::vector<std::string>{kEstablish, kConnectA};
        if (!c.staysOpen) trail.push_back(kRelease);
        EXPECT_THAT(Trail(*fake), ElementsAreArray(trail));
        EXPECT_EQ(encoder->EncoderState() == sceClosed, !c.staysOpen);
    }
}

TEST_F(Session, OpeningAgainHandsTheConnectionBackAndAfterARestartTakesANewContext) {
    OpenWithCard();
    EXPECT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Since(), ElementsAre(kDisconnect, kConnectA, kAtrAttrib));

    // A restarted resource manager no longer knows the context of the first
    // open; opening again is what a host does then, and it must work at once.
    mark = fake->Calls().size();
    fake->WillConnect(kNoService);
    EXPECT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
    EXPECT_THAT(Since(), ElementsAre(kDisconnect, kConnectA, kRelease, kEstablish, kConnectA, kAtrAttrib));

    // Parameters on an open encoder keep the session.
    mark = fake->Calls().size();
    encoder->Parameters("Device=Reader B;Conformance=card");
    fake->Expect("FF CA 00 00 00").Reply("01 02 03 04 90 00");
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_THAT(Since(), ElementsAre(kStatus, kGetUid));
}

TEST_F(Session, ClosingTwiceSucceedsReleasesOnceAndIgnoresARefusingReader) {
    OpenWithCard();
    fake->WillDisconnect(0x80100003);
    fake->WillReleaseContext(0x80100003);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(encoder->CloseEncoder(), sceSuccess);
        EXPECT_EQ(Of(encoder->LastError()), Cleared("CloseEncoder"));
    }
    EXPECT_THAT(Since(), ElementsAre(kDisconnect, kRelease));
    EXPECT_EQ(encoder->ATRString(), "");
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
}

TEST_F(Session, OnlyTheDefiniteNoCardAnswerMakesTheStateOpenedAndNoProbeLeavesARecord) {
    struct Case {
        bool cardAtOpen;
        std::uint32_t status;   ///< the card check of a connected card
        std::uint32_t connect;  ///< a connection attempt during the probe
        sceEncoderState state;
        std::vector<std::string> trail;
    };
    const Case cases[] = {
        {true, 0, 0, sceReady, {kStatus}},
        {true, kRemovedCard, kNoSmartcard, sceOpened, {kStatus, kDisconnect, kConnectA}},
        {false, 0, 0, sceReady, {kConnectA, kAtrAttrib}},
        {false, 0, kRemovedCard, sceOpened, {kConnectA}},
        {false, 0, 0x80100017, sceReady, {kConnectA}},  // reader unavailable
        {false, 0, 0x8010000B, sceReady, {kConnectA}},  // sharing violation
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.trail));
        Fresh();
        if (!c.cardAtOpen) fake->WillConnect(kNoSmartcard);
        ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
        mark = fake->Calls().size();
        fake->WillReportStatus(c.status);
        fake->WillConnect(c.connect);
        EXPECT_EQ(encoder->EncoderState(), c.state);
        EXPECT_EQ(Of(encoder->LastError()), Cleared("EncoderState"));
        EXPECT_THAT(Since(), ElementsAreArray(c.trail));
    }
}

TEST_F(Session, TheCardCheckBeforeACommandFailsBeforeAnythingIsSent) {
    std::string uid = "kept";
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kClosed, "Encoder is closed", "SelectCardInRange"));
    EXPECT_THAT(Trail(*fake), IsEmpty());

    OpenWithCard();
    fake->WillReportStatus(kRemovedCard);
    fake->WillConnect(kNoSmartcard);
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoCard, "No card in encoder", "SelectCardInRange", "SCardConnect",
                                                Text(kNoSmartcard), kNoSmartcard));
    EXPECT_THAT(Since(), ElementsAre(kStatus, kDisconnect, kConnectA));

    // The handles of a lost resource manager are dropped: the next open starts afresh.
    mark = fake->Calls().size();
    fake->WillConnect(kNoService);
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoReader, "Cannot open encoder", "SelectCardInRange", "SCardConnect",
                                                Text(kNoService), kNoService));
    EXPECT_THAT(Since(), ElementsAre(kConnectA, kRelease));
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
    EXPECT_EQ(uid, "kept");

    // Explaining a status leaves the record alone.
    EXPECT_EQ(encoder->GetResponseText("6982", "MifareAuthenticate:LoadKey"), "[Error]  Card key not supported");
    EXPECT_EQ(Of(encoder->LastError()), Cleared("EncoderState"));
}

TEST_F(Session, TheSerialNumberIsTheWholeUidInContiguousHexOrEmptyWithTheRecord) {
    const Record tooShort = Failure(kCommandFailed, "Encoder command failed", "ReadSerialNumber",
                                    "SCardTransmit:GetUID", "Answer of 5 data bytes, expected 4, 7 or 10");
    const std::tuple<const char*, const char*, const char*, Record> cases[] = {
        {"04 A1 B2 C3 91 AF", "D4 E5 F6 90 00", "04A1B2C3D4E5F6", Cleared("ReadSerialNumber")},
        {"00 01 02 03 04 05 06 07 08 09 90 00", nullptr, "00010203040506070809", Cleared("ReadSerialNumber")},
        {"04 A1 B2 C3 D4 90 00", nullptr, "", tooShort},
        {"6A 81", nullptr, "",
         Failure(kCommandFailed, "Encoder command failed", "ReadSerialNumber", "SCardTransmit:GetUID", "6A81")},
    };
    for (const auto& [answer, continuation, expected, record] : cases) {
        OpenWithCard();
        fake->Expect("FF CA 00 00 00").Reply(answer);
        if (continuation) fake->Expect("90 AF 00 00 00").Reply(continuation);
        std::string uid = "stale";
        EXPECT_EQ(encoder->ReadSerialNumber(uid), *expected ? sceSuccess : sceError);
        EXPECT_EQ(uid, expected);
        EXPECT_EQ(Of(encoder->LastError()), record);
    }
}

TEST_F(Session, ACardSwappedBetweenCommandsIsIdentifiedAfresh) {
    // Fragments are written as the ATR text shows bytes: blank-separated.
    registry.WriteCardTypes(
        "\"DESFire\"=\"31;3B 81 80;7\"\r\n\"Classic\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
    OpenWithCard();
    EXPECT_EQ(encoder->CardType(), sceMifare1K);

    fake->WillReportStatus(kRemovedCard);
    fake->WillConnect(0, 0x2002);
    fake->WillGetAttrib(0, kDesfireAtr);
    fake->Expect("FF CA 00 00 00").Reply("04 01 02 03 04 05 06 90 00");
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(encoder->ATRString(), kDesfireAtr);
    EXPECT_EQ(encoder->SerialNumberLength(), 7);
    EXPECT_EQ(encoder->CardType(), sceDESFire);
    EXPECT_THAT(Since(), ElementsAre(kStatus, kDisconnect, kConnectA, "GetAttrib card=0x2002 attribute=0x90303",
                                     "Transmit card=0x2002 protocol=2 FF CA 00 00 00"));
}

TEST_F(Session, EscapeSendsWholeHexBytesAsWrittenAndReturnsTheRawAnswer) {
    OpenWithCard();
    fake->Expect("FF 9B 00 00 01 AA").Reply("01 02 90 00");
    std::string answer;
    EXPECT_EQ(encoder->Escape("ff9b 00 00 01 aa", answer), sceSuccess);
    EXPECT_EQ(answer, "01029000");  // the status word is part of the raw answer
    EXPECT_EQ(Of(encoder->LastError()), Cleared("Escape"));
    mark = fake->Calls().size();

    const auto failed = [](std::uint32_t code) {
        return Failure(kCommandFailed, "Encoder command failed", "Escape", "SCardTransmit:Escape", Text(code));
    };
    for (const char* command : {"FF ZZ 00", "FFC", "0xFF", "FF CA 00 00 00\r\n"}) {
        EXPECT_EQ(encoder->Escape(command, answer), sceError);
        EXPECT_EQ(answer, "01029000");
        EXPECT_EQ(Of(encoder->LastError()), failed(0x80100004)) << command;
    }
    EXPECT_THAT(Since(), IsEmpty());
    fake->Expect("FF 00 00 00 00").Fail(0x80100016);
    EXPECT_EQ(encoder->Escape("FF 00 00 00 00", answer), sceError);
    EXPECT_EQ(Of(encoder->LastError()), failed(0x80100016));
}

TEST_F(Session, ReaderTypeDescribesTheReaderInFiveLines) {
    EXPECT_EQ(encoder->ReaderType(), "");
    EXPECT_EQ(Of(encoder->LastError()), Failure(kClosed, "Encoder is closed", "ReaderType"));

    fake->defaults.attributes[0x7FFF0003] = Bytes("54 57 4E 34 20 30 30 00");  // "TWN4 00" + NUL
    fake->defaults.attributes[0x00010100] = Bytes("45 6C 61 74 65 63");        // "Elatec", no NUL
    fake->defaults.attributes[0x00010101] = Bytes("54 57 4E 34 00 FF FF");     // text ends at the NUL
    fake->defaults.attributes[0x00010102] = Bytes("04 03 02 01");
    OpenWithCard();  // no serial number attribute: the driver refuses it
    EXPECT_EQ(encoder->ReaderType(),
              "Device name: TWN4 00\r\nVendor name: Elatec\r\nType: TWN4\r\nVersion: 1.2.3.4\r\nSerial number: \r\n");
    EXPECT_EQ(Of(encoder->LastError()), Cleared("ReaderType"));
    EXPECT_THAT(fake->AttributesAsked(),
                ElementsAre(0x00090303u, 0x7FFF0003u, 0x00010100u, 0x00010101u, 0x00010102u, 0x00010103u));

    fake->WillReportStatus(kRemovedCard);  // without a card no attribute is asked
    fake->WillConnect(kNoSmartcard);
    encoder->EncoderState();
    EXPECT_EQ(encoder->ReaderType(), "Device name: \r\nVendor name: \r\nType: \r\nVersion: \r\nSerial number: \r\n");
}

// ---- The reader answering in its own mode ---------------------------------------------------

constexpr const char* kReaderModeAtr = "3B 86 81 11 FE 81 43 69 6E 64 79 30";
constexpr const char* kSetSimpleProtocol = "FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF";

// The session's own trace lines; "Sending"/"Received" are the command layer's.
std::vector<std::string> SessionLines() {
    std::vector<std::string> lines = TraceLines();
    std::erase_if(
        lines, [](const std::string& line) { return line.starts_with("Sending ") || line.starts_with("Received: "); });
    return lines;
}

TEST_F(Session, InReaderModeSwitchesToTheSimpleProtocolAndConnectsAgain) {
    struct Case {
        const char* switchAnswer;
        std::vector<std::string> listed;
        std::string chosen;
    };
    const Case cases[] = {
        {"90 00", {"TWN4 SAM", "Reader A"}, "Reader A"},              // the configured reader is listed
        {"90 00", {"TWN4 CCID 01", "TWN4 CCID 02"}, "TWN4 CCID 01"},  // it is gone
        {"90 00", {}, "Reader A"},
        {"6A 81", {}, "Reader A"},  // the reader refused the switch
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.chosen);
        Fresh();
        fake->WillGetAttrib(0, kReaderModeAtr);
        fake->Expect(kSetSimpleProtocol).Reply(c.switchAnswer);
        fake->WillListReaders(0, c.listed);
        fake->WillConnect(0);
        fake->WillConnect(0, 0x2002);
        ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
        EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, kConnectA, kAtrAttrib,
                                              std::string("Transmit card=0x2001 protocol=2 ") + kSetSimpleProtocol,
                                              kDisconnect, "ListReaders context=0x1001", ConnectTo(c.chosen),
                                              "GetAttrib card=0x2002 attribute=0x90303"));
        EXPECT_EQ(encoder->ATRString(), kMifare1KAtr);
        EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
        EXPECT_THAT(SessionLines(),
                    ElementsAre("Disconnecting card", "Enumarating slots",
                                std::to_string(c.listed.size()) + " slots found, using \"" + c.chosen + "\"",
                                "Connection successful", "New ATR is " + kMifare1KAtr));
    }
}

TEST_F(Session, AFailedReconnectionClosesTheEncoderAndOnlyTheExactAtrMeansReaderMode) {
    fake->WillGetAttrib(0, kReaderModeAtr);
    fake->Expect(kSetSimpleProtocol).Reply("90 00");
    fake->WillConnect(0);
    fake->WillConnect(kNoSmartcard);
    EXPECT_EQ(encoder->OpenEncoder(), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoReader, "Cannot open encoder", "OpenEncoder", "SCardConnect",
                                                Text(kNoSmartcard), kNoSmartcard));
    EXPECT_EQ(Trail(*fake).back(), kRelease);
    EXPECT_EQ(encoder->ATRString(), "");
    EXPECT_THAT(SessionLines(),
                ElementsAre("Disconnecting card", "Enumarating slots", "1 slots found, using \"Virtual PCD 00 00\"",
                            "Error 0x8010000C: " + Text(kNoSmartcard)));

    // The same bytes with one more historical byte are an ordinary card.
    Fresh();
    fake->WillGetAttrib(0, std::string(kReaderModeAtr) + " 00");
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, kConnectA, kAtrAttrib));
    EXPECT_THAT(SessionLines(), IsEmpty());
}

}  // namespace
}  // namespace elatectwn4::test
