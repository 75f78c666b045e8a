// The MIFARE members as a host calls them, through an Encoder opened on the
// simulated reader: the state each encoder keeps for its members.
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <span>
#include <string>

#include "cipher/bytes.h"
#include "elatectwn4/encoder.h"
#include "sim/mifare_classic.h"
#include "sim/simulated_pcsc.h"
#include "support/registry_dir.h"

namespace elatectwn4 {
namespace {

const std::string kTransportKey = "FFFFFFFFFFFF";
const std::string kKeyA = "A0A1A2A3A4A5";
const std::string kKeyB = "B0B1B2B3B4B5";

// Two encoders on two 4K cards; only the first has an override and
// Conformance=card, and each writes the trailers of sectors 1 and 32.
TEST(MifareThroughEncoder, OverridesAndTheCardsLayoutBelongToOneEncoder) {
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
        ASSERT_EQ(
            e.WriteSectorTrailer(1, kTransportKey, 0, kKeyA, kKeyB, 2, scbs_B_Read, -1, -1, scss_B_WriteKeysConditions),
            sceSuccess);
        const auto conditions =
            sim::DecodeAccessBytes(std::span<const std::uint8_t, 3>(cards[i]->RawBlock(7).data() + 6, 3));
        ASSERT_TRUE(conditions);
        EXPECT_EQ((*conditions)[0], i == 0 ? 0b100 : 0b101);
        EXPECT_EQ(cards[i]->RawBlock(7)[9], 0x69) << "the card's BX stays when none is given";
        std::string contents;
        EXPECT_EQ(e.ReadDataBloc(4, kKeyA, 0, contents), i == 0 ? sceSuccess : sceError) << "\"101\": key B reads";
        EXPECT_EQ(e.ReadDataBloc(4, kKeyB, 2, contents), sceSuccess);
        // Block 131 is a data block of sector 32, no trailer: refused by default.
        EXPECT_EQ(e.WriteSectorTrailer(32, kTransportKey, 0, kKeyA, kKeyB, 0, -1, -1, -1, -1),
                  i == 0 ? sceSuccess : sceError);
        EXPECT_EQ(cipher::ToHex(std::span(cards[i]->RawBlock(143)).first(6)), i == 0 ? kKeyA : kTransportKey);
    }
}

}  // namespace
}  // namespace elatectwn4
