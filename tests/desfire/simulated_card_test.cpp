// What the Encoder adds to the members, against the simulated reader holding
// a simulated EV1 card: its conformance reaches them and closing ends the session.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "apdu_fixture.h"
#include "elatectwn4/encoder.h"
#include "sim/desfire/desfire_sim.h"
#include "sim/simulated_pcsc.h"
#include "support/registry_dir.h"

namespace elatectwn4 {
namespace {

TEST(DesfireThroughEncoder, TheCardsConformanceReachesTheMembersAndClosingEndsTheSession) {
    const std::string factoryKey = "0000000000000000", readKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
    test::RegistryDir registry;
    auto pcsc = std::make_shared<sim::SimulatedPcsc>();
    pcsc->Readers()[0]->Insert(std::make_shared<sim::desfire::DesfireCard>(std::vector<std::uint8_t>{}));
    Encoder encoder{pcsc};
    const auto record = [&encoder] { return test::RecordText(encoder.LastError()); };
    encoder.Parameters("Device=" + std::string(sim::kDefaultReaderNames[0]));
    encoder.Parameters("Conformance=card");
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << record();
    ASSERT_EQ(encoder.DESFireSelectRoot(factoryKey), sceSuccess) << record();
    ASSERT_EQ(encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 3), sceSuccess) << record();
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, factoryKey), sceSuccess) << record();
    // Another key than the session's: the card takes only the 24-byte form.
    ASSERT_EQ(encoder.DESFireChangeKey(1, factoryKey, readKey), sceSuccess) << record();
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 1, readKey), sceSuccess) << record();

    ASSERT_EQ(encoder.CloseEncoder(), sceSuccess);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    std::int32_t version = -1;
    EXPECT_EQ(encoder.DESFireGetKeyVersion(2, version), sceError);
    EXPECT_EQ(record(), desfire::Line(ErrorNumber::NotAuthenticated, "DESFireGetKeyVersion"));
}

}  // namespace
}  // namespace elatectwn4
