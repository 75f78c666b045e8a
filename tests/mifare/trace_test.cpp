// Writing sector trailers with the trace on must leave no byte of a key in
// it, whatever the sector's size and wherever the trailer block lies.
#include "command/trace.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cipher/bytes.h"
#include "mifare/mifare.h"
#include "sim/simulated_pcsc.h"
#include "support/trace_file.h"

namespace elatectwn4::mifare {
namespace {

// Bytes that no command or answer of these exchanges holds except as a key.
const std::string kTransport = "FFFFFFFFFFFF";
const std::string kFirstA = "2A3B4C5D6E7F", kFirstB = "A2B3C4D5E6F7";
const std::string kSecondA = "1A2B3C4D5E6F", kSecondB = "A1B2C3D4E5F6";

// Every byte the hex part of a trace line shows (the decimal list masks the
// same bytes: the command layer's test).
std::vector<int> BytesShown(const std::string& line) {
    std::vector<int> bytes;
    const std::size_t colon = line.find(": ");
    const std::size_t open = line.rfind(" (");
    if (colon == std::string::npos || open == std::string::npos || open < colon) return bytes;
    const std::string hex = line.substr(colon + 2, open - colon - 2);
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        if (hex[i] != '*') bytes.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

TEST(TrailerTrace, HoldsNoKeyByteInSmallAndLargeSectors) {
    ASSERT_TRUE(command::TraceEnabled());
    struct Sector {
        const char* card;
        std::int32_t number;
        bool trailer;  // whether the block written is a trailer on this card
        unsigned block;
        bool cardConformance = false;
    };
    // By default 4 * 32 + 3 = 131 is a data block of the 16-block sector 32;
    // the card's own layout puts the trailer of sector 39 at 255.
    for (const Sector& sector : {Sector{"mifare1k", 5, true, 23}, Sector{"mifare4k", 32, false, 131},
                                 Sector{"mifare4k", 39, true, 255, true}}) {
        SCOPED_TRACE(std::string(sector.card) + " sector " + std::to_string(sector.number));
        auto pcsc = std::make_shared<sim::SimulatedPcsc>();
        pcsc->FindReader(sim::kDefaultReaderNames[0])->Insert(sim::MakeCard(sector.card));
        command::Channel channel{pcsc.get()};
        ASSERT_EQ(pcsc->EstablishContext(pcsc_const::ScopeSystem, channel.context), 0u);
        ASSERT_EQ(pcsc->Connect(channel.context, std::string(sim::kDefaultReaderNames[0]), pcsc_const::ShareExclusive,
                                pcsc_const::ProtocolT1, channel.card, channel.activeProtocol),
                  0u);
        CError record;
        AccessConditionTable overrides{};
        Context ctx{channel, record, overrides, [] { return sceSuccess; }, sector.cardConformance};
        if (!sector.trailer) {
            // A data block is only built on once it reads like a trailer.
            std::string lookalike = kTransport + "FF078069" + kTransport;
            ASSERT_EQ(MifareWriteDataBloc(ctx, static_cast<std::int32_t>(sector.block), kTransport, 0, lookalike),
                      sceSuccess);
        }
        test::ClearTrace();

        ASSERT_EQ(MifareWriteSectorTrailer(ctx, sector.number, kTransport, 0, kFirstA, kFirstB, 0, -1, -1, -1, -1, {}),
                  sceSuccess)
            << record.Description << " " << record.RdrRetCode;
        // Written again, the trailer read first now holds the first keys.
        const std::string& key = sector.trailer ? kFirstA : kTransport;
        ASSERT_EQ(MifareWriteSectorTrailer(ctx, sector.number, key, 0, kSecondA, kSecondB, 0, -1, -1, -1, -1, {}),
                  sceSuccess);
        std::uint8_t keys = 0, bx = 0;
        std::int32_t s0, s1, s2, conditions;
        const std::string& now = sector.trailer ? kSecondA : kTransport;
        ASSERT_EQ(MifareReadSectorTrailer(ctx, sector.number, now, 0, keys, s0, s1, s2, conditions, bx), sceSuccess);
        if (sector.trailer) {
            // A trailer read as a plain block shows key B on a card that lets key A read it.
            std::string contents;
            ASSERT_EQ(MifareReadDataBloc(ctx, static_cast<std::int32_t>(sector.block), now, 0, contents), sceSuccess);
            EXPECT_EQ(contents.substr(20), kSecondB);
        }
        const cipher::ByteArray keyList = *cipher::ParseHex(kFirstA + kFirstB + kSecondA + kSecondB);
        const std::set<int> keyBytes(keyList.begin(), keyList.end());
        int writes = 0;
        for (const std::string& line : test::TraceLines()) {
            writes += line.starts_with("Sending WriteBinary: FFD600") ? 1 : 0;
            for (int b : BytesShown(line))
                EXPECT_EQ(keyBytes.count(b), 0u) << "key byte " << b << " in: " << line;
        }
        EXPECT_EQ(writes, 2) << "the trace holds the exchanges";
    }
}

}  // namespace
}  // namespace elatectwn4::mifare
