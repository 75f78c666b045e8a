// The MIFARE members as a host calls them, through an Encoder opened on the
// simulated reader: forwarders, per-encoder state, and the card enforcing
// the access conditions the component wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cipher/bytes.h"
#include "elatectwn4/encoder.h"
#include "mifare/access_bits.h"
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

TEST_F(MifareThroughEncoder, ATrailerWrittenIsWhatTheCardDecodesAndReadsBack) {
    // Block 4: A read, B read/write ("110"); block 5: B read ("101"); block 6:
    // everything ("000"); trailer: key B writes keys and conditions ("011").
    ASSERT_EQ(encoder.WriteSectorTrailer(1, kTransportKey, 0, kKeyA, kKeyB, 2, scbs_A_Read | scbs_B_ReadWrite,
                                         scbs_B_Read, 15, scss_B_WriteKeysConditions, std::int32_t{0x5A}),
              sceSuccess);
    const sim::Block& trailer = cards[0]->RawBlock(7);
    EXPECT_EQ(std::vector<std::uint8_t>(trailer.begin(), trailer.end()),
              (std::vector<std::uint8_t>{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, trailer[6], trailer[7], trailer[8], 0x5A,
                                         0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5}));
    const auto conditions = sim::DecodeAccessBytes(std::span<const std::uint8_t, 3>(trailer.data() + 6, 3));
    ASSERT_TRUE(conditions) << "the inverted copies must agree";
    EXPECT_EQ(*conditions, (sim::SectorConditions{0b110, 0b101, 0b000, 0b011}));

    std::uint8_t keysUsed = 0, bx = 0;
    std::int32_t s0 = -9, s1 = -9, s2 = -9, cond = -9;
    ASSERT_EQ(encoder.ReadSectorTrailer(1, kKeyB, 2, keysUsed, s0, s1, s2, cond, bx), sceSuccess);
    EXPECT_EQ((std::vector<std::int32_t>{keysUsed, s0, s1, s2, cond, bx}),
              (std::vector<std::int32_t>{2, scbs_A_Read | scbs_B_ReadWrite, scbs_B_ReadWrite,
                                         scbs_A_ReadWrite | scbs_B_ReadWrite, scss_B_WriteKeysConditions, 0x5A}));

    // Key A may no longer write the trailer; key B may, keeping the key-B
    // scheme and every bit with KeysToUse 0 and all -1.
    const sim::Block before = trailer;
    EXPECT_EQ(encoder.WriteSectorTrailer(1, kKeyA, 0, kTransportKey, kTransportKey, 0, -1, -1, -1, -1), sceError);
    EXPECT_EQ(encoder.LastError(), mifare_test::CardRefusal("MifareWriteSectorTrailer", "WriteBinary", "6982"));
    EXPECT_EQ(trailer, before);
    ASSERT_EQ(encoder.WriteSectorTrailer(1, kKeyB, 2, kKeyA, kKeyB, 0, -1, -1, -1, -1, std::string("17")), sceSuccess);
    EXPECT_EQ(trailer[9], 17);
    EXPECT_TRUE(std::equal(trailer.begin() + 6, trailer.begin() + 9, before.begin() + 6));
}

TEST_F(MifareThroughEncoder, A4KSectorOf16BlocksHasItsTrailerWhereTheCardKeepsItUnderConformanceCard) {
    auto card = std::dynamic_pointer_cast<sim::MifareClassicCard>(sim::MakeCard("mifare4k"));
    pcsc->Readers()[0]->Insert(card);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    const sim::Block fresh131 = card->RawBlock(131);

    // By default the trailer of sector 32 is block 4 * 32 + 3 = 131, a data
    // block whose bytes are no trailer: refused, nothing written.
    EXPECT_EQ(encoder.WriteSectorTrailer(32, kTransportKey, 0, kKeyA, kKeyB, 2, -1, -1, -1, -1), sceError);
    EXPECT_EQ(encoder.LastError(), mifare_test::CardRefusal("MifareWriteSectorTrailer", "ReadBinary",
                                                            "Access bits differ from their inverted copy"));
    EXPECT_EQ(card->RawBlock(131), fresh131);

    // The card's own layout: block 143, and Security0 governs blocks 128..132.
    encoder.Parameters("Conformance=card");
    ASSERT_EQ(encoder.WriteSectorTrailer(32, kTransportKey, 0, kKeyA, kKeyB, 2, scbs_B_ReadWrite, -1, -1,
                                         scss_B_WriteKeysConditions),
              sceSuccess)
        << testing::PrintToString(encoder.LastError());
    EXPECT_EQ(card->RawBlock(131), fresh131);
    EXPECT_EQ(cipher::ToHex(std::span(card->RawBlock(143)).first(6)), kKeyA);
    std::string contents;
    EXPECT_EQ(encoder.ReadDataBloc(132, kKeyA, 0, contents), sceError) << "block 132 is key B's alone now";
    EXPECT_EQ(encoder.ReadDataBloc(132, kKeyB, 2, contents), sceSuccess);

    std::uint8_t keysUsed = 0, bx = 0;
    std::int32_t s0 = -9, s1 = -9, s2 = -9, cond = -9;
    ASSERT_EQ(encoder.ReadSectorTrailer(32, kKeyB, 2, keysUsed, s0, s1, s2, cond, bx), sceSuccess);
    EXPECT_EQ((std::vector<std::int32_t>{keysUsed, s0, s1, s2, cond, bx}),
              (std::vector<std::int32_t>{2, scbs_B_ReadWrite, 15, 15, scss_B_WriteKeysConditions, 0x69}));
}

// Every data-block security value under both schemes, written to a fresh
// card, then every requested right tried on the card itself.
TEST_F(MifareThroughEncoder, EveryEncodableSecurityGrantsOnTheCardWhatWasRequested) {
    for (const std::uint8_t scheme : {1, 2}) {
        for (std::int32_t security = 0; security <= 15; ++security) {
            if (!mifare::DataBlockConditionText(mifare::AccessConditionTable{}, security, scheme)) continue;
            SCOPED_TRACE("scheme " + std::to_string(scheme) + " security " + std::to_string(security));
            pcsc->Readers()[0]->Insert(sim::MakeCard("mifare1k"));
            ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
            const std::int32_t conditions = scheme == 1 ? scss_A_WriteKeysConditions : scss_B_WriteKeysConditions;
            ASSERT_EQ(
                encoder.WriteSectorTrailer(1, kTransportKey, 0, kKeyA, kKeyB, scheme, security, -1, -1, conditions),
                sceSuccess);

            const std::int32_t asked = scheme == 1 ? (security & 3) : security;
            const auto read = [&](const std::string& key, std::uint8_t type) {
                std::string contents;
                return encoder.ReadDataBloc(4, key, type, contents) == sceSuccess;
            };
            const auto write = [&](const std::string& key, std::uint8_t type) {
                std::string contents(32, '7');
                return encoder.WriteDataBloc(4, key, type, contents) == sceSuccess;
            };
            // What was asked is granted; a key asked nothing gets nothing.
            EXPECT_TRUE(!(asked & scbs_A_Read) || read(kKeyA, 0));
            EXPECT_TRUE(!(asked & scbs_A_Write) || write(kKeyA, 0));
            EXPECT_TRUE((asked & 3) != 0 || !(read(kKeyA, 0) || write(kKeyA, 0)));
            EXPECT_TRUE(!(asked & scbs_B_Read) || read(kKeyB, 2));
            EXPECT_TRUE(!(asked & scbs_B_Write) || write(kKeyB, 2));
            EXPECT_TRUE(asked != 0 || !read(kKeyB, 2));
            std::uint8_t keysUsed = 0, bx = 0;
            std::int32_t s0, s1, s2, cond;
            ASSERT_EQ(encoder.ReadSectorTrailer(1, kKeyA, 0, keysUsed, s0, s1, s2, cond, bx), sceSuccess);
            EXPECT_EQ(keysUsed, scheme);
            EXPECT_EQ(cond, conditions);
            EXPECT_EQ(bx, 0x69) << "the card's BX stays when none is given";
        }
    }
}

}  // namespace
}  // namespace elatectwn4
