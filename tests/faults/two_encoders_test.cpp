// Two encoders on the two simulated readers of one PC/SC boundary keep their
// own card, error record, access-condition overrides and card layout, even
// used from two threads at once.
#include <gtest/gtest.h>

#include <span>

#include "cipher/bytes.h"
#include "elatectwn4/encoder.h"
#include "sim/mifare_classic.h"
#include "sim/simulated_pcsc.h"
#include "support/registry_dir.h"
#include "support/two_sessions.h"

namespace elatectwn4 {
namespace {

TEST(TwoEncoders, FromTwoThreadsEachKeepsItsOwnCardAndRecord) {
    test::RegistryDir registry;
    auto pcsc = std::make_shared<sim::SimulatedPcsc>();
    pcsc->Readers()[0]->Insert(sim::MakeCard("mifare1k", {0x5A, 0x6B, 0x7C, 0x8D}));
    pcsc->Readers()[1]->Insert(sim::MakeCard("desfire", {0x04, 0xE1, 0xD2, 0xC3, 0xB4, 0xA5, 0x80}));
    Encoder mifare(pcsc), desfire(pcsc);
    mifare.Parameters(std::string("Device=") + std::string(sim::kDefaultReaderNames[0]));
    desfire.Parameters(std::string("Device=") + std::string(sim::kDefaultReaderNames[1]));
    ASSERT_EQ(mifare.OpenEncoder(), sceSuccess);
    ASSERT_EQ(desfire.OpenEncoder(), sceSuccess);

    const std::array<test::SessionPlan, 2> plans{{
        {&mifare, "5A6B7C8D",
         [](Encoder& e) {
             std::string block;
             return e.ReadDataBloc(4, "A0A1A2A3A4A5", 0, block);
         },
         test::SessionRecord(ErrorNumber::CommandFailed, "MifareAuthenticate", "SCardTransmit:GeneralAuthenticate",
                             "6300")},
        {&desfire, "04E1D2C3B4A580",
         [](Encoder& e) { return e.DESFireSelectApplication("0A0B0C", 0, "00112233445566778899AABBCCDDEEFF"); },
         test::SessionRecord(ErrorNumber::CannotConnectToApplication, "DESFireSelectApplication",
                             "DesfireAuthenticate2", "A0")},
    }};
    EXPECT_EQ(test::InterleaveSessions(plans, 300), "");
}

// Only the first encoder has an override and Conformance=card; each writes
// the trailers of sectors 1 and 32 of its 4K card.
TEST(TwoEncoders, OverridesAndTheCardsLayoutBelongToOneEncoder) {
    const std::string transport = "FFFFFFFFFFFF", keyA = "A0A1A2A3A4A5";
    test::RegistryDir registry;
    auto pcsc = std::make_shared<sim::SimulatedPcsc>();
    std::array<std::shared_ptr<sim::MifareClassicCard>, 2> cards;
    std::array<std::unique_ptr<Encoder>, 2> encoders{std::make_unique<Encoder>(pcsc), std::make_unique<Encoder>(pcsc)};
    for (std::size_t i = 0; i < 2; ++i) {
        cards[i] = std::dynamic_pointer_cast<sim::MifareClassicCard>(sim::MakeCard("mifare4k"));
        pcsc->Readers()[i]->Insert(cards[i]);
        encoders[i]->Parameters("Device=" + std::string(sim::kDefaultReaderNames[i]));
        ASSERT_EQ(encoders[i]->OpenEncoder(), sceSuccess);
    }
    encoders[0]->MifareSetAccessCondition(5, "100");
    encoders[0]->Parameters("Conformance=card");
    for (std::size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        Encoder& e = *encoders[i];
        ASSERT_EQ(e.WriteSectorTrailer(1, transport, 0, keyA, keyA, 2, scbs_B_Read, -1, -1, -1), sceSuccess);
        // Block 0 "100" by the override, "101" without it.
        EXPECT_EQ(cipher::ToHex(std::span(cards[i]->RawBlock(7)).subspan(6, 3)), i == 0 ? "FE1780" : "FE1690");
        // Block 131 is a data block of sector 32, no trailer: refused by default.
        EXPECT_EQ(e.WriteSectorTrailer(32, transport, 0, keyA, keyA, 0, -1, -1, -1, -1),
                  i == 0 ? sceSuccess : sceError);
        EXPECT_EQ(cipher::ToHex(std::span(cards[i]->RawBlock(143)).first(6)), i == 0 ? keyA : transport);
    }
}

}  // namespace
}  // namespace elatectwn4
