// The reader session against the scripted PC/SC fake: the exact SCard calls,
// the record each failure leaves, and the session's state afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "elatectwn4/encoder.h"
#include "encoder_test_util.h"
#include "support/registry_dir.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kNoCard = 0x90010F06;
constexpr std::uint32_t kClosed = 0x90010F01;
constexpr std::uint32_t kNoContext = 0x90010F02;
constexpr std::uint32_t kNoReader = 0x90010F03;
constexpr std::uint32_t kCommandFailed = 0x90010F04;

class Session : public ::testing::Test {
protected:
    void SetUp() override {
        fake = std::make_shared<ScriptedPcsc>();
        encoder = std::make_unique<Encoder>(fake);
        encoder->Parameters("Device=Reader A");
    }

    // Opens on the fake's defaults (a MIFARE 1K in "Reader A") and forgets
    // the calls of the open.
    void OpenWithCard() {
        ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
        ASSERT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
        mark = fake->Calls().size();
    }

    std::vector<std::string> Since() const { return TrailSince(*fake, mark); }

    RegistryDir registry;
    std::shared_ptr<ScriptedPcsc> fake;
    std::unique_ptr<Encoder> encoder;
    std::size_t mark = 0;
};

// ---- Creation, properties, defaults ---------------------------------------------

TEST_F(Session, ANewEncoderTalksToNoReaderAndReportsItsDefaults) {
    Encoder fresh(fake);
    EXPECT_EQ(Of(fresh.LastError()), Cleared(""));
    EXPECT_EQ(fresh.ATRString(), "");
    EXPECT_EQ(fresh.SerialNumberLength(), 0);
    EXPECT_EQ(fresh.Parameters(),
              "Encoding capabilities=Mifare Classic, Mifare Ultralight, Mifare DESFire\r\nDevice=<unknown>");
    EXPECT_EQ(fresh.CardType(), sceUnknownType);  // the card-type routine ran with no ATR
    EXPECT_EQ(Of(fresh.LastError()), Cleared("CardType"));
    EXPECT_EQ(fresh.EncoderState(), sceClosed);
    EXPECT_THAT(Trail(*fake), IsEmpty());
}

TEST_F(Session, AGivenNullBoundaryBehavesAsAMachineWithoutResourceManager) {
    Encoder orphan(nullptr);
    EXPECT_EQ(orphan.OpenEncoder(), sceError);
    EXPECT_EQ(Of(orphan.LastError()), Failure(kNoContext, "Cannot open encoder", "OpenEncoder", "SCardEstablishContext",
                                              "The Smart card resource manager is not running.", 0x8010001D));
    EXPECT_EQ(orphan.EncoderState(), sceClosed);
}

TEST_F(Session, DestroyingAnOpenEncoderDisconnectsAndReleases) {
    OpenWithCard();
    encoder.reset();
    EXPECT_THAT(Since(), ElementsAre(kDisconnect, kRelease));
}

// ---- OpenEncoder ----------------------------------------------------------------------

TEST_F(Session, OpenConnectsExclusivelyWithT1AndReadsTheAtrAttribute) {
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A"), kAtrAttrib));
    EXPECT_EQ(encoder->ATRString(), kMifare1KAtr);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
}

struct AtrFallbackCase {
    const char* name;
    std::uint32_t attribCode;
    const char* attribValue;
};

class AtrFallback : public Session, public ::testing::WithParamInterface<AtrFallbackCase> {};

TEST_P(AtrFallback, TheAtrComesFromStatusWhenTheAttributeIsNotOffered) {
    fake->WillGetAttrib(GetParam().attribCode, GetParam().attribValue);
    PcscStatus status;
    status.readerName = "Reader A";
    status.state = 0x34;
    status.atr = Bytes(kDesfireAtr);
    fake->WillReportStatus(0, status);

    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A"), kAtrAttrib, kStatus));
    EXPECT_EQ(encoder->ATRString(), kDesfireAtr);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
}

INSTANTIATE_TEST_SUITE_P(Drivers, AtrFallback,
                         ::testing::Values(AtrFallbackCase{"Unsupported", 0x8010001F, ""},
                                           AtrFallbackCase{"InvalidValue", 0x80100011, ""},
                                           AtrFallbackCase{"EmptyValue", 0, ""}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Session, OpenWithoutContextFailsAndTriesNothingElse) {
    fake->WillEstablishContext(0x8010001D);
    EXPECT_EQ(encoder->OpenEncoder(), sceError);
    EXPECT_EQ(Of(encoder->LastError()),
              Failure(kNoContext, "Cannot open encoder", "OpenEncoder", "SCardEstablishContext",
                      "The Smart card resource manager is not running.", 0x8010001D));
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish));
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
}

struct ConnectCase {
    const char* name;
    std::uint32_t code;
    std::uint32_t number;
    const char* text;
    sceReturnCode result;
    bool staysOpen;
};

class ConnectFailure : public Session, public ::testing::WithParamInterface<ConnectCase> {};

TEST_P(ConnectFailure, LeavesTheRecordAndTheSessionAsTheCodeDemands) {
    const ConnectCase& c = GetParam();
    fake->WillConnect(c.code);
    EXPECT_EQ(encoder->OpenEncoder(), c.result);
    EXPECT_EQ(Of(encoder->LastError()),
              Failure(c.number, c.number == kNoCard ? "No card in encoder" : "Cannot open encoder", "OpenEncoder",
                      "SCardConnect", c.text, c.code));
    EXPECT_EQ(encoder->ATRString(), "");
    if (c.staysOpen) {
        EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A")));
    } else {
        EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A"), kRelease));
        EXPECT_EQ(encoder->EncoderState(), sceClosed);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, ConnectFailure,
    ::testing::Values(
        ConnectCase{"NoSmartcard", 0x8010000C, kNoCard, "No Smart Card is currently in the device.", sceSuccess, true},
        ConnectCase{"UnknownCard", 0x8010000D, kNoCard, "The specified smart card name is not recognized.", sceSuccess,
                    true},
        ConnectCase{"UnsupportedCard", 0x8010001C, kNoCard,
                    "The smart card does not meet minimal requirements for support.", sceSuccess, true},
        ConnectCase{"RemovedCard", 0x80100069, kNoCard,
                    "The smart card has been removed, so that further communication is not possible.", sceSuccess,
                    true},
        ConnectCase{"UnknownReader", 0x80100009, kNoReader, "The specified reader name is not recognized.", sceError,
                    false},
        ConnectCase{"SharingViolation", 0x8010000B, kNoReader,
                    "The smart card cannot be accessed because of other connections outstanding.", sceError, false},
        ConnectCase{"ReaderUnavailable", 0x80100017, kNoReader,
                    "The specified reader is not currently available for use.", sceError, false},
        ConnectCase{"CodeWithoutText", 0x80100007, kNoReader, "Unexpected error 0x80100007", sceError, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Session, ReopenKeepsTheContextWhenTheReaderIsMissing) {
    fake->WillConnect(0x80100009);
    encoder->ReOpenEncoder();
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoReader, "Cannot open encoder", "OpenEncoder", "SCardConnect",
                                                "The specified reader name is not recognized.", 0x80100009));
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A")));

    // Still open: the next check connects again, on the same context.
    fake->WillConnect(0x80100009);
    EXPECT_EQ(encoder->EncoderState(), sceReady);  // only "no card" downgrades the state
    EXPECT_EQ(Of(encoder->LastError()), Cleared("EncoderState"));
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A"), ConnectTo("Reader A")));
}

TEST_F(Session, ReopenAfterTheResourceManagerWentAwayStartsAfresh) {
    fake->WillConnect(0x8010001D);
    encoder->ReOpenEncoder();
    EXPECT_EQ(Of(encoder->LastError()).number, Signed(kNoReader));
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A"), kRelease));
    EXPECT_EQ(encoder->EncoderState(), sceClosed);

    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(TrailSince(*fake, 3), ElementsAre(kEstablish, ConnectTo("Reader A"), kAtrAttrib));
}

TEST_F(Session, OpeningTwiceHandsTheFirstConnectionBack) {
    OpenWithCard();
    EXPECT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Since(), ElementsAre(kDisconnect, ConnectTo("Reader A"), kAtrAttrib));
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
}

TEST_F(Session, TheReaderNameIsPassedAsTheHostWroteIt) {
    for (const std::string& reader : {std::string(), std::string(5000, 'x'), std::string("Reader \"B\" = 01")}) {
        Encoder other(fake);
        other.Parameters("Device=" + reader);
        fake->WillConnect(0x80100009);
        const std::size_t before = fake->Calls().size();
        EXPECT_EQ(other.OpenEncoder(), sceError);
        EXPECT_THAT(TrailSince(*fake, before), ElementsAre(kEstablish, ConnectTo(reader), kRelease));
    }
}

// ---- CloseEncoder -----------------------------------------------------------------------

TEST_F(Session, ClosingTwiceSucceedsAndReleasesOnlyOnce) {
    OpenWithCard();
    EXPECT_EQ(encoder->CloseEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("CloseEncoder"));
    EXPECT_EQ(encoder->CloseEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("CloseEncoder"));
    EXPECT_THAT(Since(), ElementsAre(kDisconnect, kRelease));
    EXPECT_EQ(encoder->ATRString(), "");
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
}

TEST_F(Session, ClosingIgnoresAReaderThatRefusesToLetGo) {
    OpenWithCard();
    fake->WillDisconnect(0x80100003);
    fake->WillReleaseContext(0x80100003);
    EXPECT_EQ(encoder->CloseEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("CloseEncoder"));
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
}

// ---- EncoderState -----------------------------------------------------------------------

TEST_F(Session, StateIsOpenedOnlyForTheDefiniteNoCardAnswer) {
    fake->WillConnect(0x8010000C);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()).number, Signed(kNoCard));

    struct Row {
        std::uint32_t connect;
        sceEncoderState state;
    };
    for (const Row row : {Row{0x8010000C, sceOpened}, Row{0x80100069, sceOpened}, Row{0x80100017, sceReady},
                          Row{0x8010000B, sceReady}}) {
        fake->WillConnect(row.connect);
        EXPECT_EQ(encoder->EncoderState(), row.state) << std::hex << row.connect;
        EXPECT_EQ(Of(encoder->LastError()), Cleared("EncoderState"));
    }
}

TEST_F(Session, StateWithACardOnlyAsksForTheCardStatus) {
    OpenWithCard();
    EXPECT_EQ(encoder->EncoderState(), sceReady);
    EXPECT_THAT(Since(), ElementsAre(kStatus));
    EXPECT_EQ(Of(encoder->LastError()), Cleared("EncoderState"));
}

TEST_F(Session, StateFindsACardPutOnAnEmptyReader) {
    fake->WillConnect(0x8010000C);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    mark = fake->Calls().size();
    EXPECT_EQ(encoder->EncoderState(), sceReady);
    EXPECT_THAT(Since(), ElementsAre(ConnectTo("Reader A"), kAtrAttrib));
    EXPECT_EQ(encoder->ATRString(), kMifare1KAtr);
}

TEST_F(Session, StateNoticesARemovedCard) {
    OpenWithCard();
    fake->WillReportStatus(0x80100069);
    fake->WillConnect(0x8010000C);
    EXPECT_EQ(encoder->EncoderState(), sceOpened);
    EXPECT_THAT(Since(), ElementsAre(kStatus, kDisconnect, ConnectTo("Reader A")));
    EXPECT_EQ(encoder->ATRString(), "");
    EXPECT_EQ(Of(encoder->LastError()), Cleared("EncoderState"));
}

// ---- Card presence through ReadSerialNumber --------------------------------------------

TEST_F(Session, ASerialNumberNeedsAnOpenEncoder) {
    std::string uid = "untouched";
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kClosed, "Encoder is closed", "SelectCardInRange"));
    EXPECT_EQ(uid, "untouched");
    EXPECT_THAT(Trail(*fake), IsEmpty());
}

TEST_F(Session, TheSerialNumberIsTheWholeUidInContiguousHex) {
    OpenWithCard();
    fake->Expect("FF CA 00 00 00").Reply("04 A1 B2 C3 D4 E5 F6 90 00");
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "04A1B2C3D4E5F6");
    EXPECT_EQ(Of(encoder->LastError()), Cleared("ReadSerialNumber"));
    EXPECT_THAT(Since(), ElementsAre(kStatus, "Transmit card=0x2001 protocol=2 FF CA 00 00 00"));
}

TEST_F(Session, ASerialNumberAnnouncedInTwoFramesIsGathered) {
    OpenWithCard();
    fake->Expect("FF CA 00 00 00").Reply("04 A1 B2 C3 91 AF");
    fake->Expect("90 AF 00 00 00").Reply("D4 E5 F6 90 00");
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "04A1B2C3D4E5F6");
}

TEST_F(Session, ARefusedUidReadNamesTheOperationAndEmptiesTheSerialNumber) {
    OpenWithCard();
    fake->Expect("FF CA 00 00 00").Reply("6A 81");
    std::string uid = "stale";
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(uid, "");
    EXPECT_EQ(Of(encoder->LastError()),
              Failure(kCommandFailed, "Encoder command failed", "ReadSerialNumber", "SCardTransmit:GetUID", "6A81"));
}

TEST_F(Session, ACardRemovedDuringTheCommandIsACommandFailure) {
    OpenWithCard();
    fake->Expect("FF CA 00 00 00").Fail(0x80100069);
    std::string uid = "stale";
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(uid, "");
    EXPECT_EQ(Of(encoder->LastError()),
              Failure(kCommandFailed, "Encoder command failed", "ReadSerialNumber", "SCardTransmit:GetUID",
                      "The smart card has been removed, so that further communication is not possible."));

    // The next operation finds the card gone and says so before sending anything.
    fake->WillReportStatus(0x80100069);
    fake->WillConnect(0x8010000C);
    mark = fake->Calls().size();
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoCard, "No card in encoder", "SelectCardInRange", "SCardConnect",
                                                "No Smart Card is currently in the device.", 0x8010000C));
    EXPECT_THAT(Since(), ElementsAre(kStatus, kDisconnect, ConnectTo("Reader A")));
}

TEST_F(Session, ACardSwappedBetweenCommandsIsIdentifiedAfresh) {
    // Fragments are written as the ATR text shows bytes: blank-separated.
    registry.WriteCardTypes(
        "\"DESFire\"=\"31;3B 81 80;7\"\r\n\"Classic\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
    OpenWithCard();
    EXPECT_EQ(encoder->ATRString(), kMifare1KAtr);

    fake->WillReportStatus(0x80100069);
    fake->WillConnect(0, 0x2002);
    fake->WillGetAttrib(0, kDesfireAtr);
    fake->Expect("FF CA 00 00 00").Reply("04 01 02 03 04 05 06 90 00");
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "04010203040506");
    EXPECT_EQ(encoder->ATRString(), kDesfireAtr);
    EXPECT_EQ(encoder->SerialNumberLength(), 7);
    EXPECT_EQ(encoder->CardType(), sceDESFire);
    EXPECT_THAT(Since(),
                ElementsAre(kStatus, kDisconnect, ConnectTo("Reader A"), "GetAttrib card=0x2002 attribute=0x90303",
                            "Transmit card=0x2002 protocol=2 FF CA 00 00 00"));
}

TEST_F(Session, ALostResourceManagerDropsTheHandlesSoTheNextOpenStartsAgain) {
    OpenWithCard();
    fake->WillReportStatus(0x8010001D);
    fake->WillDisconnect(0x8010001D);
    fake->WillConnect(0x8010001D);
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoReader, "Cannot open encoder", "SelectCardInRange", "SCardConnect",
                                                "The Smart card resource manager is not running.", 0x8010001D));
    EXPECT_THAT(Since(), ElementsAre(kStatus, kDisconnect, ConnectTo("Reader A"), kRelease));
    EXPECT_EQ(encoder->EncoderState(), sceClosed);

    mark = fake->Calls().size();
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Since(), ElementsAre(kEstablish, ConnectTo("Reader A"), kAtrAttrib));
}

TEST_F(Session, AFailureFollowedByASuccessLeavesACleanRecord) {
    std::string uid;
    ASSERT_EQ(encoder->ReadSerialNumber(uid), sceError);
    ASSERT_NE(encoder->LastError().Number, 0);
    OpenWithCard();  // asserts the cleared record
    fake->Expect("FF CA 00 00 00").Reply("01 02 03 04 90 00");
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("ReadSerialNumber"));
}

// ---- Escape ----------------------------------------------------------------------------

TEST_F(Session, EscapeSendsTheCommandAsWrittenAndReturnsTheRawAnswer) {
    OpenWithCard();
    fake->Expect("FF 9B 00 00 01 AA").Reply("01 02 90 00");
    std::string answer = "stale";
    EXPECT_EQ(encoder->Escape("ff9b 00 00 01 aa", answer), sceSuccess);
    EXPECT_EQ(answer, "01029000");  // the status word is part of the raw answer
    EXPECT_EQ(Of(encoder->LastError()), Cleared("Escape"));
}

TEST_F(Session, EscapeReportsATransmissionFailureUnderItsOwnName) {
    OpenWithCard();
    fake->Expect("FF 00 00 00 00").Fail(0x80100016);
    std::string answer = "kept";
    EXPECT_EQ(encoder->Escape("FF 00 00 00 00", answer), sceError);
    EXPECT_EQ(answer, "kept");
    EXPECT_EQ(Of(encoder->LastError()), Failure(kCommandFailed, "Encoder command failed", "Escape",
                                                "SCardTransmit:Escape", "Unexpected error 0x80100016"));
}

class EscapeRefusal : public Session, public ::testing::WithParamInterface<const char*> {};

TEST_P(EscapeRefusal, ACommandThatIsNotWholeHexBytesNeverReachesTheReader) {
    OpenWithCard();
    std::string answer = "kept";
    EXPECT_EQ(encoder->Escape(GetParam(), answer), sceError);
    EXPECT_EQ(answer, "kept");
    EXPECT_EQ(Of(encoder->LastError()),
              Failure(kCommandFailed, "Encoder command failed", "Escape", "SCardTransmit:Escape",
                      "One or more of the supplied parameters could not be properly interpreted."));
    EXPECT_THAT(Since(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Texts, EscapeRefusal,
                         ::testing::Values("FF ZZ 00", "FFC", "FF-CA-00-00-00", "0xFF", "FF\tCA", "F F C", "GG",
                                           "FF CA 00 00 00\r\n"));

// ---- ReaderType ------------------------------------------------------------------------

TEST_F(Session, ReaderTypeOfAClosedEncoderIsEmpty) {
    EXPECT_EQ(encoder->ReaderType(), "");
    EXPECT_EQ(Of(encoder->LastError()), Failure(kClosed, "Encoder is closed", "ReaderType"));
    EXPECT_THAT(Trail(*fake), IsEmpty());
}

TEST_F(Session, ReaderTypeDescribesTheReaderInFiveLines) {
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
}

TEST_F(Session, ReaderTypeOfAnOpenReaderWithoutCardHasEmptyValues) {
    fake->WillConnect(0x8010000C);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(encoder->ReaderType(), "Device name: \r\nVendor name: \r\nType: \r\nVersion: \r\nSerial number: \r\n");
    EXPECT_EQ(Of(encoder->LastError()), Cleared("ReaderType"));
}

// ---- The reader answering in its own mode ---------------------------------------------

constexpr const char* kReaderModeAtr = "3B 86 81 11 FE 81 43 69 6E 64 79 30";
constexpr const char* kSetSimpleProtocol = "FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF";

struct ReconnectCase {
    const char* name;
    std::vector<std::string> listed;
    std::string chosen;
};

class ReaderMode : public Session, public ::testing::WithParamInterface<ReconnectCase> {};

TEST_P(ReaderMode, SwitchesToTheSimpleProtocolAndConnectsAgain) {
    fake->WillGetAttrib(0, kReaderModeAtr);
    fake->Expect(kSetSimpleProtocol).Reply("90 00");
    fake->WillListReaders(0, GetParam().listed);
    fake->WillConnect(0);
    fake->WillConnect(0, 0x2002);

    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A"), kAtrAttrib,
                                          std::string("Transmit card=0x2001 protocol=2 ") + kSetSimpleProtocol,
                                          kDisconnect, "ListReaders context=0x1001", ConnectTo(GetParam().chosen),
                                          "GetAttrib card=0x2002 attribute=0x90303"));
    EXPECT_EQ(encoder->ATRString(), kMifare1KAtr);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
}

INSTANTIATE_TEST_SUITE_P(Slots, ReaderMode,
                         ::testing::Values(ReconnectCase{"ConfiguredListed", {"TWN4 SAM", "Reader A"}, "Reader A"},
                                           ReconnectCase{
                                               "ConfiguredGone", {"TWN4 CCID 01", "TWN4 CCID 02"}, "TWN4 CCID 01"},
                                           ReconnectCase{"NothingListed", {}, "Reader A"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Session, AReaderThatRefusesTheSwitchIsStillReconnected) {
    fake->WillGetAttrib(0, kReaderModeAtr);
    fake->Expect(kSetSimpleProtocol).Reply("6A 81");
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
    EXPECT_EQ(Trail(*fake).size(), 8u);
}

TEST_F(Session, AFailedReconnectionClosesTheEncoder) {
    fake->WillGetAttrib(0, kReaderModeAtr);
    fake->Expect(kSetSimpleProtocol).Reply("90 00");
    fake->WillConnect(0);
    fake->WillConnect(0x8010000C);
    EXPECT_EQ(encoder->OpenEncoder(), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoReader, "Cannot open encoder", "OpenEncoder", "SCardConnect",
                                                "No Smart Card is currently in the device.", 0x8010000C));
    const auto trail = Trail(*fake);
    ASSERT_FALSE(trail.empty());
    EXPECT_EQ(trail.back(), kRelease);
    EXPECT_EQ(encoder->ATRString(), "");
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
}

TEST_F(Session, TheReaderModeAtrOnlyTriggersOnAnExactMatch) {
    // The same bytes with one more historical byte are an ordinary card.
    fake->WillGetAttrib(0, std::string(kReaderModeAtr) + " 00");
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_THAT(Trail(*fake), ElementsAre(kEstablish, ConnectTo("Reader A"), kAtrAttrib));
}

// ---- No exception crosses the public edge --------------------------------------------

class ThrowingPcsc : public ScriptedPcsc {
public:
    bool throwOnConnect = false;
    bool throwOnStatus = false;
    std::uint32_t Connect(PcscHandle context, const std::string& reader, std::uint32_t share, std::uint32_t protocols,
                          PcscHandle& card, std::uint32_t& active) override {
        if (throwOnConnect) throw std::runtime_error("driver exploded");
        return ScriptedPcsc::Connect(context, reader, share, protocols, card, active);
    }
    std::uint32_t Status(PcscHandle card, PcscStatus& status) override {
        if (throwOnStatus) throw std::bad_alloc();
        return ScriptedPcsc::Status(card, status);
    }
};

TEST(EncoderEdge, AnExceptionFromBelowBecomesTheRecord) {
    RegistryDir registry;
    auto pcsc = std::make_shared<ThrowingPcsc>();
    Encoder encoder(pcsc);
    pcsc->throwOnConnect = true;
    EXPECT_EQ(encoder.OpenEncoder(), sceError);
    EXPECT_EQ(encoder.LastError().ComFunction, "OpenEncoder");
    EXPECT_NE(encoder.LastError().Number, 0);
    EXPECT_NE(encoder.LastError().Description.find("driver exploded"), std::string::npos);

    pcsc->throwOnConnect = false;
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    pcsc->throwOnStatus = true;
    std::string uid = "kept";
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder.LastError().ComFunction, "ReadSerialNumber");
    EXPECT_EQ(uid, "kept");
    EXPECT_EQ(encoder.EncoderState(), sceReady);
    EXPECT_EQ(encoder.LastError().Number, 0);
}

// ---- GetResponseText ------------------------------------------------------------------

TEST_F(Session, ResponseTextsAreForwardedWithTheCommandNameAndLeaveTheRecord) {
    std::string uid;
    ASSERT_EQ(encoder->ReadSerialNumber(uid), sceError);
    const Record failure = Of(encoder->LastError());

    EXPECT_EQ(encoder->GetResponseText("9000", ""), "[OK]  Successful operation");
    EXPECT_EQ(encoder->GetResponseText("6982", "SCardTransmit:ReadBinary"),
              "[Checking error]  Command not allowed, security status not satisfied");
    EXPECT_EQ(encoder->GetResponseText("6982", "MifareAuthenticate:LoadKey"), "[Error]  Card key not supported");
    EXPECT_EQ(encoder->GetResponseText("AE", ""),
              "[Error]  Current authentication status doesn't allow the requested command. Authenticate first.");
    EXPECT_EQ(Of(encoder->LastError()), failure);
}

}  // namespace
}  // namespace elatectwn4::test
