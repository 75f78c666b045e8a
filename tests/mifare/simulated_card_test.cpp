// The MIFARE members against a simulated reader and card: what is stored,
// and the card enforcing the access conditions the component wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cipher/bytes.h"
#include "command/channel.h"
#include "command/error_record.h"
#include "mifare/access_bits.h"
#include "mifare/block.h"
#include "mifare/mifare.h"
#include "record_matchers.h"
#include "sim/mifare_classic.h"
#include "sim/simulated_pcsc.h"

namespace elatectwn4::mifare {
namespace {

using mifare_test::CardRefusal;
using mifare_test::Cleared;
using mifare_test::Refusal;

const std::string kTransportKey = "FFFFFFFFFFFF";
const std::string kKeyA = "A0A1A2A3A4A5";
const std::string kKeyB = "B0B1B2B3B4B5";
constexpr std::uint8_t kUseKeyA = 0;
constexpr std::uint8_t kUseKeyB = 2;

std::string Hex(const sim::Block& block) {
    return cipher::ToHex(block);
}

// A session on the simulated reader "Virtual PCD 00 00" holding one card.
class SimulatedCard {
public:
    explicit SimulatedCard(const std::string& kind, std::vector<std::uint8_t> uid = {})
        : card_(std::dynamic_pointer_cast<sim::MifareClassicCard>(sim::MakeCard(kind, std::move(uid)))) {
        pcsc_->FindReader(sim::kDefaultReaderNames[0])->Insert(card_);
        EXPECT_EQ(pcsc_->EstablishContext(pcsc_const::ScopeSystem, channel_.context), 0u);
        EXPECT_EQ(pcsc_->Connect(channel_.context, std::string(sim::kDefaultReaderNames[0]), pcsc_const::ShareExclusive,
                                 pcsc_const::ProtocolT1, channel_.card, channel_.activeProtocol),
                  0u);
    }

    Context& ctx() { return ctx_; }
    CError& record() { return record_; }
    sim::MifareClassicCard& card() { return *card_; }
    sim::Reader& reader() { return *pcsc_->FindReader(sim::kDefaultReaderNames[0]); }

    std::string Read(std::int32_t block, const std::string& key, std::uint8_t keyType) {
        std::string contents;
        EXPECT_EQ(MifareReadDataBloc(ctx_, block, key, keyType, contents), sceSuccess) << Show();
        return contents;
    }
    sceReturnCode TryRead(std::int32_t block, const std::string& key, std::uint8_t keyType) {
        std::string contents;
        return MifareReadDataBloc(ctx_, block, key, keyType, contents);
    }
    sceReturnCode TryWrite(std::int32_t block, const std::string& key, std::uint8_t keyType, std::string data) {
        return MifareWriteDataBloc(ctx_, block, key, keyType, data);
    }
    std::string Show() const { return testing::PrintToString(record_); }

private:
    std::shared_ptr<sim::SimulatedPcsc> pcsc_ = std::make_shared<sim::SimulatedPcsc>();
    std::shared_ptr<sim::MifareClassicCard> card_;
    CError record_;
    command::Channel channel_{pcsc_.get(), 0, 0, 0};
    AccessConditionTable overrides_{};
    Context ctx_{channel_, record_, overrides_, [this] {
                     PcscStatus status;
                     if (pcsc_->Status(channel_.card, status) == 0) return sceSuccess;
                     command::Fail(record_, ErrorNumber::NoCard, "SelectCardInRange");
                     return sceError;
                 }};
};

struct Geometry {
    const char* kind;
    std::vector<std::int32_t> dataBlocks;
};

class OnEveryClassicCard : public ::testing::TestWithParam<Geometry> {};

void PrintTo(const Geometry& g, std::ostream* os) {
    *os << g.kind;
}

INSTANTIATE_TEST_SUITE_P(MifareClassic, OnEveryClassicCard,
                         ::testing::Values(Geometry{"mifare1k", {1, 4, 5, 6, 62}},
                                           Geometry{"mifare4k", {1, 62, 126, 128, 200, 254}}),
                         [](const auto& info) { return std::string(info.param.kind); });

TEST_P(OnEveryClassicCard, BlocksAndValueBlocksAreStoredAsTheCardReadsThem) {
    SimulatedCard sim(GetParam().kind);
    for (const std::int32_t block : GetParam().dataBlocks) {
        const std::string data =
            "00112233445566778899AABBCCDD" + cipher::ToHex(static_cast<std::uint8_t>(block)) + "FF";
        ASSERT_EQ(sim.TryWrite(block, kTransportKey, kUseKeyA, data), sceSuccess) << "block " << block << sim.Show();
        EXPECT_EQ(Hex(sim.card().RawBlock(static_cast<unsigned>(block))), data) << "block " << block;
        EXPECT_EQ(sim.Read(block, kTransportKey, kUseKeyA), data) << "block " << block;
    }
    const std::int32_t block = GetParam().dataBlocks.back();
    for (const std::int32_t value : {0, 1000, 0x7FFFFFFF}) {
        ASSERT_EQ(MifareWriteValueBloc(sim.ctx(), block, kTransportKey, kUseKeyA, value), sceSuccess) << sim.Show();
        const auto decoded = sim::DecodeValueBlock(sim.card().RawBlock(static_cast<unsigned>(block)));
        ASSERT_TRUE(decoded) << "value " << value;
        EXPECT_EQ(decoded->value, value);
    }
}

TEST(SimulatedClassic, ATrailerWrittenIsWhatTheCardDecodesAndReadsBack) {
    SimulatedCard sim("mifare1k");
    // Block 4: A read, B read/write ("110"); block 5: B read ("101"); block 6:
    // everything ("000"); trailer: key B writes keys and conditions ("011").
    ASSERT_EQ(
        MifareWriteSectorTrailer(sim.ctx(), 1, kTransportKey, kUseKeyA, kKeyA, kKeyB, 2, scbs_A_Read | scbs_B_ReadWrite,
                                 scbs_B_Read, 15, scss_B_WriteKeysConditions, std::int32_t{0x5A}),
        sceSuccess)
        << sim.Show();
    EXPECT_EQ(sim.record(), Cleared("MifareWriteSectorTrailer"));

    const sim::Block& trailer = sim.card().RawBlock(7);
    EXPECT_EQ(Hex(trailer).substr(0, 12), kKeyA);
    EXPECT_EQ(Hex(trailer).substr(20), kKeyB);
    EXPECT_EQ(trailer[9], 0x5A);
    const auto conditions = sim::DecodeAccessBytes(std::span<const std::uint8_t, 3>(trailer.data() + 6, 3));
    ASSERT_TRUE(conditions) << "the inverted copies must agree";
    EXPECT_EQ(*conditions, (sim::SectorConditions{0b110, 0b101, 0b000, 0b011}));

    // The transport key is gone.
    EXPECT_EQ(sim.TryRead(4, kTransportKey, kUseKeyA), sceError);
    EXPECT_EQ(sim.record(), CardRefusal("MifareAuthenticate", "GeneralAuthenticate", "6300"));

    std::uint8_t keysUsed = 0, bx = 0;
    std::int32_t s0 = -9, s1 = -9, s2 = -9, cond = -9;
    ASSERT_EQ(MifareReadSectorTrailer(sim.ctx(), 1, kKeyB, kUseKeyB, keysUsed, s0, s1, s2, cond, bx), sceSuccess)
        << sim.Show();
    EXPECT_EQ(keysUsed, 2);
    EXPECT_EQ(s0, scbs_A_Read | scbs_B_ReadWrite);
    EXPECT_EQ(s1, scbs_B_ReadWrite) << "B read only is reported coarsely as B read/write";
    EXPECT_EQ(s2, scbs_A_ReadWrite | scbs_B_ReadWrite);
    EXPECT_EQ(cond, scss_B_WriteKeysConditions);
    EXPECT_EQ(bx, 0x5A);
}

TEST(SimulatedClassic, KeyAWithoutTheRightToWriteTheTrailerIsRefusedByTheCardAndChangesNothing) {
    SimulatedCard sim("mifare1k");
    ASSERT_EQ(MifareWriteSectorTrailer(sim.ctx(), 1, kTransportKey, kUseKeyA, kKeyA, kKeyB, 2, -1, -1, -1,
                                       scss_B_WriteKeysConditions, {}),
              sceSuccess)
        << sim.Show();
    const sim::Block before = sim.card().RawBlock(7);
    EXPECT_EQ(
        MifareWriteSectorTrailer(sim.ctx(), 1, kKeyA, kUseKeyA, kTransportKey, kTransportKey, 0, -1, -1, -1, -1, {}),
        sceError);
    EXPECT_EQ(sim.record(), CardRefusal("MifareWriteSectorTrailer", "WriteBinary", "6982"));
    EXPECT_EQ(sim.card().RawBlock(7), before);

    // Key B may: KeysToUse 0 keeps the key-B scheme and all -1 keeps the bits.
    ASSERT_EQ(
        MifareWriteSectorTrailer(sim.ctx(), 1, kKeyB, kUseKeyB, kKeyA, kKeyB, 0, -1, -1, -1, -1, std::string("17")),
        sceSuccess)
        << sim.Show();
    const sim::Block& after = sim.card().RawBlock(7);
    EXPECT_EQ(after[9], 17);
    EXPECT_TRUE(std::equal(after.begin() + 6, after.begin() + 9, before.begin() + 6));
}

// Every data-block security value under both schemes, written to a fresh
// card, then every requested right tried on the card itself.
TEST(SimulatedClassic, EveryEncodableSecurityGrantsOnTheCardWhatWasRequested) {
    for (const std::uint8_t scheme : {std::uint8_t{1}, std::uint8_t{2}}) {
        for (std::int32_t security = 0; security <= 15; ++security) {
            if (!DataBlockConditionText(AccessConditionTable{}, security, scheme)) continue;
            SCOPED_TRACE("scheme " + std::to_string(scheme) + " security " + std::to_string(security));
            SimulatedCard sim("mifare1k");
            const std::int32_t conditions = scheme == 1 ? scss_A_WriteKeysConditions : scss_B_WriteKeysConditions;
            ASSERT_EQ(MifareWriteSectorTrailer(sim.ctx(), 1, kTransportKey, kUseKeyA, kKeyA, kKeyB, scheme, security,
                                               -1, -1, conditions, {}),
                      sceSuccess)
                << sim.Show();

            const std::int32_t asked = scheme == 1 ? (security & 3) : security;
            const std::string data(32, '7');
            auto readWith = [&](const std::string& key, std::uint8_t type) { return sim.TryRead(4, key, type); };
            auto writeWith = [&](const std::string& key, std::uint8_t type) {
                return sim.TryWrite(4, key, type, data);
            };
            if (asked & scbs_A_Read) {
                EXPECT_EQ(readWith(kKeyA, kUseKeyA), sceSuccess) << sim.Show();
            }
            if (asked & scbs_A_Write) {
                EXPECT_EQ(writeWith(kKeyA, kUseKeyA), sceSuccess) << sim.Show();
            }
            if ((asked & 3) == 0) {
                EXPECT_EQ(readWith(kKeyA, kUseKeyA), sceError) << "key A was given no right";
                EXPECT_EQ(writeWith(kKeyA, kUseKeyA), sceError) << "key A was given no right";
            }
            if (scheme == 2) {
                if (asked & scbs_B_Read) {
                    EXPECT_EQ(readWith(kKeyB, kUseKeyB), sceSuccess) << sim.Show();
                }
                if (asked & scbs_B_Write) {
                    EXPECT_EQ(writeWith(kKeyB, kUseKeyB), sceSuccess) << sim.Show();
                }
                if (asked == 0) {
                    EXPECT_EQ(readWith(kKeyB, kUseKeyB), sceError);
                }
            }

            std::uint8_t keysUsed = 0, bx = 0;
            std::int32_t s0, s1, s2, cond;
            ASSERT_EQ(MifareReadSectorTrailer(sim.ctx(), 1, kKeyA, kUseKeyA, keysUsed, s0, s1, s2, cond, bx),
                      sceSuccess)
                << sim.Show();
            EXPECT_EQ(keysUsed, scheme);
            EXPECT_EQ(cond, conditions);
            EXPECT_EQ(bx, 0x69) << "the card's BX stays when none is given";
        }
    }
}

}  // namespace
}  // namespace elatectwn4::mifare
