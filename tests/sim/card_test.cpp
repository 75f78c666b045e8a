// The MIFARE Classic card behind the reader's storage-card APDUs, as its
// datasheet describes it, and the reader's passing of DESFire frames.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "apdu_helpers.h"
#include "sim/mifare_classic.h"

namespace {

using namespace elatectwn4::sim;
using namespace simtest;

constexpr std::string_view kTransportKey = "FFFFFFFFFFFF";
constexpr std::string_view kKeyA = "A0A1A2A3A4A5";
constexpr std::string_view kKeyB = "B0B1B2B3B4B5";
constexpr std::string_view kZeros = "00000000000000000000000000000000";
constexpr std::string_view kTransportTrailer = "000000000000FF078069FFFFFFFFFFFF";

std::string AccessHex(SectorConditions conditions) {
    return H(EncodeAccessBytes(conditions));
}

struct OneK {
    std::shared_ptr<MifareClassicCard> card = std::make_shared<MifareClassicCard>(false, B("CF1E2D3C"));
    Reader reader{"test"};
    OneK() { reader.Insert(card); }

    // Block 4 holds 11..11, trailer 7 is kKeyA | conditions | 69 | kKeyB.
    void Personalise(SectorConditions conditions) {
        ASSERT_EQ(Open(reader, 7, 'A', kTransportKey), "9000");
        ASSERT_EQ(Answer(reader, Write(4, "11111111111111111111111111111111")), "9000");
        ASSERT_EQ(Answer(reader, Write(7, std::string(kKeyA) + AccessHex(conditions) + "69" + std::string(kKeyB))),
                  "9000");
    }
};

// "AB", "A", "B" or "-" as the datasheet writes a right.
bool Allows(std::string_view right, char key) {
    return right.find(key) != std::string_view::npos;
}

TEST(AccessConditions, DataBlocksGrantEachKeyExactlyItsDatasheetRights) {
    // Rows C1C2C3 = 000 .. 111; the trailer runs condition 011 so that key B serves.
    const char* const readRight[8] = {"AB", "AB", "AB", "B", "AB", "B", "AB", "-"};
    const char* const writeRight[8] = {"AB", "-", "-", "B", "B", "-", "B", "-"};
    for (AccessCondition c = 0; c < 8; ++c) {
        for (char key : {'A', 'B'}) {
            SCOPED_TRACE("condition " + std::to_string(c) + " key " + key);
            OneK f;
            f.Personalise({c, 0, 0, 3});
            const std::string_view secret = key == 'A' ? kKeyA : kKeyB;
            ASSERT_EQ(Open(f.reader, 4, key, secret), "9000");
            EXPECT_EQ(Answer(f.reader, Read(4)),
                      Allows(readRight[c], key) ? "111111111111111111111111111111119000" : "6982");
            ASSERT_EQ(Open(f.reader, 4, key, secret), "9000");
            const bool mayWrite = Allows(writeRight[c], key);
            EXPECT_EQ(Answer(f.reader, Write(4, "22222222222222222222222222222222")), mayWrite ? "9000" : "6982");
            EXPECT_EQ(H(f.card->RawBlock(4)),
                      mayWrite ? "22222222222222222222222222222222" : "11111111111111111111111111111111");
        }
    }
}

TEST(AccessConditions, TrailersGrantEachKeyExactlyItsDatasheetRights) {
    // Rows C1C2C3 = 000 .. 111: who may write key A, read and write the access
    // bytes (with byte 9), read and write key B.
    struct Rights {
        const char *writeA, *readAccess, *writeAccess, *readB, *writeB;
    };
    const Rights table[8] = {
        {"A", "A", "-", "A", "A"},  {"A", "A", "A", "A", "A"},  {"-", "A", "-", "A", "-"},  {"B", "AB", "B", "-", "B"},
        {"B", "AB", "-", "-", "B"}, {"-", "AB", "B", "-", "-"}, {"-", "AB", "-", "-", "-"}, {"-", "AB", "-", "-", "-"},
    };
    constexpr std::string_view kNewKeyA = "C0C1C2C3C4C5", kNewKeyB = "D0D1D2D3D4D5";
    for (AccessCondition t = 0; t < 8; ++t) {
        for (char key : {'A', 'B'}) {
            SCOPED_TRACE("trailer condition " + std::to_string(t) + " key " + key);
            const Rights& r = table[t];
            OneK f;
            f.Personalise({0, 0, 0, t});
            const std::string access = AccessHex({0, 0, 0, t});
            const std::string_view secret = key == 'A' ? kKeyA : kKeyB;
            // Where key A may read key B, key B authenticates but the card refuses every access after it.
            const bool refused = key == 'B' && Allows(r.readB, 'A');

            ASSERT_EQ(Open(f.reader, 7, key, secret), "9000");
            const std::string keyB = Allows(r.readB, key) ? std::string(kKeyB) : "000000000000";
            EXPECT_EQ(Answer(f.reader, Read(7)),
                      refused || !Allows(r.readAccess, key) ? "6982" : "000000000000" + access + "69" + keyB + "9000");

            ASSERT_EQ(Open(f.reader, 7, key, secret), "9000");
            const std::string newAccess = AccessHex({2, 0, 0, t});
            const std::string answer =
                Answer(f.reader, Write(7, std::string(kNewKeyA) + newAccess + "5A" + std::string(kNewKeyB)));
            const bool writesA = !refused && Allows(r.writeA, key);
            const bool writesAccess = !refused && Allows(r.writeAccess, key);
            const bool writesB = !refused && Allows(r.writeB, key);
            EXPECT_EQ(answer, writesA || writesAccess || writesB ? "9000" : "6982");
            EXPECT_EQ(H(f.card->RawBlock(7)), std::string(writesA ? kNewKeyA : kKeyA) +
                                                  (writesAccess ? newAccess + "5A" : access + "69") +
                                                  std::string(writesB ? kNewKeyB : kKeyB));
        }
    }
    // The same refusal for the data blocks of a sector whose key B is readable.
    OneK f;
    ASSERT_EQ(Open(f.reader, 4, 'B', kTransportKey), "9000");
    EXPECT_EQ(Answer(f.reader, Read(4)), "6982");
}

TEST(AccessConditions, InconsistentInvertedCopiesAreWrittenAndBlockTheirSectorOnly) {
    // NOT C1, NOT C2, NOT C3 of block 0 disagreeing; C2 without its inverse; all zero.
    for (const char* access : {"FE0780", "EF0780", "FF0680", "FF0781", "000000"}) {
        SCOPED_TRACE(access);
        OneK f;
        ASSERT_EQ(Open(f.reader, 7, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(f.reader, Write(7, std::string("FFFFFFFFFFFF") + access + "69FFFFFFFFFFFF")), "9000");
        for (unsigned block : {4u, 7u}) {
            EXPECT_EQ(Open(f.reader, block, 'A', kTransportKey), "9000") << block;
            EXPECT_EQ(Answer(f.reader, Read(block)), "6982") << block;
        }
        ASSERT_EQ(Open(f.reader, 8, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(f.reader, Read(8)), std::string(kZeros) + "9000");
    }
}

TEST(ValueBlocks, HoldTheValueThriceAndTheAddressFourTimes) {
    EXPECT_EQ(H(EncodeValueBlock(-2, 0x05)), "FEFFFFFF01000000FEFFFFFF05FA05FA");
    EXPECT_EQ(DecodeValueBlock(EncodeValueBlock(-123456, 0x21))->value, -123456);
    for (unsigned i = 0; i < 16; ++i) {
        auto block = EncodeValueBlock(1000, 0x04);
        block[i] ^= 0x10;
        EXPECT_FALSE(DecodeValueBlock(block)) << "byte " << i;
    }
}

TEST(TransportState, EachCardShowsItsAtrUidManufacturerBlockAndTransportTrailers) {
    struct Row {
        const char *kind, *uid, *atr, *block0;
        unsigned lastTrailer;
    } rows[] = {
        // UID, check byte, SAK, ATQA low byte first, manufacturer data; a 7-byte UID has no check byte.
        {"mifare1k", "CF1E2D3C", "3B8F8001804F0CA000000306030001000000006A", "CF1E2D3CC00804006263646566676869", 63},
        {"mifare4k", "DF4B5A69", "3B8F8001804F0CA0000003060300020000000069", "DF4B5A69A71802006263646566676869", 255},
        {"mifare1k", "04112233445566", "3B8F8001804F0CA000000306030001000000006A", "04112233445566084400626364656667",
         63},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.uid);
        Reader reader{"test"};
        reader.Insert(MakeCard(row.kind, B(row.uid)));
        EXPECT_EQ(H(reader.Atr()), row.atr);
        EXPECT_EQ(Answer(reader, "FF CA 00 00 00"), std::string(row.uid) + "9000");
        ASSERT_EQ(Open(reader, 0, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(reader, Read(0)), std::string(row.block0) + "9000");
        EXPECT_EQ(Answer(reader, Read(3)), std::string(kTransportTrailer) + "9000");
        ASSERT_EQ(Open(reader, row.lastTrailer, 'A', kTransportKey), "9000");
        EXPECT_EQ(Answer(reader, Read(row.lastTrailer)), std::string(kTransportTrailer) + "9000");
        // The reader's own answer hides the card until a host switches to the simple protocol.
        reader.SetReaderModeAtr(true);
        EXPECT_EQ(H(reader.Atr()), "3B868111FE8143696E647930");
        EXPECT_EQ(Answer(reader, "FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF"), "9000");
        EXPECT_EQ(H(reader.Atr()), row.atr);
    }
    EXPECT_THROW(MakeCard("mifare2k"), std::invalid_argument);
    EXPECT_THROW(MakeCard("mifare1k", B("0102030405")), std::invalid_argument);
    EXPECT_THROW(MakeCard("desfire", B("11223344")), std::invalid_argument);
}

TEST(FourK, EveryBlockBelongsToTheSectorOfItsTrailer) {
    Reader reader{"test"};
    reader.Insert(MakeCard("mifare4k"));
    for (unsigned block = 0; block < 256; ++block) {
        const unsigned trailer = block < 128 ? block / 4 * 4 + 3 : block / 16 * 16 + 15;
        ASSERT_EQ(Open(reader, block, 'A', kTransportKey), "9000") << block;
        ASSERT_EQ(Answer(reader, Read(trailer)), std::string(kTransportTrailer) + "9000") << block;
        ASSERT_EQ(Sw(Answer(reader, Read(block))), "9000") << block;
        if (trailer + 1 < 256) {
            ASSERT_EQ(Answer(reader, Read(trailer + 1)), "6982") << block;
        }
    }
}

TEST(Authentication, IsLostOnEveryEventThatEndsTheCardSession) {
    const std::pair<const char*, void (*)(OneK&)> rows[] = {
        {"nothing", [](OneK&) {}},
        {"failed authentication", [](OneK& f) { EXPECT_EQ(Open(f.reader, 4, 'A', "000000000000"), "6300"); }},
        {"missing block", [](OneK& f) { EXPECT_EQ(Answer(f.reader, Auth(64, 'A')), "6A82"); }},
        {"block 256", [](OneK& f) { EXPECT_EQ(Answer(f.reader, Auth(256, 'A')), "6A82"); }},
        {"other sector", [](OneK& f) { EXPECT_EQ(Open(f.reader, 8, 'A', kTransportKey), "9000"); }},
        {"refused access", [](OneK& f) { EXPECT_EQ(Answer(f.reader, Read(9)), "6982"); }},
        {"field reset", [](OneK& f) { f.reader.ResetCard(); }},
        {"removal and insertion", [](OneK& f) { f.reader.Insert(f.card); }},
    };
    for (const auto& [event, run] : rows) {
        OneK f;
        ASSERT_EQ(Open(f.reader, 4, 'A', kTransportKey), "9000");
        run(f);
        EXPECT_EQ(Sw(Answer(f.reader, Read(5))), std::string(event) == "nothing" ? "9000" : "6982") << event;
    }
}

TEST(StatusWords, MalformedOrImpossibleCommandsAreRefusedAndChangeNothing) {
    struct Row {
        const char *apdu, *answer;
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
        {"FF 86 00 00 05 01 00 04 60 07", "6984"},  // a slot never loaded
        {"FF 86 00 00 05 02 00 04 60 01", "6A80"},
        {"FF 86 01 00 05 01 00 04 60 01", "6B00"},
        {"FF B0 00 04", "6700"},
        {"FF B0 00 04 08", "6700"},
        {"FF B0 00 04 00 00", "6700"},
        {"FF B0 00 04 10", "000000000000000000000000000000009000"},  // Le 16 is Le 0
        {"FF B0 00 40 00", "6A82"},
        {"FF D6 00 04 0F 111111111111111111111111111111", "6700"},
        {"FF D6 00 04 10 111111111111111111111111111111", "6700"},
        {"FF D6 00 04 10 1111111111111111111111111111111111", "6700"},
        {"FF D6 00 40 10 11111111111111111111111111111111", "6A82"},
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
        EXPECT_EQ(Answer(f.reader, Read(4)), std::string(kZeros) + "9000") << row.apdu;
    }
}

// A DESFire stand-in that keeps what reached it and answers status 00 and the
// frame reversed, so that the reader's unwrapping and rewrapping show byte for byte.
class EchoDesfire final : public Card {
public:
    std::string Kind() const override { return "desfire"; }
    std::vector<std::uint8_t> Atr() const override { return B("3B8180018080"); }
    std::vector<std::uint8_t> Uid() const override { return B("04A1B2C3D4E5F6"); }
    void PowerOn() override {}
    std::optional<std::vector<std::uint8_t>> DesfireCommand(std::span<const std::uint8_t> frame) override {
        frames += H(frame) + " ";
        std::vector<std::uint8_t> answer{0x00};
        answer.insert(answer.end(), frame.rbegin(), frame.rend());
        return answer;
    }
    nlohmann::json Save() const override { return {}; }
    void Load(const nlohmann::json&) override {}
    std::string frames;
};

TEST(DesfireFrames, PassNativeAndIsoWrappedAndMalformedWrappingsStayInTheReader) {
    struct Row {
        const char *apdu, *frames, *answer;
    } rows[] = {
        {"60", "60 ", "0060"},
        {"BD 01 000000 100000", "BD01000000100000 ", "0000001000000001BD"},
        {"90 AF 00 00 00", "AF ", "AF9100"},
        {"90 5A 00 00 03 112233 00", "5A112233 ", "3322115A9100"},
        {"90 5A 00 00 03 112233", "5A112233 ", "3322115A9100"},
        {"90 60 00 00", "", "6700"},
        {"90 60 00 00 00 00", "", "6700"},
        {"90 5A 00 00 03 1122", "", "6700"},
        {"90 5A 00 00 03 112233 01", "", "6700"},
        {"90 5A 01 00 03 112233 00", "", "6B00"},
        {"FF CA 00 00 00", "", "04A1B2C3D4E5F69000"},
        {"FF B0 00 04 00", "", "6A81"},
        {"FF 86 00 00 05 01 00 04 60 01", "", "6984"},
    };
    for (const auto& row : rows) {
        auto card = std::make_shared<EchoDesfire>();
        Reader reader{"test"};
        reader.Insert(card);
        EXPECT_EQ(Answer(reader, row.apdu), row.answer) << row.apdu;
        EXPECT_EQ(card->frames, row.frames) << row.apdu;
    }
}

}  // namespace
