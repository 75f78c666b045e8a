// The reader's storage-card commands against a MIFARE Classic card, and its
// passing of DESFire frames, as raw APDUs.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "apdu_helpers.h"
#include "sim/mifare_classic.h"

namespace {

using namespace elatectwn4::sim;
using namespace simtest;

constexpr std::string_view kTransportKey = "FFFFFFFFFFFF";
constexpr std::string_view kZeros = "00000000000000000000000000000000";

struct OneK {
    std::shared_ptr<Card> card = MakeCard("mifare1k");
    Reader reader{"test"};
    OneK() { reader.Insert(card); }
};

TEST(TransportState, EachCardShowsItsAtrUidManufacturerBlockAndTransportTrailers) {
    struct Row {
        const char *kind, *uid, *atr, *block0;
        unsigned lastTrailer;
    } rows[] = {
        // UID, check byte CF^1E^2D^3C, SAK 08, ATQA 0004 low byte first, manufacturer data.
        {"mifare1k", "CF1E2D3C", "3B8F8001804F0CA000000306030001000000006A", "CF1E2D3CC00804006263646566676869", 63},
        {"mifare4k", "DF4B5A69", "3B8F8001804F0CA0000003060300020000000069", "DF4B5A69A71802006263646566676869", 255},
        // A 7-byte UID leaves no room for a check byte.
        {"mifare1k", "04112233445566", "3B8F8001804F0CA000000306030001000000006A", "04112233445566084400626364656667",
         63},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.kind) + " " + row.uid);
        Reader reader{"test"};
        reader.Insert(MakeCard(row.kind, B(row.uid)));
        const auto atr = reader.Atr();
        EXPECT_EQ(H(atr), row.atr);
        std::uint8_t check = 0;
        for (std::size_t i = 1; i < atr.size(); ++i)
            check ^= atr[i];
        EXPECT_EQ(check, 0) << "T0 to TCK must XOR to zero";
        EXPECT_EQ(Answer(reader, "FF CA 00 00 00"), std::string(row.uid) + "9000");
        ASSERT_EQ(Open(reader, 0, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(reader, Read(0)), std::string(row.block0) + "9000");
        EXPECT_EQ(Answer(reader, Read(1)), std::string(kZeros) + "9000");
        EXPECT_EQ(Answer(reader, Read(3)), "000000000000FF078069FFFFFFFFFFFF9000");
        ASSERT_EQ(Open(reader, row.lastTrailer, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(reader, Read(row.lastTrailer)), "000000000000FF078069FFFFFFFFFFFF9000");
        EXPECT_EQ(Open(reader, 4, 'A', "FFFFFFFFFFFE"), "6300") << "a wrong transport key";
    }
}

TEST(BlockAccess, FourKSectorsMapEveryBlockToItsTrailer) {
    Reader reader{"test"};
    reader.Insert(MakeCard("mifare4k"));
    for (unsigned block = 0; block < 256; ++block) {
        const unsigned sector = block < 128 ? block / 4 : 32 + (block - 128) / 16;
        const unsigned trailer = sector < 32 ? sector * 4 + 3 : 128 + (sector - 32) * 16 + 15;
        ASSERT_EQ(Open(reader, block, 'A', kTransportKey), "9000") << block;
        ASSERT_EQ(Answer(reader, Read(trailer)), "000000000000FF078069FFFFFFFFFFFF9000") << block;
        ASSERT_EQ(Sw(reader.Transmit(B(Read(block)))), "9000") << block;
        if (trailer + 1 < 256) {
            // The next sector is not opened by this authentication.
            ASSERT_EQ(Answer(reader, Read(trailer + 1)), "6982") << block;
        }
    }
}

TEST(BlockAccess, LargeSectorGroupsGovernFiveBlocksEach) {
    auto card = std::make_shared<MifareClassicCard>(true, Bytes{0xDF, 0x4B, 0x5A, 0x69});
    Reader reader{"test"};
    reader.Insert(card);
    ASSERT_EQ(Open(reader, 143, 'A', kTransportKey), "9000");
    // Group 0 free, group 1 never, group 2 read only, trailer as in transport state.
    const std::string trailer = "FFFFFFFFFFFF" + H(EncodeAccessBytes({0, 7, 2, 1})) + "69FFFFFFFFFFFF";
    ASSERT_EQ(Answer(reader, Write(143, trailer)), "9000");
    for (unsigned block = 128; block < 143; ++block) {
        const char* expectedRead = block >= 133 && block <= 137 ? "6982" : "9000";
        const char* expectedWrite = block <= 132 ? "9000" : "6982";
        ASSERT_EQ(Open(reader, block, 'A', kTransportKey), "9000");
        EXPECT_EQ(Sw(reader.Transmit(B(Read(block)))), expectedRead) << block;
        ASSERT_EQ(Open(reader, block, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(reader, Write(block, "77777777777777777777777777777777")), expectedWrite) << block;
    }
}

TEST(Authentication, IsLostOnEveryEventThatEndsTheCardSession) {
    struct Row {
        const char* event;
        void (*run)(Reader&, std::shared_ptr<Card>&);
        const char* readAfter;
    } rows[] = {
        {"nothing", [](Reader&, std::shared_ptr<Card>&) {}, "9000"},
        {"failed authentication",
         [](Reader& r, std::shared_ptr<Card>&) { EXPECT_EQ(Open(r, 4, 'A', "000000000000"), "6300"); }, "6982"},
        {"authentication to a block that does not exist",
         [](Reader& r, std::shared_ptr<Card>&) { EXPECT_EQ(Sw(r.Transmit(B(Auth(64, 'A', 1)))), "6A82"); }, "6982"},
        {"authentication to another sector",
         [](Reader& r, std::shared_ptr<Card>&) { EXPECT_EQ(Open(r, 8, 'A', kTransportKey), "9000"); }, "6982"},
        {"refused access", [](Reader& r, std::shared_ptr<Card>&) { EXPECT_EQ(Answer(r, Read(9)), "6982"); }, "6982"},
        {"field reset", [](Reader& r, std::shared_ptr<Card>&) { r.ResetCard(); }, "6982"},
        {"removal and insertion",
         [](Reader& r, std::shared_ptr<Card>& card) {
             r.Remove();
             r.Insert(card);
         },
         "6982"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.event);
        OneK f;
        ASSERT_EQ(Open(f.reader, 4, 'A', kTransportKey), "9000");
        row.run(f.reader, f.card);
        EXPECT_EQ(Sw(f.reader.Transmit(B(Read(5)))), row.readAfter);
    }
}

TEST(KeySlots, AreVolatileReaderStateThatOutlivesTheCard) {
    OneK f;
    EXPECT_EQ(Answer(f.reader, LoadKey(0, "FFFFFFFFFFFF")), "9000");
    EXPECT_EQ(Answer(f.reader, LoadKey(31, "000000000000")), "9000");
    EXPECT_EQ(Answer(f.reader, Auth(4, 'A', 0)), "9000");
    EXPECT_EQ(Answer(f.reader, Auth(4, 'A', 31)), "6300");
    EXPECT_EQ(Answer(f.reader, Auth(4, 'A', 7)), "6984") << "slot never loaded";
    f.reader.Remove();
    f.reader.Insert(MakeCard("mifare1k"));
    f.reader.ResetCard();
    EXPECT_EQ(Answer(f.reader, Auth(4, 'A', 0)), "9000");
    // Loading again replaces the key.
    EXPECT_EQ(Answer(f.reader, LoadKey(0, "A0A1A2A3A4A5")), "9000");
    EXPECT_EQ(Answer(f.reader, Auth(4, 'A', 0)), "6300");
}

TEST(MalformedCommands, AreRefusedWithTheirStatusWordAndChangeNothing) {
    struct Row {
        const char* apdu;
        const char* answer;
    } rows[] = {
        {"FF", "6700"},
        {"FF CA 00 00", "6700"},
        {"FF CA 00 00 00 00", "6700"},
        {"FF CA 00 00 02", "6C04"},
        {"FF CA 00 00 08", "CF1E2D3C6282"},
        {"FF CA 00 00 04", "CF1E2D3C9000"},
        {"FF CA 01 00 00", "6A81"},
        {"FF CA 02 00 00", "6B00"},
        {"FF 82 00 02 06 FFFFFFFFFF", "6700"},
        {"FF 82 00 02 05 FFFFFFFFFF", "6989"},
        {"FF 82 00 20 06 FFFFFFFFFFFF", "6988"},
        {"FF 82 20 02 06 FFFFFFFFFFFF", "6387"},
        {"FF 86 00 00 05 01 00 04 60", "6700"},
        {"FF 86 00 00 04 01 00 04 60", "6700"},
        {"FF 86 00 00 05 01 00 04 60 01 00", "6700"},
        {"FF 86 00 00 05 01 00 04 62 01", "6986"},
        {"FF 86 00 00 05 01 00 04 60 20", "6988"},
        {"FF 86 00 00 05 02 00 04 60 01", "6A80"},
        {"FF 86 01 00 05 01 00 04 60 01", "6B00"},
        {"FF B0 00 04", "6700"},
        {"FF B0 00 04 08", "6700"},
        {"FF B0 00 04 00 00", "6700"},
        {"FF B0 00 04 10", "000000000000000000000000000000009000"},  // Le 16 is Le 0
        {"FF D6 00 04 0F 111111111111111111111111111111", "6700"},
        {"FF D6 00 04 10 111111111111111111111111111111", "6700"},
        {"FF D6 00 04 10 1111111111111111111111111111111111", "6700"},
        {"FF 00 00 00 00", "6D00"},
        {"FF 88 00 04 60 01", "6D00"},
        {"00 A4 04 00 00", "6E00"},
        {"90 60 00 00 00", "6E00"},
        {"60", "6E00"},
    };
    for (const auto& row : rows) {
        OneK f;
        ASSERT_EQ(Open(f.reader, 4, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(f.reader, row.apdu), row.answer) << row.apdu;
        EXPECT_FALSE(f.reader.KeySlot(2)) << row.apdu;
        // The session and block 4 are as they were.
        EXPECT_EQ(Answer(f.reader, Read(4)), std::string(kZeros) + "9000") << row.apdu;
    }
}

TEST(MalformedCommands, BlocksBeyondTheCardAreReportedMissing) {
    struct Row {
        const char* kind;
        const char* apdu;
        const char* answer;
    } rows[] = {
        {"mifare1k", "FF 86 00 00 05 01 00 40 60 01", "6A82"},
        {"mifare1k", "FF 86 00 00 05 01 01 00 60 01", "6A82"},
        {"mifare1k", "FF B0 00 40 00", "6A82"},
        {"mifare1k", "FF D6 00 40 10 00000000000000000000000000000000", "6A82"},
        {"mifare4k", "FF 86 00 00 05 01 00 FF 60 01", "9000"},
        {"mifare4k", "FF 86 00 00 05 01 01 00 60 01", "6A82"},
        {"mifare4k", "FF B0 01 00 00", "6A82"},
    };
    for (const auto& row : rows) {
        Reader reader{"test"};
        reader.Insert(MakeCard(row.kind));
        ASSERT_EQ(Answer(reader, LoadKey(1, kTransportKey)), "9000");
        EXPECT_EQ(Answer(reader, row.apdu), row.answer) << row.kind << ": " << row.apdu;
    }
}

TEST(ReaderCommands, SimpleProtocolSwitchEndsTheReaderModeAnswer) {
    OneK f;
    f.reader.SetReaderModeAtr(true);
    EXPECT_EQ(H(f.reader.Atr()), "3B868111FE8143696E647930");
    EXPECT_EQ(Answer(f.reader, "FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF"), "9000");
    EXPECT_EQ(H(f.reader.Atr()), "3B8F8001804F0CA000000306030001000000006A");
    f.reader.Remove();
    EXPECT_TRUE(f.reader.Atr().empty());
    EXPECT_TRUE(f.reader.Transmit(B("FF CA 00 00 00")).empty()) << "no card, no answer";
}

// A DESFire stand-in that keeps what reached it and answers status 00
// followed by the frame reversed, so that the reader's unwrapping and
// rewrapping are visible byte for byte.
class EchoDesfire final : public Card {
public:
    std::string Kind() const override { return "desfire"; }
    std::vector<std::uint8_t> Atr() const override { return B("3B81800180 80"); }
    std::vector<std::uint8_t> Uid() const override { return B("04A1B2C3D4E5F6"); }
    void PowerOn() override {}
    std::optional<std::vector<std::uint8_t>> DesfireCommand(std::span<const std::uint8_t> frame) override {
        frames.emplace_back(frame.begin(), frame.end());
        std::vector<std::uint8_t> answer{0x00};
        answer.insert(answer.end(), frame.rbegin(), frame.rend());
        return answer;
    }
    nlohmann::json Save() const override { return {}; }
    void Load(const nlohmann::json&) override {}
    std::vector<std::vector<std::uint8_t>> frames;
};

TEST(DesfireFrames, PassNativeAndIsoWrappedAndMalformedWrappingsStayInTheReader) {
    struct Row {
        const char* apdu;
        const char* frame;  // what reaches the card; "" = nothing
        const char* answer;
    } rows[] = {
        {"60", "60", "0060"},
        {"BD 01 000000 100000", "BD01000000100000",
         "00000010000000"
         "01BD"},
        {"90 60 00 00 00", "60", "609100"},
        {"90 AF 00 00 00", "AF", "AF9100"},
        {"90 5A 00 00 03 112233 00", "5A112233", "3322115A9100"},
        {"90 5A 00 00 03 112233", "5A112233", "3322115A9100"},
        {"90 60 00 00", "", "6700"},
        {"90 60 00 00 00 00", "", "6700"},
        {"90 5A 00 00 03 1122", "", "6700"},
        {"90 5A 00 00 03 112233 01", "", "6700"},
        {"90 5A 01 00 03 112233 00", "", "6B00"},
        {"FF CA 00 00 00", "", "04A1B2C3D4E5F69000"},
        {"FF B0 00 04 00", "", "6A81"},
        {"FF 86 00 00 05 01 00 04 60 01", "", "6984"},  // no key in slot 1: the reader stops it
    };
    for (const auto& row : rows) {
        auto card = std::make_shared<EchoDesfire>();
        Reader reader{"test"};
        reader.Insert(card);
        EXPECT_EQ(Answer(reader, row.apdu), row.answer) << row.apdu;
        const std::string reached = card->frames.empty() ? "" : H(card->frames.front());
        EXPECT_EQ(reached, row.frame) << row.apdu;
        EXPECT_LE(card->frames.size(), 1u);
    }
}

TEST(MakeCard, RefusesUnknownKindsAndImpossibleUids) {
    EXPECT_THROW(MakeCard("mifare2k"), std::invalid_argument);
    EXPECT_THROW(MakeCard(""), std::invalid_argument);
    EXPECT_THROW(MakeCard("mifare1k", B("0102030405")), std::invalid_argument);
    EXPECT_THROW(MakeCard("desfire", B("11223344")), std::invalid_argument);
    EXPECT_EQ(H(MakeCard("desfire", B("04112233445566"))->Uid()), "04112233445566");
    EXPECT_EQ(MakeCard("mifare4k")->Kind(), "mifare4k");
    EXPECT_EQ(H(MakeCard("mifare1k", B("11223344"))->Uid()), "11223344");
}

}  // namespace
