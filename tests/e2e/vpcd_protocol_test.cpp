// Framing, message dispatch, command line and state file of the vpcd bridge.
#include "sim/bridge/vpcd_protocol.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "sim/bridge/options.h"
#include "sim/bridge/state_file.h"

namespace elatectwn4::sim::bridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Sequence(std::size_t size, std::uint8_t first = 0) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

TEST(VpcdFrame, LengthPrefixIsTwoBytesBigEndian) {
    struct Row {
        std::size_t size;
        std::uint8_t high, low;
    };
    for (const Row row : {Row{0, 0x00, 0x00}, Row{5, 0x00, 0x05}, Row{258, 0x01, 0x02}, Row{0xFFFF, 0xFF, 0xFF}}) {
        const Bytes payload = Sequence(row.size, 0x40);
        const Bytes frame = EncodeFrame(payload);
        ASSERT_EQ(frame.size(), row.size + 2) << "payload of " << row.size;
        EXPECT_EQ(frame[0], row.high) << "payload of " << row.size;
        EXPECT_EQ(frame[1], row.low) << "payload of " << row.size;
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), frame.begin() + 2)) << "payload of " << row.size;
    }
    EXPECT_THROW(EncodeFrame(Bytes(0x10000)), std::length_error) << "beyond what the prefix can say";
}

TEST(VpcdFrame, DecoderReassemblesFramesHoweverTheStreamIsCut) {
    const std::vector<Bytes> payloads{{0x04}, {}, Sequence(300, 7), {0xFF, 0xCA, 0x00, 0x00, 0x00}};
    Bytes stream;
    for (const auto& payload : payloads) {
        const auto frame = EncodeFrame(payload);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{2}, std::size_t{3}, std::size_t{7}, stream.size()}) {
        FrameDecoder decoder;
        std::vector<Bytes> decoded;
        for (std::size_t at = 0; at < stream.size(); at += chunk) {
            const auto end = std::min(stream.size(), at + chunk);
            decoder.Feed({stream.data() + at, end - at});
            while (auto payload = decoder.Next())
                decoded.push_back(*payload);
        }
        EXPECT_EQ(decoded, payloads) << "chunks of " << chunk << " bytes";
        EXPECT_EQ(decoder.Pending(), 0u) << "chunks of " << chunk << " bytes";
    }
}

// Records what vpcd's messages make the card do.
class RecordingSlot : public CardSlot {
public:
    std::vector<std::string> calls;
    Bytes lastApdu;

    Bytes Atr() override {
        calls.push_back("atr");
        return {0x3B, 0x81, 0x80, 0x01, 0x80, 0x80};
    }
    void PowerOff() override { calls.push_back("off"); }
    void PowerOn() override { calls.push_back("on"); }
    void Reset() override { calls.push_back("reset"); }
    Bytes Transmit(std::span<const std::uint8_t> apdu) override {
        calls.push_back("transmit");
        lastApdu.assign(apdu.begin(), apdu.end());
        return {0x91, 0x00, static_cast<std::uint8_t>(apdu.size())};
    }
};

TEST(VpcdMessage, EachMessageReachesTheRightPartOfTheCard) {
    struct Row {
        const char* what;
        Bytes message;
        std::string call;
        std::optional<Bytes> reply;
    };
    const std::vector<Row> rows{
        {"power off", {0x00}, "off", std::nullopt},
        {"power on", {0x01}, "on", std::nullopt},
        {"reset", {0x02}, "reset", std::nullopt},
        {"get ATR", {0x04}, "atr", Bytes{0x3B, 0x81, 0x80, 0x01, 0x80, 0x80}},
        // Single-byte DESFire native commands are not power messages.
        {"DESFire GetVersion", {0x60}, "transmit", Bytes{0x91, 0x00, 0x01}},
        {"DESFire continuation", {0xAF}, "transmit", Bytes{0x91, 0x00, 0x01}},
        {"unassigned one-byte code 03", {0x03}, "transmit", Bytes{0x91, 0x00, 0x01}},
        {"two bytes starting like a power message", {0x00, 0x01}, "transmit", Bytes{0x91, 0x00, 0x02}},
        {"GET DATA", {0xFF, 0xCA, 0x00, 0x00, 0x00}, "transmit", Bytes{0x91, 0x00, 0x05}},
    };
    for (const auto& row : rows) {
        RecordingSlot slot;
        const auto reply = AnswerVpcd(slot, row.message);
        EXPECT_EQ(slot.calls, std::vector<std::string>{row.call}) << row.what;
        EXPECT_EQ(reply, row.reply) << row.what;
        if (row.call == "transmit") {
            EXPECT_EQ(slot.lastApdu, row.message) << row.what;
        }
    }
}

TEST(VcardOptions, ValidCommandLinesAreUnderstood) {
    const auto parsed =
        ParseVcardOptions({"--port", "35964", "--card=mifare1k", "--state", "/tmp/card.json", "--uid", "04:a1:B2 c3",
                           "--control", "/tmp/ctl", "--removed", "--host=localhost", "--delay=3"});
    ASSERT_TRUE(std::holds_alternative<VcardOptions>(parsed)) << std::get<std::string>(parsed);
    const auto& options = std::get<VcardOptions>(parsed);
    EXPECT_EQ(options.port, 35964);
    EXPECT_EQ(options.cardKind, "mifare1k");
    EXPECT_EQ(options.statePath, "/tmp/card.json");
    EXPECT_EQ(options.uid, (Bytes{0x04, 0xA1, 0xB2, 0xC3}));
    EXPECT_EQ(options.controlPath, "/tmp/ctl");
    EXPECT_TRUE(options.startRemoved);
    EXPECT_EQ(options.host, "localhost");
    EXPECT_EQ(options.answerDelay, std::chrono::milliseconds(3));
    EXPECT_FALSE(options.listReaders);

    const auto listing = ParseVcardOptions({"--list-readers"});
    ASSERT_TRUE(std::holds_alternative<VcardOptions>(listing));
    EXPECT_TRUE(std::get<VcardOptions>(listing).listReaders);
}

TEST(VcardOptions, EveryMalformedCommandLineIsRefusedWithItsReason) {
    struct Row {
        std::vector<std::string> arguments;
        std::string reason;
    };
    const std::vector<Row> rows{
        {{"--card", "desfire"}, "--port is required"},
        {{"--port", "35963"}, "--card is required"},
        {{"--port", "0", "--card", "desfire"}, "--port needs a number"},
        {{"--port", "65536", "--card", "desfire"}, "--port needs a number"},
        {{"--port", "359x", "--card", "desfire"}, "--port needs a number"},
        {{"--port=", "--card", "desfire"}, "--port needs a number"},
        {{"--port", "35963", "--card", "ultralight"}, "--card must be"},
        {{"--port", "35963", "--card", "desfire", "--uid", "04A"}, "--uid needs"},
        {{"--port", "35963", "--card", "desfire", "--uid", "04AG"}, "--uid needs"},
        {{"--port", "35963", "--card", "desfire", "--uid", ""}, "--uid needs"},
        {{"--port", "35963", "--card"}, "--card needs a value"},
        {{"--port", "35963", "--card", "desfire", "--state", ""}, "--state needs"},
        {{"--port", "35963", "--card", "desfire", "--delay", "-1"}, "--delay needs"},
        {{"--port", "35963", "--card", "desfire", "--delay", "60001"}, "--delay needs"},
        {{"--port", "35963", "--card", "desfire", "--removed=yes"}, "--removed takes no value"},
        {{"--port", "35963", "--card", "desfire", "--verbose"}, "unknown argument \"--verbose\""},
    };
    for (const auto& row : rows) {
        const auto parsed = ParseVcardOptions(row.arguments);
        ASSERT_TRUE(std::holds_alternative<std::string>(parsed)) << testing::PrintToString(row.arguments);
        EXPECT_NE(std::get<std::string>(parsed).find(row.reason), std::string::npos)
            << testing::PrintToString(row.arguments) << " gave: " << std::get<std::string>(parsed);
    }
}

class StateFile : public testing::Test {
protected:
    std::size_t FilesInDir() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(dir_), std::filesystem::directory_iterator()));
    }

    e2e::TempDir temp_{"vcard-state"};
    const std::filesystem::path& dir_ = temp_.path();
};

TEST_F(StateFile, AWrittenDocumentReplacesTheOldOneWhole) {
    const auto path = dir_ / "card.json";
    EXPECT_EQ(ReadStateFile(path), std::nullopt) << "no file, no state";
    const nlohmann::json first = {{"kind", "mifare1k"}, {"blocks", {"00112233", "FFFFFFFF"}}};
    const nlohmann::json second = {{"kind", "mifare1k"}, {"blocks", {"A0A1A2A3"}}};
    WriteStateFile(path, first);
    EXPECT_EQ(ReadStateFile(path), first);
    WriteStateFile(path, second);
    EXPECT_EQ(ReadStateFile(path), second);
    EXPECT_EQ(FilesInDir(), 1u) << "a temporary file was left behind";
}

TEST_F(StateFile, AFailureLeavesWhatWasThere) {
    std::ofstream(dir_ / "broken.json") << "{\"blocks\": [";
    EXPECT_THROW(ReadStateFile(dir_ / "broken.json"), std::runtime_error);
    EXPECT_THROW(WriteStateFile(dir_ / "no-such-dir" / "card.json", nlohmann::json::object()), std::runtime_error);
    // A directory in the target's place makes the final rename fail after the
    // temporary file was written.
    const auto path = dir_ / "card.json";
    std::filesystem::create_directory(path);
    EXPECT_THROW(WriteStateFile(path, nlohmann::json{{"kind", "desfire"}}), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_EQ(FilesInDir(), 2u) << "a temporary file was not removed";
}

}  // namespace
}  // namespace elatectwn4::sim::bridge
