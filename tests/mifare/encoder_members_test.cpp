// The MIFARE members as a host calls them: through an Encoder opened on the
// simulated reader.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "elatectwn4/encoder.h"
#include "record_matchers.h"
#include "sim/mifare_classic.h"
#include "sim/simulated_pcsc.h"
#include "support/registry_dir.h"

namespace elatectwn4 {
namespace {

using mifare_test::Cleared;
using mifare_test::Refusal;

const std::string kTransportKey = "FFFFFFFFFFFF";
const std::string kKeyA = "A0A1A2A3A4A5";
const std::string kKeyB = "B0B1B2B3B4B5";

// Opening an encoder looks the card up in the card-type registry; keep that
// in a directory of the test's own.
using PrivateRegistry = test::RegistryDir;

class MifareThroughEncoder : public ::testing::Test {
protected:
    void SetUp() override {
        for (std::size_t i = 0; i < 2; ++i) {
            cards[i] = std::dynamic_pointer_cast<sim::MifareClassicCard>(sim::MakeCard("mifare1k"));
            pcsc->Readers()[i]->Insert(cards[i]);
            encoders[i]->Parameters("Device=" + std::string(sim::kDefaultReaderNames[i]));
            ASSERT_EQ(encoders[i]->OpenEncoder(), sceSuccess) << testing::PrintToString(encoders[i]->LastError());
        }
    }

    PrivateRegistry registry;
    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    std::array<std::shared_ptr<sim::MifareClassicCard>, 2> cards;
    std::array<std::unique_ptr<Encoder>, 2> encoders{std::make_unique<Encoder>(pcsc), std::make_unique<Encoder>(pcsc)};
    Encoder& encoder = *encoders[0];
};

TEST_F(MifareThroughEncoder, ForwardersDoWhatTheirMifareTwinsDoAndLeaveTheTwinsName) {
    std::string data = "0123456789abcdef0123456789ABCDEF";
    ASSERT_EQ(encoder.WriteDataBloc(4, kTransportKey, 0, data), sceSuccess);
    EXPECT_EQ(data, "0123456789ABCDEF0123456789ABCDEF");
    EXPECT_EQ(encoder.LastError(), Cleared("MifareWriteDataBloc"));

    std::string viaForwarder, viaWorker;
    ASSERT_EQ(encoder.ReadDataBloc(4, kTransportKey, 0, viaForwarder), sceSuccess);
    EXPECT_EQ(encoder.LastError(), Cleared("MifareReadDataBloc"));
    ASSERT_EQ(encoder.MifareReadDataBloc(4, kTransportKey, 0, viaWorker), sceSuccess);
    EXPECT_EQ(viaForwarder, data);
    EXPECT_EQ(viaWorker, data);

    ASSERT_EQ(encoder.WriteValueBloc(5, kTransportKey, 0, 1), sceSuccess);
    EXPECT_EQ(sim::DecodeValueBlock(cards[0]->RawBlock(5))->value, 1);
    EXPECT_EQ(encoder.WriteValueBloc(5, kTransportKey, 0, -1), sceError);
    EXPECT_EQ(encoder.LastError().Description, "Overflow");
    std::string bytes = "EE";
    ASSERT_EQ(encoder.WriteBytesInBloc(4, kTransportKey, 0, 1, 1, bytes), sceSuccess);
    EXPECT_EQ(cards[0]->RawBlock(4)[1], 0xEE);

    std::int32_t serial = 0;
    std::uint8_t check = 0;
    std::string info;
    ASSERT_EQ(encoder.ReadManufacturerCode(kTransportKey, 0, serial, check, info), sceSuccess);
    EXPECT_EQ(static_cast<std::uint32_t>(serial), 0xCF1E2D3Cu) << "the simulator's default UID";
    EXPECT_EQ(encoder.LastError(), Cleared("MifareReadManufacturerCode"));
}

TEST_F(MifareThroughEncoder, WriteSectorTrailerKeepsTheCardsBXUnlessOneIsGiven) {
    ASSERT_EQ(encoder.WriteSectorTrailer(1, kTransportKey, 0, kKeyA, kKeyB, 0, -1, -1, -1, -1), sceSuccess)
        << testing::PrintToString(encoder.LastError());
    EXPECT_EQ(cards[0]->RawBlock(7)[9], 0x69);
    ASSERT_EQ(encoder.WriteSectorTrailer(1, kKeyA, 0, kKeyA, kKeyB, 0, -1, -1, -1, -1, std::string("&H2A")), sceSuccess)
        << testing::PrintToString(encoder.LastError());
    EXPECT_EQ(cards[0]->RawBlock(7)[9], 0x2A);

    std::uint8_t keysUsed = 0, bx = 0;
    std::int32_t s0, s1, s2, conditions;
    ASSERT_EQ(encoder.ReadSectorTrailer(1, kKeyA, 0, keysUsed, s0, s1, s2, conditions, bx), sceSuccess);
    EXPECT_EQ(bx, 0x2A);
    EXPECT_EQ(keysUsed, 1);
    EXPECT_EQ(conditions, scss_A_WriteKeysConditions);
    EXPECT_EQ(encoder.LastError(), Cleared("MifareReadSectorTrailer"));
}

TEST_F(MifareThroughEncoder, AccessConditionOverridesBelongToOneEncoder) {
    encoders[0]->MifareSetAccessCondition(5, "100");
    for (std::size_t i = 0; i < 2; ++i) {
        ASSERT_EQ(encoders[i]->WriteSectorTrailer(1, kTransportKey, 0, kKeyA, kKeyB, 2, scbs_B_Read, -1, -1, -1),
                  sceSuccess);
        const sim::Block& trailer = cards[i]->RawBlock(7);
        const auto conditions = sim::DecodeAccessBytes(std::span<const std::uint8_t, 3>(trailer.data() + 6, 3));
        ASSERT_TRUE(conditions);
        EXPECT_EQ((*conditions)[0], i == 0 ? 0b100 : 0b101) << "encoder " << i;
    }
}

TEST_F(MifareThroughEncoder, AClosedEncoderIsReportedUnderTheStepThatFoundIt) {
    ASSERT_EQ(encoder.CloseEncoder(), sceSuccess);
    std::string contents = "x";
    EXPECT_EQ(encoder.ReadDataBloc(4, kTransportKey, 0, contents), sceError);
    EXPECT_EQ(encoder.LastError(), Refusal(ErrorNumber::EncoderClosed, "MifareAuthenticate:LoadKey"));
    EXPECT_EQ(contents, "");

    std::uint8_t keysUsed = 0, bx = 0;
    std::int32_t s0 = 1, s1 = 1, s2 = 1, conditions = 1;
    EXPECT_EQ(encoder.ReadSectorTrailer(1, kTransportKey, 0, keysUsed, s0, s1, s2, conditions, bx), sceError);
    EXPECT_EQ(encoder.LastError().Number, ErrorValue(ErrorNumber::EncoderClosed));
    EXPECT_EQ(encoder.LastError().ComFunction, "MifareReadSectorTrailer");
    EXPECT_EQ(s0, 0);
}

}  // namespace
}  // namespace elatectwn4
