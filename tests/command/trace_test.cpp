// What the trace shows of each exchange, key material masked.
#include "command/trace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "command/encoder_command.h"
#include "support/scripted_pcsc.h"
#include "support/trace_file.h"

namespace elatectwn4::command {
namespace {

const std::array<std::uint8_t, 16> kTrailer{0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0xFF, 0x07,
                                            0x80, 0x69, 0xB6, 0xC5, 0xD4, 0xE3, 0xF2, 0xA1};
const std::string kTrailerHex = "A1 B2 C3 D4 E5 F6 FF 07 80 69 B6 C5 D4 E3 F2 A1";

struct Case {
    const char* what;
    std::uint32_t code;
    Params params;
    CommandOptions options;
    std::vector<std::pair<std::string, std::string>> exchanges;
    std::vector<std::string> lines;
};

const Case kCases[] = {
    {"an ordinary exchange in hex and decimal",
     cmd::ReadBinary,
     {4},
     {},
     {{"FF B0 00 04 00", "00 11 FF 90 00"}},
     {"Sending ReadBinary: FFB0000400 (255,176,0,4,0)", "Received: 0011FF9000 (0,17,255,144,0)"}},
    {"the command layer knows no trailers: only the caller's word hides a block",
     cmd::WriteBinary,
     {7, cipher::ByteView(kTrailer).first(4)},
     {},
     {{"FF D6 00 07 10 A1 B2 C3 D4", "90 00"}},
     {"Sending WriteBinary: FFD6000710A1B2C3D4 (255,214,0,7,16,161,178,195,212)", "Received: 9000 (144,0)"}},
    {"the payload from the placeholder the caller names",
     cmd::WriteBinary,
     {131, cipher::ByteView(kTrailer)},
     {.secretFrom = "[DATA]"},
     {{"FF D6 00 83 10 " + kTrailerHex, "90 00"}},
     {"Sending WriteBinary: FFD6008310******************************** "
      "(255,214,0,131,16,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*)",
      "Received: 9000 (144,0)"}},
    {"an answer the caller marks",
     cmd::ReadBinary,
     {255},
     {.secretAnswer = true},
     {{"FF B0 00 FF 00", kTrailerHex + " 90 00"}},
     {"Sending ReadBinary: FFB000FF00 (255,176,0,255,0)",
      "Received: ********************************9000 (*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,144,0)"}},
    {"a placeholder the template lacks hides the whole command",
     cmd::GetUID,
     {},
     {.secretFrom = "[DATA]"},
     {{"FF CA 00 00 00", "90 00"}},
     {"Sending GetUID: ********** (*,*,*,*,*)", "Received: 9000 (144,0)"}},
    {"LoadKey's key, always",
     cmd::LoadKey,
     {0, 1, std::string("A73C5E91D2B4")},
     {},
     {{"FF 82 00 01 06 A7 3C 5E 91 D2 B4", "90 00"}},
     {"Sending LoadKey: FF82000106************ (255,130,0,1,6,*,*,*,*,*,*)", "Received: 9000 (144,0)"}},
    {"a key after an odd digit count, from the byte it starts in",
     cmd::LoadKey,
     {0, 1, std::string("ABCDE")},
     {},
     {{"0F F8 20 00 10 2A BC DE", "90 00"}},
     {"Sending LoadKey: 0FF8200010****** (15,248,32,0,16,*,*,*)", "Received: 9000 (144,0)"}},
    {"new key data",
     cmd::DesfireChangeKey,
     {std::string("1"), std::string("C3D4E5F6A7B8C9DA")},
     {},
     {{"0C 41 C3 D4 E5 F6 A7 B8 C9 DA", "00"}},
     {"Sending DesfireChangeKey: 0C41**************** (12,65,*,*,*,*,*,*,*,*)", "Received: 00 (0)"}},
    {"the authentication token both ways",
     cmd::DesfireAuthenticateToken,
     {std::string("1A2B3C4D5E6F7081")},
     {},
     {{"AF 1A 2B 3C 4D 5E 6F 70 81", "00 6B 5A"}},
     {"Sending DesfireAuthenticate: AF**************** (175,*,*,*,*,*,*,*,*)", "Received: 00**** (0,*,*)"}},
    {"the challenge in every frame",
     cmd::DesfireAuthenticateStart,
     {3},
     {.moreResponse = true},
     {{"0A 03", "AF 5D 8E"}, {"AF", "00 3A 9B"}},
     {"Sending DesfireAuthenticate: 0A03 (10,3)", "Received: AF**** (175,*,*)", "Sending MoreResponse: AF (175)",
      "Received: 00**** (0,*,*)"}},
    // A raw command's secrets are recognised from its header.
    {"a raw LOAD KEYS",
     cmd::Escape,
     {std::string("FF 82 00 01 06 A7 3C 5E 91 D2 B4")},
     {},
     {{"FF 82 00 01 06 A7 3C 5E 91 D2 B4", "90 00"}},
     {"Sending Escape: FF82000106************ (255,130,0,1,6,*,*,*,*,*,*)", "Received: 9000 (144,0)"}},
    {"a raw write of a 4K trailer",
     cmd::Escape,
     {std::string("FF D6 00 8F 10 " + kTrailerHex)},
     {},
     {{"FF D6 00 8F 10 " + kTrailerHex, "90 00"}},
     {"Sending Escape: FFD6008F10******************************** (255,214,0,143,16,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*)",
      "Received: 9000 (144,0)"}},
    {"a raw write of a data block stays readable",
     cmd::Escape,
     {std::string("FF D6 00 83 02 A1 B2")},
     {},
     {{"FF D6 00 83 02 A1 B2", "90 00"}},
     {"Sending Escape: FFD6008302A1B2 (255,214,0,131,2,161,178)", "Received: 9000 (144,0)"}},
    {"a raw read of a trailer",
     cmd::Escape,
     {std::string("FF B0 00 07 00")},
     {},
     {{"FF B0 00 07 00", "A1 B2 90 00"}},
     {"Sending Escape: FFB0000700 (255,176,0,7,0)", "Received: ****9000 (*,*,144,0)"}},
    {"a raw native ChangeKey after its key number",
     cmd::Escape,
     {std::string("C4 01 A1 B2 C3")},
     {},
     {{"C4 01 A1 B2 C3", "00"}},
     {"Sending Escape: C401****** (196,1,*,*,*)", "Received: 00 (0)"}},
    {"a wrapped ChangeKey",
     cmd::Escape,
     {std::string("90 C4 00 00 04 01 A1 B2 C3 00")},
     {},
     {{"90 C4 00 00 04 01 A1 B2 C3 00", "91 00"}},
     {"Sending Escape: 90C400000401******** (144,196,0,0,4,1,*,*,*,*)", "Received: 9100 (145,0)"}},
    {"a raw authentication's challenge, status first",
     cmd::Escape,
     {std::string("0A 00")},
     {},
     {{"0A 00", "AF 5D 8E"}},
     {"Sending Escape: 0A00 (10,0)", "Received: AF**** (175,*,*)"}},
    {"a wrapped authentication's challenge, status last",
     cmd::Escape,
     {std::string("90 AA 00 00 01 00 00")},
     {},
     {{"90 AA 00 00 01 00 00", "5D 8E 91 AF"}},
     {"Sending Escape: 90AA0000010000 (144,170,0,0,1,0,0)", "Received: ****91AF (*,*,145,175)"}},
    {"a raw token both ways",
     cmd::Escape,
     {std::string("AF 1A 2B")},
     {},
     {{"AF 1A 2B", "00 6B 5A"}},
     {"Sending Escape: AF**** (175,*,*)", "Received: 00**** (0,*,*)"}},
    {"a failed transmission",
     cmd::GetUID,
     {},
     {},
     {{"FF CA 00 00 00", ""}},
     {"Sending GetUID: FFCA000000 (255,202,0,0,0)", "Received:  ()"}},
};

TEST(Trace, TheFileIsItsOwnersAlone) {
    ASSERT_TRUE(TraceEnabled());  // the sink has created the file
    struct stat file {};
    ASSERT_EQ(::stat(test::TraceFile().c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u);
}

TEST(Trace, ShowsEachExchangeWithKeyMaterialMasked) {
    ASSERT_TRUE(TraceEnabled());
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.what);
        test::ClearTrace();
        auto fake = std::make_shared<test::ScriptedPcsc>();
        for (const auto& [sent, answer] : c.exchanges) {
            if (answer.empty()) {
                fake->Expect(sent).Fail(pcsc_code::RemovedCard);
            } else {
                fake->Expect(sent).Reply(answer);
            }
        }
        Channel channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1};
        EncoderCommand(channel, c.code, c.params, c.options);
        EXPECT_EQ(test::TraceLines(), c.lines);
    }
}

}  // namespace
}  // namespace elatectwn4::command
