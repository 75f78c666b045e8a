// The simulated card as vpcd sees it through the bridge, and how its contents
// survive in the state file.
#include "sim/bridge/reader_slot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "sim/bridge/state_file.h"
#include "sim/reader.h"

namespace elatectwn4::sim::bridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes LoadTransportKey{0xFF, 0x82, 0x00, 0x01, 0x06, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const Bytes AuthenticateBlock4KeyA{0xFF, 0x86, 0x00, 0x00, 0x05, 0x01, 0x00, 0x04, 0x60, 0x01};
const Bytes ReadBlock4{0xFF, 0xB0, 0x00, 0x04, 0x00};

Bytes WriteBlock4(const Bytes& data) {
    Bytes apdu = data;
    const Bytes header{0xFF, 0xD6, 0x00, 0x04, 0x10};
    apdu.insert(apdu.begin(), header.begin(), header.end());
    return apdu;
}

Bytes Ok(Bytes data) {
    data.push_back(0x90);
    data.push_back(0x00);
    return data;
}

Bytes RandomBlock() {
    std::random_device random;
    Bytes block(16);
    for (auto& byte : block)
        byte = static_cast<std::uint8_t>(random());
    return block;
}

class ReaderSlotTest : public testing::Test {
protected:
    ino_t StateInode() const {
        struct stat info {};
        return ::stat(statePath_.c_str(), &info) == 0 ? info.st_ino : 0;
    }

    // Reads block 4 from a card restored from the state file, through a
    // reader of its own: what a later run of the bridge would see.
    Bytes Block4OfStoredCard() const {
        const auto state = ReadStateFile(statePath_);
        if (!state) return {};
        auto card = MakeCard("mifare1k");
        card->Load(*state);
        Reader reader("reference");
        reader.Insert(card);
        reader.Transmit(LoadTransportKey);
        reader.Transmit(AuthenticateBlock4KeyA);
        return reader.Transmit(ReadBlock4);
    }

    e2e::TempDir dir_{"vcard-slot"};
    std::filesystem::path statePath_ = dir_.path() / "card.json";
};

TEST_F(ReaderSlotTest, CardIsOutOfTheFieldUntilItEnters) {
    const Bytes uid{0x04, 0x5A, 0x6B, 0x7C};
    ReaderSlot slot(MakeCard("mifare1k", uid), {});
    EXPECT_TRUE(slot.Atr().empty());
    EXPECT_TRUE(slot.Transmit(Bytes{0xFF, 0xCA, 0x00, 0x00, 0x00}).empty());
    slot.Enter();
    EXPECT_EQ(slot.Atr(), MakeCard("mifare1k")->Atr());
    EXPECT_EQ(slot.Transmit(Bytes{0xFF, 0xCA, 0x00, 0x00, 0x00}), Ok(uid));
    slot.Leave();
    EXPECT_TRUE(slot.Atr().empty());
}

TEST_F(ReaderSlotTest, PowerCycleLosesTheAuthenticationButNotTheKeySlot) {
    ReaderSlot slot(MakeCard("mifare1k"), {});
    slot.Enter();
    ASSERT_EQ(slot.Transmit(LoadTransportKey), Ok({}));
    ASSERT_EQ(slot.Transmit(AuthenticateBlock4KeyA), Ok({}));
    ASSERT_EQ(slot.Transmit(ReadBlock4), Ok(Bytes(16, 0x00)));
    for (const auto& [what, cycle] : {std::pair<const char*, void (ReaderSlot::*)()>{"power on", &ReaderSlot::PowerOn},
                                      {"reset", &ReaderSlot::Reset}}) {
        (slot.*cycle)();
        EXPECT_NE(slot.Transmit(ReadBlock4), Ok(Bytes(16, 0x00))) << "read allowed after " << what;
        EXPECT_EQ(slot.Transmit(AuthenticateBlock4KeyA), Ok({})) << "key slot lost by " << what;
    }
}

// The file is created from the card, rewritten by every change and by no
// read, and a later run starts from it, whatever UID it is given.
TEST_F(ReaderSlotTest, TheStateFileFollowsEveryChangeAndStartsTheNextRun) {
    const Bytes storedUid{0x04, 0xA1, 0xA2, 0xA3};
    auto card = MakeCard("mifare1k", storedUid);
    const Bytes data = RandomBlock();
    {
        ReaderSlot slot(card, statePath_);
        EXPECT_EQ(ReadStateFile(statePath_), card->Save());
        slot.Enter();
        slot.Transmit(LoadTransportKey);
        slot.Transmit(AuthenticateBlock4KeyA);
        const ino_t before = StateInode();
        ASSERT_EQ(slot.Transmit(ReadBlock4), Ok(Bytes(16, 0x00)));
        EXPECT_EQ(StateInode(), before) << "a read rewrote the state file";
        ASSERT_EQ(slot.Transmit(WriteBlock4(data)), Ok({}));
        EXPECT_NE(StateInode(), before) << "the write was not stored";
        EXPECT_EQ(Block4OfStoredCard(), Ok(data));
    }
    ReaderSlot slot(MakeCard("mifare1k", {0x01, 0x02, 0x03, 0x04}), statePath_);
    slot.Enter();
    EXPECT_EQ(slot.Transmit(Bytes{0xFF, 0xCA, 0x00, 0x00, 0x00}), Ok(storedUid));
    slot.Transmit(LoadTransportKey);
    slot.Transmit(AuthenticateBlock4KeyA);
    EXPECT_EQ(slot.Transmit(ReadBlock4), Ok(data));
}

TEST_F(ReaderSlotTest, UnusableStateFileStopsTheStart) {
    std::ofstream(statePath_) << "[1, 2, 3]\n";
    EXPECT_THROW(ReaderSlot(MakeCard("mifare1k"), statePath_), std::runtime_error);
    std::ofstream(statePath_, std::ios::trunc) << "{ not json";
    EXPECT_THROW(ReaderSlot(MakeCard("mifare1k"), statePath_), std::runtime_error);
    WriteStateFile(statePath_, MakeCard("mifare4k")->Save());
    EXPECT_THROW(ReaderSlot(MakeCard("mifare1k"), statePath_), std::runtime_error);
}

TEST_F(ReaderSlotTest, FailedSaveIsReportedAndRetriedOnTheNextChange) {
    std::vector<std::string> logged;
    ReaderSlot slot(MakeCard("mifare1k"), statePath_, [&](const std::string& line) { logged.push_back(line); });
    slot.Enter();
    slot.Transmit(LoadTransportKey);
    slot.Transmit(AuthenticateBlock4KeyA);

    // A directory in the file's place makes the save fail.
    std::filesystem::remove(statePath_);
    std::filesystem::create_directory(statePath_);
    const Bytes data = RandomBlock();
    EXPECT_EQ(slot.Transmit(WriteBlock4(data)), Ok({})) << "the card must answer even when it cannot be saved";
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].rfind("card not saved: ", 0), 0u) << logged[0];

    std::filesystem::remove(statePath_);
    EXPECT_TRUE(slot.Persist());
    EXPECT_EQ(Block4OfStoredCard(), Ok(data));
}

}  // namespace
}  // namespace elatectwn4::sim::bridge
