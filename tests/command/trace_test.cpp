// What the trace shows of each exchange, key material masked.
#include "command/trace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "command/encoder_command.h"
#include "support/scripted_pcsc.h"
#include "support/trace_file.h"

namespace elatectwn4::command {
namespace {

const std::array<std::uint8_t, 16> kTrailer{0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0xFF, 0x07,
                                            0x80, 0x69, 0xB6, 0xC5, 0xD4, 0xE3, 0xF2, 0xA1};
const std::string kTrailerHex = "A1 B2 C3 D4 E5 F6 FF 07 80 69 B6 C5 D4 E3 F2 A1";
using S = std::string;

struct Case {
    std::uint32_t code;
    Params params;
    CommandOptions options;
    std::string script;  // "command > answer; ...", no answer: the transmission fails
    std::string trace;   // the lines joined by " | "; without a decimal list, only the hex part is compared
};

Case C(std::uint32_t code, Params params, CommandOptions options, std::string script, std::string trace) {
    return {code, std::move(params), options, std::move(script), std::move(trace)};
}

const Case kCases[] = {
    C(cmd::ReadBinary, {4}, {}, "FF B0 00 04 00 > 00 11 FF 90 00",
      "Sending ReadBinary: FFB0000400 (255,176,0,4,0) | Received: 0011FF9000 (0,17,255,144,0)"),
    // The command layer knows no trailers: only the caller's word hides a block.
    C(cmd::WriteBinary, {7, cipher::ByteView(kTrailer).first(4)}, {}, "FF D6 00 07 10 A1 B2 C3 D4 > 90 00",
      "Sending WriteBinary: FFD6000710A1B2C3D4 | Received: 9000"),
    C(cmd::WriteBinary, {131, cipher::ByteView(kTrailer)}, {.secretFrom = "[DATA]"},
      "FF D6 00 83 10 " + kTrailerHex + " > 90 00",
      "Sending WriteBinary: FFD6008310******************************** "
      "(255,214,0,131,16,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*) | Received: 9000 (144,0)"),
    C(cmd::ReadBinary, {255}, {.secretAnswer = true}, "FF B0 00 FF 00 > " + kTrailerHex + " 90 00",
      "Sending ReadBinary: FFB000FF00 (255,176,0,255,0) | Received: ********************************9000 "
      "(*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,*,144,0)"),
    // A placeholder the template lacks hides the whole command.
    C(cmd::GetUID, {}, {.secretFrom = "[DATA]"}, "FF CA 00 00 00 > 90 00",
      "Sending GetUID: ********** | Received: 9000"),
    // LoadKey's key, always; after an odd digit count, from the byte it starts in.
    C(cmd::LoadKey, {0, 1, S("A73C5E91D2B4")}, {}, "FF 82 00 01 06 A7 3C 5E 91 D2 B4 > 90 00",
      "Sending LoadKey: FF82000106************ | Received: 9000"),
    C(cmd::LoadKey, {0, 1, S("ABCDE")}, {}, "0F F8 20 00 10 2A BC DE > 90 00",
      "Sending LoadKey: 0FF8200010****** | Received: 9000"),
    C(cmd::DesfireChangeKey, {S("1"), S("C3D4E5F6A7B8C9DA")}, {}, "0C 41 C3 D4 E5 F6 A7 B8 C9 DA > 00",
      "Sending DesfireChangeKey: 0C41**************** | Received: 00"),
    // The authentication token both ways, the challenge in every frame.
    C(cmd::DesfireAuthenticateToken, {S("1A2B3C4D5E6F7081")}, {}, "AF 1A 2B 3C 4D 5E 6F 70 81 > 00 6B 5A",
      "Sending DesfireAuthenticate: AF**************** | Received: 00****"),
    C(cmd::DesfireAuthenticateStart, {3}, {.moreResponse = true}, "0A 03 > AF 5D 8E; AF > 00 3A 9B",
      "Sending DesfireAuthenticate: 0A03 | Received: AF**** | Sending MoreResponse: AF | Received: 00****"),
    // A raw command's secrets are recognised from its header.
    C(cmd::Escape, {S("FF 82 00 01 06 A7 3C 5E 91 D2 B4")}, {}, "FF 82 00 01 06 A7 3C 5E 91 D2 B4 > 90 00",
      "Sending Escape: FF82000106************ | Received: 9000"),
    C(cmd::Escape, {"FF D6 00 8F 10 " + kTrailerHex}, {}, "FF D6 00 8F 10 " + kTrailerHex + " > 90 00",
      "Sending Escape: FFD6008F10******************************** | Received: 9000"),
    C(cmd::Escape, {S("FF D6 00 83 02 A1 B2")}, {}, "FF D6 00 83 02 A1 B2 > 90 00",
      "Sending Escape: FFD6008302A1B2 | Received: 9000"),
    C(cmd::Escape, {S("FF B0 00 07 00")}, {}, "FF B0 00 07 00 > A1 B2 90 00",
      "Sending Escape: FFB0000700 | Received: ****9000"),
    C(cmd::Escape, {S("C4 01 A1 B2 C3")}, {}, "C4 01 A1 B2 C3 > 00", "Sending Escape: C401****** | Received: 00"),
    C(cmd::Escape, {S("90 C4 00 00 04 01 A1 B2 C3 00")}, {}, "90 C4 00 00 04 01 A1 B2 C3 00 > 91 00",
      "Sending Escape: 90C400000401******** | Received: 9100"),
    C(cmd::Escape, {S("0A 00")}, {}, "0A 00 > AF 5D 8E", "Sending Escape: 0A00 | Received: AF****"),
    C(cmd::Escape, {S("90 AA 00 00 01 00 00")}, {}, "90 AA 00 00 01 00 00 > 5D 8E 91 AF",
      "Sending Escape: 90AA0000010000 | Received: ****91AF"),
    C(cmd::Escape, {S("AF 1A 2B")}, {}, "AF 1A 2B > 00 6B 5A", "Sending Escape: AF**** | Received: 00****"),
    C(cmd::GetUID, {}, {}, "FF CA 00 00 00", "Sending GetUID: FFCA000000 (255,202,0,0,0) | Received:  ()"),
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
        SCOPED_TRACE(c.script);
        test::ClearTrace();
        auto fake = std::make_shared<test::ScriptedPcsc>();
        for (std::size_t at = 0; at < c.script.size();) {
            const std::size_t end = std::min(c.script.find("; ", at), c.script.size());
            const std::string exchange = c.script.substr(at, end - at);
            const std::size_t arrow = exchange.find(" > ");
            if (arrow == std::string::npos) {
                fake->Expect(exchange).Fail(pcsc_code::RemovedCard);
            } else {
                fake->Expect(exchange.substr(0, arrow)).Reply(exchange.substr(arrow + 3));
            }
            at = end + 2;
        }
        Channel channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1};
        EncoderCommand(channel, c.code, c.params, c.options);
        const bool decimals = c.trace.find(" (") != std::string::npos;
        std::string shown;
        for (const std::string& line : test::TraceLines())
            shown += (shown.empty() ? "" : " | ") + (decimals ? line : line.substr(0, line.rfind(" (")));
        EXPECT_EQ(shown, c.trace);
    }
}

}  // namespace
}  // namespace elatectwn4::command
