// The trace sink reads ELATECTWN4_TRACE once per process, so this executable
// points it at a file of its own before any test runs.
#include "command/trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "command/encoder_command.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::command {
namespace {

std::string& TracePath() {
    static std::string path;
    return path;
}

class TraceFile : public ::testing::Environment {
public:
    void SetUp() override {
        char name[] = "/tmp/elatectwn4-trace-XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        TracePath() = name;
        ASSERT_EQ(setenv("ELATECTWN4_TRACE", name, 1), 0);
    }
    void TearDown() override { std::remove(TracePath().c_str()); }
};

const auto* const kTraceFile = ::testing::AddGlobalTestEnvironment(new TraceFile);

std::vector<std::string> LinesSince(std::size_t offset) {
    std::ifstream in(TracePath(), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::size_t TraceSize() {
    std::ifstream in(TracePath(), std::ios::binary | std::ios::ate);
    return in ? static_cast<std::size_t>(in.tellg()) : 0;
}

struct Session {
    Session() { channel = Channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1, false, &error}; }
    sceReturnCode Run(std::uint32_t code, const Params& params, bool more = false) {
        return EncoderCommand(channel, code, params, response, sw1sw2, more);
    }
    std::shared_ptr<test::ScriptedPcsc> fake = std::make_shared<test::ScriptedPcsc>();
    CError error;
    Channel channel;
    std::string response, sw1sw2;
};

TEST(Trace, IsOnInThisExecutable) {
    EXPECT_TRUE(TraceEnabled());
}

TEST(Trace, ShowsOrdinaryExchangesInHexAndDecimal) {
    const std::size_t start = TraceSize();
    Session s;
    s.fake->Expect("FF B0 00 04 00").Reply("00 11 FF 90 00");
    ASSERT_EQ(s.Run(cmd::ReadBinary, {4}), sceSuccess);
    EXPECT_EQ(LinesSince(start), (std::vector<std::string>{"Sending ReadBinary: FFB0000400 (255,176,0,4,0)",
                                                           "Received: 0011FF9000 (0,17,255,144,0)"}));
}

TEST(Trace, ShowsAFailedTransmissionWithNothingReceived) {
    const std::size_t start = TraceSize();
    Session s;
    s.fake->Expect("FF CA 00 00 00").Fail(pcsc_code::RemovedCard);
    ASSERT_EQ(s.Run(cmd::GetUID, {}), sceError);
    EXPECT_EQ(LinesSince(start),
              (std::vector<std::string>{"Sending GetUID: FFCA000000 (255,202,0,0,0)", "Received:  ()"}));
}

struct SecretCase {
    std::uint32_t code;
    Params params;
    std::string sent;
    std::string answer;
    bool more;
    std::vector<std::string> lines;
    std::vector<std::string> secrets;  // hex that must not appear anywhere in the log
    friend void PrintTo(const SecretCase& c, std::ostream* os) { *os << c.sent; }
};

class SecretsInTrace : public ::testing::TestWithParam<SecretCase> {};

TEST_P(SecretsInTrace, AreMaskedWhileTheRestStaysReadable) {
    const SecretCase& c = GetParam();
    const std::size_t start = TraceSize();
    Session s;
    s.fake->Expect(c.sent).Reply(c.answer);
    ASSERT_EQ(s.Run(c.code, c.params, c.more), sceSuccess);
    const auto lines = LinesSince(start);
    EXPECT_EQ(lines, c.lines);
    for (const auto& line : lines) {
        for (const auto& secret : c.secrets)
            EXPECT_EQ(line.find(secret), std::string::npos) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(
    KeysTokensAndAnswers, SecretsInTrace,
    ::testing::Values(
        SecretCase{cmd::LoadKey,
                   {0, 1, std::string("A73C5E91D2B4")},
                   "FF 82 00 01 06 A7 3C 5E 91 D2 B4",
                   "90 00",
                   false,
                   {"Sending LoadKey: FF82000106************ (255,130,0,1,6,*,*,*,*,*,*)", "Received: 9000 (144,0)"},
                   {"A73C", "3C5E", "5E91", "91D2", "D2B4", "167,60", "94,145", "210,180"}},
        SecretCase{cmd::DesfireChangeKey,
                   {std::string("01"), std::string("C3D4E5F6A7B8C9DA")},
                   "C4 01 C3 D4 E5 F6 A7 B8 C9 DA",
                   "00",
                   false,
                   {"Sending DesfireChangeKey: C401**************** (196,1,*,*,*,*,*,*,*,*)", "Received: 00 (0)"},
                   {"C3D4", "E5F6", "A7B8", "C9DA", "195,212", "229,246"}},
        SecretCase{cmd::DesfireAuthenticateStart,
                   {0},
                   "0A 00",
                   "AF 5D 8E 3A 9B 1C 7F 2E 4D",
                   false,
                   {"Sending DesfireAuthenticate: 0A00 (10,0)", "Received: AF**************** (175,*,*,*,*,*,*,*,*)"},
                   {"5D8E", "3A9B", "1C7F", "2E4D", "93,142", "28,127"}},
        SecretCase{cmd::DesfireAuthenticateToken,
                   {std::string("1A2B3C4D5E6F7081 92A3B4C5D6E7F809")},
                   "AF 1A 2B 3C 4D 5E 6F 70 81 92 A3 B4 C5 D6 E7 F8 09",
                   "00 6B 5A 49 38 27 16 05 F4",
                   false,
                   {"Sending DesfireAuthenticate: AF******************************** "
                    "(175,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*)",
                    "Received: 00**************** (0,*,*,*,*,*,*,*,*)"},
                   {"1A2B", "5E6F", "92A3", "F809", "6B5A", "2716", "107,90", "26,43"}},
        // A sector trailer holds key A and key B, both ways.
        SecretCase{cmd::WriteBinary,
                   {7, std::string("A1B2C3D4E5F6FF078069B6C5D4E3F2A1")},
                   "FF D6 00 07 10 A1 B2 C3 D4 E5 F6 FF 07 80 69 B6 C5 D4 E3 F2 A1",
                   "90 00",
                   false,
                   {"Sending WriteBinary: FFD6000710******************************** "
                    "(255,214,0,7,16,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*)",
                    "Received: 9000 (144,0)"},
                   {"A1B2", "D4E5", "B6C5", "F2A1", "161,178"}},
        SecretCase{cmd::ReadBinary,
                   {255},
                   "FF B0 00 FF 00",
                   "00 00 00 00 00 00 FF 07 80 69 B6 C5 D4 E3 F2 A1 90 00",
                   false,
                   {"Sending ReadBinary: FFB000FF00 (255,176,0,255,0)",
                    "Received: ********************************9000 (*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,144,0)"},
                   {"B6C5", "E3F2", "182,197"}},
        // Any other block stays readable.
        SecretCase{cmd::WriteBinary,
                   {6, std::string("0102030405060708090A0B0C0D0E0F10")},
                   "FF D6 00 06 10 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10",
                   "90 00",
                   false,
                   {"Sending WriteBinary: FFD60006100102030405060708090A0B0C0D0E0F10 "
                    "(255,214,0,6,16,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16)",
                    "Received: 9000 (144,0)"},
                   {}},
        SecretCase{cmd::ReadBinary,
                   {254},
                   "FF B0 00 FE 00",
                   "0102030405060708090A0B0C0D0E0F10 90 00",
                   false,
                   {"Sending ReadBinary: FFB000FE00 (255,176,0,254,0)",
                    "Received: 0102030405060708090A0B0C0D0E0F109000 "
                    "(1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,144,0)"},
                   {}}));

TEST(Trace, MasksTheAnswersOfEveryFrameOfASecretExchange) {
    const std::size_t start = TraceSize();
    Session s;
    s.fake->Expect("0A 03").Reply("AF 5D 8E");
    s.fake->Expect("AF").Reply("00 3A 9B");
    ASSERT_EQ(s.Run(cmd::DesfireAuthenticateStart, {3}, true), sceSuccess);
    EXPECT_EQ(LinesSince(start),
              (std::vector<std::string>{"Sending DesfireAuthenticate: 0A03 (10,3)", "Received: AF**** (175,*,*)",
                                        "Sending MoreResponse: AF (175)", "Received: 00**** (0,*,*)"}));
    EXPECT_EQ(s.response, std::string("\x5D\x8E\x3A\x9B"));
}

TEST(Trace, MasksAKeyGivenWithAnOddDigitCountFromTheByteItStartsIn) {
    // "FF 82 00 01 02 ABCDE": 15 digits, read as "0FF82000102ABCDE"; the key
    // starts in the sixth byte.
    const std::size_t start = TraceSize();
    Session s;
    s.fake->Expect("0F F8 20 00 10 2A BC DE").Reply("90 00");
    ASSERT_EQ(s.Run(cmd::LoadKey, {0, 1, std::string("ABCDE")}), sceSuccess);
    const auto lines = LinesSince(start);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Sending LoadKey: 0FF8200010****** (15,248,32,0,16,*,*,*)");
}

TEST(Trace, MasksAKeyThatFollowsAnOddDigitCountFromItsFirstWholeByte) {
    // "C4 1 <16 digits>": 19 digits, read as "0C41" and then the key.
    const std::size_t start = TraceSize();
    Session s;
    s.fake->Expect("0C 41 C3 D4 E5 F6 A7 B8 C9 DA").Reply("00");
    ASSERT_EQ(s.Run(cmd::DesfireChangeKey, {std::string("1"), std::string("C3D4E5F6A7B8C9DA")}), sceSuccess);
    const auto lines = LinesSince(start);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Sending DesfireChangeKey: 0C41**************** (12,65,*,*,*,*,*,*,*,*)");
}

}  // namespace
}  // namespace elatectwn4::command
