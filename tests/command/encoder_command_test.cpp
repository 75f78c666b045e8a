#include "command/encoder_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/scripted_pcsc.h"

namespace elatectwn4::command {
namespace {

using test::ScriptedPcsc;

// The whole outcome on one line: result, command, data, status, and the
// PC/SC code or reason where there is one.
std::string Show(const Outcome& o) {
    static const char* const kResults[] = {"Success",       "CardRefused", "ReaderFailed", "AnswerRefused",
                                           "EncoderClosed", "NoCard",      "Fault"};
    std::string text = std::string(kResults[static_cast<int>(o.result)]) + " " + o.command + " [" +
                       test::Hex(o.data.view()) + "] " + o.StatusText();
    if (o.pcscCode != 0) {
        char code[16];
        std::snprintf(code, sizeof code, " pcsc %08X", static_cast<unsigned>(o.pcscCode));
        text += code;
    }
    if (!o.reason.empty()) text += " " + o.reason;
    return text;
}

struct Session {
    std::shared_ptr<ScriptedPcsc> fake = std::make_shared<ScriptedPcsc>();
    Channel channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1};

    // "command > answer; ...": an answer of "!" and a code makes the
    // transmission fail with that PC/SC code. Returns the commands.
    std::vector<std::string> Script(const std::string& script) {
        std::vector<std::string> sent;
        for (std::size_t at = 0; at < script.size();) {
            const std::size_t end = std::min(script.find("; ", at), script.size());
            const std::string exchange = script.substr(at, end - at);
            const std::size_t arrow = exchange.find(" > ");
            sent.push_back(exchange.substr(0, arrow));
            const std::string answer = exchange.substr(arrow + 3);
            if (answer.starts_with("!")) {
                fake->Expect(sent.back()).Fail(static_cast<std::uint32_t>(std::stoul(answer.substr(1), nullptr, 16)));
            } else {
                fake->Expect(sent.back()).Reply(answer);
            }
            at = end + 2;
        }
        return sent;
    }
};

const std::array<std::uint8_t, 4> kBytes{0xC3, 0xD4, 0xE5, 0xF6};
const std::string kViewedKey = "A0A1A2A3A4A5";

struct Case {
    std::uint32_t code;
    Params params;
    std::string script;
    std::string outcome;
    bool more = false;
};

Case C(std::uint32_t code, Params params, std::string script, std::string outcome, bool more = false) {
    return {code, std::move(params), std::move(script), std::move(outcome), more};
}

const std::string kInvalid = " [] FFFF pcsc 80100004";
using S = std::string;

const Case kCases[] = {
    // Placeholder formats.
    C(cmd::ReadBinary, {4}, "FF B0 00 04 00 > 00 11 90 00", "Success ReadBinary [00 11] 9000"),
    C(cmd::ReadBinary, {0x12345}, "FF B0 23 45 00 > 90 00", "Success ReadBinary [] 9000"),
    C(cmd::ReadBinary, {S(" 12 ")}, "FF B0 00 0C 00 > 90 00", "Success ReadBinary [] 9000"),
    C(cmd::ReadBinary, {S("&H3F")}, "FF B0 00 3F 00 > 90 00", "Success ReadBinary [] 9000"),
    // Key type computed, slot and length cut; an unreadable key type goes unnoticed.
    C(cmd::LoadKey, {2, 0x123, S("0011223344556677")}, "FF 82 00 23 08 00 11 22 33 44 55 66 77 > 90 00",
      "Success LoadKey [] 9000"),
    C(cmd::LoadKey, {S("key B"), 1, std::string_view(kViewedKey)}, "FF 82 00 01 06 A0 A1 A2 A3 A4 A5 > 90 00",
      "Success LoadKey [] 9000"),
    C(cmd::GeneralAuthenticate, {S("255"), S("2"), S("&h1f")}, "FF 86 00 00 05 01 00 FF 61 1F > 90 00",
      "Success GeneralAuthenticate [] 9000"),
    C(cmd::WriteBinary, {5, cipher::ByteView(kBytes)}, "FF D6 00 05 10 C3 D4 E5 F6 > 90 00",
      "Success WriteBinary [] 9000"),
    // Padded hex, not cut; a number where text goes is decimal; [LENGTH] computed, not placed.
    C(cmd::DesfireCreateApplication, {S("000001"), 0xEF, S("14")}, "CA 00 00 01 EF 0E > 00",
      "Success DesfireCreateApplication [] 00"),
    C(cmd::DesfireGetFileSettings, {10}, "F5 10 > 00", "Success DesfireGetFileSettings [] 00"),
    C(cmd::DesfireWriteData, {S(""), S("05"), S("0100000005000011")}, "3D 01 00 00 00 05 00 00 11 > 00",
      "Success DesfireWriteData [] 00"),
    // A continuation named by the caller; placeholders in values filled in turn, any case.
    C(cmd::DesfireContinue, {S("DesfireWriteData"), 3, S("AABBCC")}, "AF AA BB CC > 9D",
      "CardRefused DesfireWriteData [] 9D"),
    C(cmd::DesfireChangeFileSettingsPlain, {S("[comm_set][Comm_Set]"), S("03"), S("1234")}, "5F 03 03 03 12 34 > 00",
      "Success DesfireChangeFileSettings [] 00"),
    // Parameters that make no command: nothing is sent.
    C(cmd::ReadBinary, {}, "", "ReaderFailed ReadBinary" + kInvalid),
    C(cmd::ReadBinary, {S("4.5")}, "", "ReaderFailed ReadBinary" + kInvalid),
    C(cmd::ReadBinary, {cipher::ByteView(kBytes)}, "", "ReaderFailed ReadBinary" + kInvalid),
    C(cmd::LoadKey, {2, 1}, "", "ReaderFailed LoadKey" + kInvalid),
    C(cmd::ReaderAuthenticate, {S("00:11:22")}, "", "ReaderFailed ReaderAuthenticate" + kInvalid),  // empty template
    C(0x40A, {S("00")}, "", "ReaderFailed " + kInvalid),
    C(cmd::Escape, {S("   ")}, "", "ReaderFailed Escape" + kInvalid),
    // ISO answers: the last two bytes are the status.
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 04 A1 B2 C3 90 00", "Success GetUID [04 A1 B2 C3] 9000"),
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 91 00", "Success GetUID [] 9100"),
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 01 02 91 AF", "Success GetUID [01 02] 91AF"),
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 11 22 63 00", "CardRefused GetUID [] 6300"),
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 90 01", "CardRefused GetUID [] 9001"),
    // Without a status word there is no answer to judge.
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 90", "AnswerRefused GetUID [] FFFF No status word in the answer: received 90"),
    C(cmd::DesfireGetVersion, {}, "60 > ",
      "AnswerRefused DesfireGetVersion [] FFFF No status word in the answer: nothing received"),
    // Native answers: the first byte is the status.
    C(cmd::DesfireGetVersion, {}, "60 > 00 04 01 01", "Success DesfireGetVersion [04 01 01] 00"),
    C(cmd::DesfireGetVersion, {}, "60 > AF 04 01", "Success DesfireGetVersion [04 01] AF"),
    C(cmd::DesfireGetVersion, {}, "60 > AE", "CardRefused DesfireGetVersion [] AE"),
    C(cmd::DesfireGetVersion, {}, "60 > 90 00", "CardRefused DesfireGetVersion [] 90"),
    // The raw channel: not judged, known by its name, odd digits, non-hex pairs read 0.
    C(cmd::Escape, {S("FF CA 00 00 00")}, "FF CA 00 00 00 > 6A 81", "Success Escape [6A 81] "),
    C(cmd::DesfireContinue, {S("Escape"), 1, S("01")}, "AF 01 > 6A 81", "Success Escape [6A 81] "),
    C(cmd::Escape, {S("F CA")}, "0F CA > 90 00", "Success Escape [90 00] "),
    C(cmd::Escape, {S("ZZ01")}, "00 01 > 90 00", "Success Escape [90 00] "),
    // Continuation frames; a refused frame drops everything and names itself; a
    // failed transmission keeps the last status.
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 01 02 91 AF; 90 AF 00 00 00 > 03 91 AF; 90 AF 00 00 00 > 04 90 00",
      "Success MoreResponse [01 02 03 04] 9000", true),
    C(cmd::DesfireGetVersion, {}, "60 > AF 04 01; AF > AF 04 02; AF > 00 A1",
      "Success MoreResponse [04 01 04 02 A1] 00", true),
    C(cmd::DesfireReadData, {S("01"), S("000000"), S("000000")}, "BD 01 00 00 00 00 00 00 > AF 11 22; AF > 7E",
      "CardRefused MoreResponse [] 7E", true),
    C(cmd::GetUID, {}, "FF CA 00 00 00 > 01 91 AF; 90 AF 00 00 00 > !80100069",
      "ReaderFailed MoreResponse [] 91AF pcsc 80100069", true),
    C(cmd::ReadBinary, {1}, "FF B0 00 01 00 > !80100016", "ReaderFailed ReadBinary [] FFFF pcsc 80100016"),
};

TEST(EncoderCommand, SendsTheExactBytesAndTellsWhatCameOfIt) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.outcome);
        Session s;
        const std::vector<std::string> sent = s.Script(c.script);
        EXPECT_EQ(Show(EncoderCommand(s.channel, c.code, c.params, {.moreResponse = c.more})), c.outcome);
        EXPECT_EQ(s.fake->Transmitted(), sent);
    }
}

TEST(EncoderCommand, AClosedEncoderOrMissingCardIsToldBeforeAnythingElse) {
    struct Row {
        PcscHandle context, card;
        Result result;
    };
    for (const Row& row :
         {Row{0, 0x2001, Result::EncoderClosed}, Row{0, 0, Result::EncoderClosed}, Row{0x1001, 0, Result::NoCard}}) {
        Session s;
        s.channel.context = row.context;
        s.channel.card = row.card;
        const Outcome o = EncoderCommand(s.channel, 0x999);  // even an unknown code
        EXPECT_EQ(o.result, row.result);
        EXPECT_EQ(o.StatusText(), "FFFF");
        EXPECT_TRUE(s.fake->Calls().empty());
    }
}

// Endless frames stop at the frame limit, and gathering once the data passes
// its limit (full frames of 4095 bytes: 16 stay below 64 KiB, the 17th passes
// it); the last frame allowed may end the answer.
TEST(EncoderCommand, GatheringStopsAtTheFrameAndDataLimits) {
    constexpr std::size_t kData = pcsc_const::MaxAnswer - 1;
    const std::string full = "AF" + std::string(2 * kData, 'A');
    struct Row {
        std::string frame;
        std::size_t frames;
        std::string reason;
    };
    for (const Row& row : {Row{"AF 01", MaxContinuationFrames, "Too many continuation frames"},
                           Row{full, MaxGatheredBytes / kData, "Too much data in continuation frames"}}) {
        for (const bool ends : {false, true}) {
            Session s;
            s.fake->Expect("60").Reply(row.frame);
            s.fake->Expect("AF").Reply(row.frame).Times(row.frames - (ends ? 1 : 0));
            if (ends) s.fake->Expect("AF").Reply("00" + row.frame.substr(2));
            const Outcome o = EncoderCommand(s.channel, cmd::DesfireGetVersion, {}, {.moreResponse = true});
            EXPECT_EQ(o.ok(), ends);
            EXPECT_EQ(o.data.size(), ends ? (row.frames + 1) * ((row.frame.size() - 2) / 2) : 0u);
            EXPECT_EQ(o.reason, ends ? "" : row.reason);
        }
    }
}

TEST(EncoderCommand, AnAnswerLongerThanTheBufferIsRefusedNotRead) {
    Session s;
    s.fake->Expect("FF CA 00 00 00").Reply("01 02 90 00").ReportLength(pcsc_const::MaxAnswer + 1);
    EXPECT_EQ(Show(EncoderCommand(s.channel, cmd::GetUID)),
              "AnswerRefused GetUID [] FFFF Answer longer than the receive buffer");
}

TEST(EncoderCommand, AnExceptionFromTheBoundaryBecomesAFault) {
    class Throwing : public ScriptedPcsc {
    public:
        std::uint32_t Transmit(PcscHandle, std::uint32_t, std::span<const std::uint8_t>, std::span<std::uint8_t>,
                               std::size_t&) override {
            throw std::runtime_error("driver crashed");
        }
    };
    Throwing throwing;
    Channel channel{&throwing, 0x1001, 0x2001, pcsc_const::ProtocolT1};
    const Outcome o = EncoderCommand(channel, cmd::GetUID);
    EXPECT_EQ(o.result, Result::Fault);
    EXPECT_THROW(std::rethrow_exception(o.fault), std::runtime_error);
}

TEST(EncoderCommand, UsesTheProtocolTheReaderAgreedToAndT1Otherwise) {
    for (const auto& [active, expected] : {std::pair{0u, 2u}, std::pair{1u, 1u}}) {
        Session s;
        s.channel.activeProtocol = active;
        s.fake->Expect("FF CA 00 00 00").Reply("90 00");
        EXPECT_TRUE(EncoderCommand(s.channel, cmd::GetUID).ok());
        ASSERT_EQ(s.fake->Calls().size(), 1u);
        EXPECT_EQ(s.fake->Calls()[0].detail, "card=0x2001 protocol=" + std::to_string(expected) + " FF CA 00 00 00");
    }
}

}  // namespace
}  // namespace elatectwn4::command
