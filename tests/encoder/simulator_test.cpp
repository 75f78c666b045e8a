// The Encoder against the in-process simulated readers and cards: real
// resource-manager semantics (sharing, removal, unknown readers) and the
// card-type table read from a registry store written by the test.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "elatectwn4/encoder.h"
#include "encoder_test_util.h"
#include "support/registry_dir.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::test {
namespace {

constexpr std::uint32_t kNoCard = 0x90010F06;
constexpr std::uint32_t kNoReader = 0x90010F03;
constexpr std::uint32_t kCommandFailed = 0x90010F04;

const std::string kReader0 = "Virtual PCD 00 00";
const std::string kReader1 = "Virtual PCD 00 01";

// Card types as an administrator would register them: fragments of the ATR
// text, bytes separated by blanks as ATRString shows them.
const std::string kDesfireType = "\"DESFire\"=\"31;3B 81 80;7\"\r\n";
const std::string kCardTypes = kDesfireType +
                               "\"Mifare 1K\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n"
                               "\"Mifare 4K\"=\"12;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 02;4\"\r\n";

std::string AtrText(const sim::Card& card) {
    return Hex(card.Atr());
}
std::string UidText(const sim::Card& card) {
    std::string text = Hex(card.Uid());
    std::erase(text, ' ');
    return text;
}

class Simulated : public ::testing::Test {
protected:
    void SetUp() override {
        registry.WriteCardTypes(kCardTypes + "\"Add new cards\"=dword:00000001\r\n");
        pcsc = std::make_shared<sim::SimulatedPcsc>();
        reader0 = pcsc->FindReader(kReader0);
        reader1 = pcsc->FindReader(kReader1);
        ASSERT_TRUE(reader0 && reader1);
    }

    std::unique_ptr<Encoder> EncoderOn(const std::string& reader) {
        auto encoder = std::make_unique<Encoder>(pcsc);
        encoder->Parameters("Device=" + reader);
        return encoder;
    }

    RegistryDir registry;
    std::shared_ptr<sim::SimulatedPcsc> pcsc;
    std::shared_ptr<sim::Reader> reader0;
    std::shared_ptr<sim::Reader> reader1;
};

TEST_F(Simulated, AnEmptyReaderOpensWithoutCardAndFindsACardPutOnIt) {
    auto encoder = EncoderOn(kReader0);
    EXPECT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoCard, "No card in encoder", "OpenEncoder", "SCardConnect",
                                                "No Smart Card is currently in the device.", 0x8010000C));
    EXPECT_EQ(encoder->EncoderState(), sceOpened);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("EncoderState"));
    EXPECT_EQ(encoder->ATRString(), "");

    auto card = sim::MakeCard("mifare1k", {0xDE, 0xAD, 0xBE, 0xEF});
    reader0->Insert(card);
    EXPECT_EQ(encoder->EncoderState(), sceReady);
    EXPECT_EQ(encoder->ATRString(), AtrText(*card));
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "DEADBEEF");
}

struct KindCase {
    const char* kind;
    sceCardTypes type;
    std::int32_t serialLength;
};

class CardKinds : public Simulated, public ::testing::WithParamInterface<KindCase> {};

TEST_P(CardKinds, UidAtrAndTypeComeFromTheCardAndTheRegistry) {
    auto card = sim::MakeCard(GetParam().kind);
    reader0->Insert(card);
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
    EXPECT_EQ(encoder->ATRString(), AtrText(*card));
    EXPECT_EQ(encoder->CardType(), GetParam().type);
    EXPECT_EQ(encoder->SerialNumberLength(), GetParam().serialLength);
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, UidText(*card));
    // A known card is never recorded as unknown.
    EXPECT_EQ(Occurrences(registry.MachineStore(), "\"Unknown ("), 0u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, CardKinds,
                         ::testing::Values(KindCase{"mifare1k", sceMifare1K, 4}, KindCase{"mifare4k", sceMifare4K, 4},
                                           KindCase{"desfire", sceDESFire, 7}),
                         [](const auto& info) { return std::string(info.param.kind); });

TEST_F(Simulated, AnUnknownAtrIsRecordedExactlyOnce) {
    registry.WriteCardTypes(kDesfireType + "\"Add new cards\"=dword:00000001\r\n");
    auto card = sim::MakeCard("mifare1k");
    reader0->Insert(card);
    for (int round = 0; round < 3; ++round) {
        auto encoder = EncoderOn(kReader0);
        ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
        EXPECT_EQ(encoder->CardType(), sceUnknownType);
        ASSERT_EQ(encoder->CloseEncoder(), sceSuccess);
        ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    }
    const std::string store = registry.MachineStore();
    EXPECT_EQ(Occurrences(store, "\"Unknown ("), 1u) << store;
    EXPECT_EQ(Occurrences(store, "=\"" + AtrText(*card) + "\""), 1u) << store;
}

TEST_F(Simulated, UnknownAtrsAreNotRecordedUnlessAsked) {
    registry.WriteCardTypes(kDesfireType + "\"Add new cards\"=dword:00000000\r\n");
    reader0->Insert(sim::MakeCard("mifare1k"));
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(encoder->CardType(), sceUnknownType);
    EXPECT_EQ(Occurrences(registry.MachineStore(), "Unknown ("), 0u);
}

TEST_F(Simulated, AnAtrTheReaderDoesNotOfferIsTakenFromTheCardStatus) {
    pcsc->SetAtrAttributeSupported(false);
    auto card = sim::MakeCard("mifare4k");
    reader0->Insert(card);
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(encoder->ATRString(), AtrText(*card));
    EXPECT_EQ(encoder->CardType(), sceMifare4K);
}

TEST_F(Simulated, AReaderInItsOwnModeIsSwitchedAndShowsTheCard) {
    auto card = sim::MakeCard("mifare1k", {0x01, 0x02, 0x03, 0x04});
    reader0->Insert(card);
    reader0->SetReaderModeAtr(true);
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(Of(encoder->LastError()), Cleared("OpenEncoder"));
    EXPECT_EQ(encoder->ATRString(), AtrText(*card));
    EXPECT_EQ(encoder->CardType(), sceMifare1K);
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "01020304");
}

TEST_F(Simulated, ACardRemovedBetweenCommandsIsReportedAndAnotherOneIsFound) {
    reader0->Insert(sim::MakeCard("mifare1k", {0x11, 0x22, 0x33, 0x44}));
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);

    reader0->Remove();
    std::string uid = "kept";
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoCard, "No card in encoder", "SelectCardInRange", "SCardConnect",
                                                "No Smart Card is currently in the device.", 0x8010000C));
    EXPECT_EQ(encoder->ATRString(), "");
    EXPECT_EQ(encoder->EncoderState(), sceOpened);

    auto second = sim::MakeCard("mifare4k", {0x99, 0x88, 0x77, 0x66});
    reader0->Insert(second);
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "99887766");
    EXPECT_EQ(encoder->ATRString(), AtrText(*second));
    EXPECT_EQ(encoder->CardType(), sceMifare4K);
}

TEST_F(Simulated, ACardLeavingDuringACommandFailsThatCommandOnly) {
    reader0->Insert(sim::MakeCard("mifare1k"));
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);

    sim::Faults faults;
    faults.dropConnection = true;
    reader0->SetFaults(faults);
    std::string uid = "stale";
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(uid, "");
    EXPECT_EQ(Of(encoder->LastError()),
              Failure(kCommandFailed, "Encoder command failed", "ReadSerialNumber", "SCardTransmit:GetUID",
                      "The smart card has been removed, so that further communication is not possible."));

    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder->LastError().Number, Signed(kNoCard));

    auto back = sim::MakeCard("mifare1k", {0x0A, 0x0B, 0x0C, 0x0D});
    reader0->Insert(back);
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "0A0B0C0D");
}

TEST_F(Simulated, ACardResetBehindTheSessionIsReconnected) {
    reader0->Insert(sim::MakeCard("mifare1k", {0x55, 0x66, 0x77, 0x88}));
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    reader0->ResetCard();
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess);
    EXPECT_EQ(uid, "55667788");
}

struct ReaderNameCase {
    const char* name;
    std::string device;
};

class ReaderNames : public Simulated, public ::testing::WithParamInterface<ReaderNameCase> {};

TEST_P(ReaderNames, AReaderThatDoesNotExistLeavesAClosedEncoderAndARecord) {
    reader0->Insert(sim::MakeCard("mifare1k"));
    auto encoder = EncoderOn(GetParam().device);
    EXPECT_EQ(encoder->OpenEncoder(), sceError);
    EXPECT_EQ(Of(encoder->LastError()), Failure(kNoReader, "Cannot open encoder", "OpenEncoder", "SCardConnect",
                                                "The specified reader name is not recognized.", 0x80100009));
    EXPECT_EQ(encoder->EncoderState(), sceClosed);
    std::string uid;
    EXPECT_EQ(encoder->ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder->LastError().Number, Signed(0x90010F01));
}

INSTANTIATE_TEST_SUITE_P(Names, ReaderNames,
                         ::testing::Values(ReaderNameCase{"Unknown", "No such reader"}, ReaderNameCase{"Empty", ""},
                                           ReaderNameCase{"Huge", std::string(100000, 'R')},
                                           ReaderNameCase{"Prefix", "Virtual PCD 00"},
                                           ReaderNameCase{"EmbeddedNul", std::string("Virtual PCD 00 00\0x", 19)},
                                           ReaderNameCase{"Binary", std::string("\xFF\xFE\x01\x7F", 4)}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Simulated, ASecondEncoderCannotTakeAReaderHeldExclusively) {
    reader0->Insert(sim::MakeCard("mifare1k"));
    auto first = EncoderOn(kReader0);
    ASSERT_EQ(first->OpenEncoder(), sceSuccess);

    auto second = EncoderOn(kReader0);
    EXPECT_EQ(second->OpenEncoder(), sceError);
    EXPECT_EQ(Of(second->LastError()),
              Failure(kNoReader, "Cannot open encoder", "OpenEncoder", "SCardConnect",
                      "The smart card cannot be accessed because of other connections outstanding.", 0x8010000B));

    ASSERT_EQ(first->CloseEncoder(), sceSuccess);
    EXPECT_EQ(second->OpenEncoder(), sceSuccess);
    EXPECT_EQ(Of(second->LastError()), Cleared("OpenEncoder"));
}

TEST_F(Simulated, TwoEncodersOnTwoReadersWorkInTwoThreads) {
    auto card0 = sim::MakeCard("mifare1k", {0x10, 0x20, 0x30, 0x40});
    auto card1 = sim::MakeCard("mifare4k", {0x50, 0x60, 0x70, 0x80});
    reader0->Insert(card0);
    reader1->Insert(card1);

    struct Outcome {
        int good = 0;
        std::string firstBad;
    };
    auto run = [&](const std::string& reader, const std::string& expectedUid, sceCardTypes type, Outcome& out) {
        auto encoder = EncoderOn(reader);
        if (encoder->OpenEncoder() != sceSuccess) {
            out.firstBad = "open: " + encoder->LastError().Description;
            return;
        }
        for (int i = 0; i < 200; ++i) {
            std::string uid;
            const bool ok = encoder->ReadSerialNumber(uid) == sceSuccess && uid == expectedUid &&
                            encoder->EncoderState() == sceReady && encoder->CardType() == type;
            if (ok) {
                ++out.good;
            } else if (out.firstBad.empty()) {
                out.firstBad = "round " + std::to_string(i) + ": uid " + uid + ", " + encoder->LastError().ComFunction;
            }
        }
        encoder->CloseEncoder();
    };
    Outcome a, b;
    std::thread t0(run, kReader0, "10203040", sceMifare1K, std::ref(a));
    std::thread t1(run, kReader1, "50607080", sceMifare4K, std::ref(b));
    t0.join();
    t1.join();
    EXPECT_EQ(a.good, 200) << a.firstBad;
    EXPECT_EQ(b.good, 200) << b.firstBad;
}

TEST_F(Simulated, ReaderTypeDescribesTheSimulatedReader) {
    reader1->Insert(sim::MakeCard("mifare1k"));
    auto encoder = EncoderOn(kReader1);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    EXPECT_EQ(encoder->ReaderType(),
              "Device name: " + kReader1 + "\r\nVendor name: " + std::string(sim::kSimVendorName) + "\r\nType: " +
                  std::string(sim::kSimReaderType) + "\r\nVersion: 1.0.0.0\r\nSerial number: SIM00001\r\n");
    EXPECT_EQ(Of(encoder->LastError()), Cleared("ReaderType"));
}

TEST_F(Simulated, EscapePassesARawCommandToTheReader) {
    auto card = sim::MakeCard("mifare1k", {0xCA, 0xFE, 0xBA, 0xBE});
    reader0->Insert(card);
    auto encoder = EncoderOn(kReader0);
    ASSERT_EQ(encoder->OpenEncoder(), sceSuccess);
    std::string answer;
    EXPECT_EQ(encoder->Escape("FF CA 00 00 00", answer), sceSuccess);
    EXPECT_EQ(answer, "CAFEBABE9000");
    // A short Le: the reader tells the right one in its status word, and
    // Escape passes that on untouched.
    EXPECT_EQ(encoder->Escape("FFCA000002", answer), sceSuccess);
    EXPECT_EQ(answer, "6C04");
    EXPECT_EQ(Of(encoder->LastError()), Cleared("Escape"));
}

}  // namespace
}  // namespace elatectwn4::test
