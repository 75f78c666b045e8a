// The vpcd bridge's parts that need no network: the command line, and the card
// kept in its state file. Framing and what a message makes the card do are
// the vpcd fuzz target's.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "sim/bridge/options.h"
#include "sim/bridge/reader_slot.h"
#include "sim/bridge/state_file.h"
#include "sim/hex_util.h"

namespace elatectwn4::sim::bridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Hex(std::string_view text) {
    return FromHex(text).value();
}

TEST(VcardOptions, ValidLinesAreUnderstoodAndMalformedOnesRefusedWithTheirReason) {
    const auto parsed = ParseVcardOptions({"--port", "35964", "--card=mifare1k", "--state", "/tmp/card.json", "--uid",
                                           "04:a1:B2 c3", "--control", "/tmp/ctl", "--removed", "--delay=3"});
    ASSERT_TRUE(std::holds_alternative<VcardOptions>(parsed)) << std::get<std::string>(parsed);
    const auto& o = std::get<VcardOptions>(parsed);
    EXPECT_EQ(std::tie(o.port, o.cardKind, o.statePath, o.controlPath, o.startRemoved, o.listReaders),
              std::make_tuple(35964, "mifare1k", "/tmp/card.json", "/tmp/ctl", true, false));
    EXPECT_EQ(o.uid, (Bytes{0x04, 0xA1, 0xB2, 0xC3}));
    EXPECT_EQ(o.answerDelay, std::chrono::milliseconds(3));
    const auto listing = ParseVcardOptions({"--list-readers"});
    EXPECT_TRUE(std::holds_alternative<VcardOptions>(listing) && std::get<VcardOptions>(listing).listReaders);

    const std::pair<std::vector<std::string>, std::string> refused[] = {
        {{"--card", "desfire"}, "--port is required"},
        {{"--port", "35963"}, "--card is required"},
        {{"--port", "65536", "--card", "desfire"}, "--port needs a number"},
        {{"--port", "359x", "--card", "desfire"}, "--port needs a number"},
        {{"--port", "1", "--card", "ultralight"}, "--card must be"},
        {{"--port", "1", "--card", "desfire", "--uid", "04AG"}, "--uid needs"},
        {{"--port", "1", "--card", "desfire", "--state", ""}, "--state needs"},
        {{"--port", "1", "--card"}, "--card needs a value"},
        {{"--port", "1", "--card", "desfire", "--delay", "60001"}, "--delay needs"},
        {{"--port", "1", "--card", "desfire", "--removed=yes"}, "--removed takes no value"},
        {{"--port", "1", "--card", "desfire", "--verbose"}, "unknown argument \"--verbose\""},
    };
    for (const auto& [arguments, reason] : refused) {
        const auto result = ParseVcardOptions(arguments);
        ASSERT_TRUE(std::holds_alternative<std::string>(result)) << testing::PrintToString(arguments);
        EXPECT_NE(std::get<std::string>(result).find(reason), std::string::npos) << std::get<std::string>(result);
    }
}

const Bytes GetUid = Hex("FFCA000000");
const Bytes LoadTransportKey = Hex("FF82000106FFFFFFFFFFFF");
const Bytes AuthenticateBlock4 = Hex("FF860000050100046001");
const Bytes ReadBlock4 = Hex("FFB0000400");
const Bytes WriteBlock4 = Hex("FFD6000410");
const Bytes Ok = Hex("9000");
const Bytes Block = Hex("5A6B7C8D0123456789ABCDEFA5C33C5A");

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class ReaderSlotTest : public testing::Test {
protected:
    ino_t StateInode() const {
        struct stat info {};
        return ::stat(statePath_.c_str(), &info) == 0 ? info.st_ino : 0;
    }
    static Bytes ReadBlock(CardSlot& slot) {
        slot.Transmit(LoadTransportKey);
        slot.Transmit(AuthenticateBlock4);
        return slot.Transmit(ReadBlock4);
    }

    void SetUp() override { std::filesystem::create_directories(dir_); }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    const std::filesystem::path dir_ =
        std::filesystem::path(testing::TempDir()) / ("vcard-slot-" + std::to_string(::getpid()));
    const std::filesystem::path statePath_ = dir_ / "card.json";
};

// Out of the field until it enters; a power cycle ends the authentication;
// the file is written by every change and no read, and the next run starts
// from it whatever UID it is given.
TEST_F(ReaderSlotTest, TheCardLivesInTheFieldAndInItsStateFile) {
    const Bytes uid{0x04, 0xA1, 0xA2, 0xA3};
    {
        ReaderSlot slot(MakeCard("mifare1k", uid), statePath_);
        EXPECT_EQ(ReadStateFile(statePath_), MakeCard("mifare1k", uid)->Save());
        EXPECT_EQ(slot.Atr(), Bytes{});
        EXPECT_EQ(slot.Transmit(GetUid), Bytes{});
        slot.Enter();
        EXPECT_EQ(slot.Atr(), MakeCard("mifare1k")->Atr());
        const ino_t before = StateInode();
        ASSERT_EQ(ReadBlock(slot), Bytes(16, 0x00) + Ok);
        EXPECT_EQ(StateInode(), before) << "a read rewrote the state file";
        for (auto cycle : {&ReaderSlot::PowerOn, &ReaderSlot::Reset}) {
            (slot.*cycle)();
            EXPECT_NE(slot.Transmit(ReadBlock4), Bytes(16, 0x00) + Ok) << "read allowed after a power cycle";
            ASSERT_EQ(slot.Transmit(AuthenticateBlock4), Ok) << "the key slot was lost";
        }
        ASSERT_EQ(slot.Transmit(WriteBlock4 + Block), Ok);
        EXPECT_NE(StateInode(), before) << "the write was not stored";
    }
    ReaderSlot slot(MakeCard("mifare1k", {0x01, 0x02, 0x03, 0x04}), statePath_);
    slot.Enter();
    EXPECT_EQ(slot.Transmit(GetUid), uid + Ok);
    EXPECT_EQ(ReadBlock(slot), Block + Ok);
}

// A file that is not a card of this kind is left alone: the bridge refuses to start.
TEST_F(ReaderSlotTest, AStateFileThatCannotBeUsedIsRefused) {
    for (const char* content : {"[1, 2, 3]\n", "{ not json"}) {
        std::ofstream(statePath_, std::ios::trunc) << content;
        EXPECT_THROW(ReaderSlot(MakeCard("mifare1k"), statePath_), std::runtime_error) << content;
    }
    WriteStateFile(statePath_, MakeCard("mifare4k")->Save());
    EXPECT_THROW(ReaderSlot(MakeCard("mifare1k"), statePath_), std::runtime_error) << "another kind of card";
}

}  // namespace
}  // namespace elatectwn4::sim::bridge
