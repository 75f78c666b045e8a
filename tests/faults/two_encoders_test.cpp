// Two encoders on the two simulated readers of one PC/SC boundary, used from
// two threads at once, never see each other's card or error record.
#include <gtest/gtest.h>

#include "elatectwn4/encoder.h"
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

}  // namespace
}  // namespace elatectwn4
