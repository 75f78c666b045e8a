#include "command/encoder_command.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
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

// One exchange: the command expected, and the answer ("!" and a code: the
// transmission fails with that PC/SC code).
struct Exchange {
    std::string sent;
    std::string answer;
};

struct Session {
    std::shared_ptr<ScriptedPcsc> fake = std::make_shared<ScriptedPcsc>();
    Channel channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1};

    void Script(const std::vector<Exchange>& exchanges) {
        for (const auto& [sent, answer] : exchanges) {
            if (answer.starts_with("!")) {
                fake->Expect(sent).Fail(static_cast<std::uint32_t>(std::stoul(answer.substr(1), nullptr, 16)));
            } else {
                fake->Expect(sent).Reply(answer);
            }
        }
    }
};

const std::array<std::uint8_t, 4> kBytes{0xC3, 0xD4, 0xE5, 0xF6};
const std::string kViewedKey = "A0A1A2A3A4A5";

struct Case {
    const char* what;
    std::uint32_t code;
    Params params;
    std::vector<Exchange> exchanges;
    std::string outcome;
    bool more = false;
};

const std::string kInvalid = " [] FFFF pcsc 80100004";

const Case kCases[] = {
    // Placeholder formats.
    {"block as 4 digits", cmd::ReadBinary, {4}, {{"FF B0 00 04 00", "00 11 90 00"}}, "Success ReadBinary [00 11] 9000"},
    {"block cut to 4 digits", cmd::ReadBinary, {0x12345}, {{"FF B0 23 45 00", "90 00"}}, "Success ReadBinary [] 9000"},
    {"negative block", cmd::ReadBinary, {-1}, {{"FF B0 FF FF 00", "90 00"}}, "Success ReadBinary [] 9000"},
    {"decimal text",
     cmd::ReadBinary,
     {std::string(" 12 ")},
     {{"FF B0 00 0C 00", "90 00"}},
     "Success ReadBinary [] 9000"},
    {"&H text", cmd::ReadBinary, {std::string("&H3F")}, {{"FF B0 00 3F 00", "90 00"}}, "Success ReadBinary [] 9000"},
    {"key type computed, slot and length cut",
     cmd::LoadKey,
     {2, 0x123, std::string("0011223344556677")},
     {{"FF 82 00 23 08 00 11 22 33 44 55 66 77", "90 00"}},
     "Success LoadKey [] 9000"},
    {"unreadable key type goes unnoticed",
     cmd::LoadKey,
     {std::string("key B"), 1, std::string_view(kViewedKey)},
     {{"FF 82 00 01 06 A0 A1 A2 A3 A4 A5", "90 00"}},
     "Success LoadKey [] 9000"},
    {"key B from text",
     cmd::GeneralAuthenticate,
     {std::string("255"), std::string("2"), std::string("&h1f")},
     {{"FF 86 00 00 05 01 00 FF 61 1F", "90 00"}},
     "Success GeneralAuthenticate [] 9000"},
    {"key A otherwise",
     cmd::GeneralAuthenticate,
     {4, 1, 1},
     {{"FF 86 00 00 05 01 00 04 60 01", "69 82"}},
     "CardRefused GeneralAuthenticate [] 6982"},
    {"bytes as hex",
     cmd::WriteBinary,
     {5, cipher::ByteView(kBytes)},
     {{"FF D6 00 05 10 C3 D4 E5 F6", "90 00"}},
     "Success WriteBinary [] 9000"},
    {"padded hex, not cut",
     cmd::DesfireCreateApplication,
     {std::string("000001"), 0xEF, std::string("14")},
     {{"CA 00 00 01 EF 0E", "00"}},
     "Success DesfireCreateApplication [] 00"},
    {"a number where text goes is decimal",
     cmd::DesfireGetFileSettings,
     {10},
     {{"F5 10", "00"}},
     "Success DesfireGetFileSettings [] 00"},
    {"[LENGTH] computed, not placed",
     cmd::DesfireWriteData,
     {std::string(""), std::string("05"), std::string("0100000005000011")},
     {{"3D 01 00 00 00 05 00 00 11", "00"}},
     "Success DesfireWriteData [] 00"},
    {"continuation named by the caller",
     cmd::DesfireContinue,
     {std::string("DesfireWriteData"), 3, std::string("AABBCC")},
     {{"AF AA BB CC", "9D"}},
     "CardRefused DesfireWriteData [] 9D"},
    {"placeholders in values are filled in turn, any case",
     cmd::DesfireChangeFileSettingsPlain,
     {std::string("[comm_set][Comm_Set]"), std::string("03"), std::string("1234")},
     {{"5F 03 03 03 12 34", "00"}},
     "Success DesfireChangeFileSettings [] 00"},
    // Parameters that make no command: nothing is sent.
    {"missing parameter", cmd::ReadBinary, {}, {}, "ReaderFailed ReadBinary" + kInvalid},
    {"not a number", cmd::ReadBinary, {std::string("4.5")}, {}, "ReaderFailed ReadBinary" + kInvalid},
    {"bytes are no number", cmd::ReadBinary, {cipher::ByteView(kBytes)}, {}, "ReaderFailed ReadBinary" + kInvalid},
    {"third parameter missing", cmd::LoadKey, {2, 1}, {}, "ReaderFailed LoadKey" + kInvalid},
    {"empty template",
     cmd::ReaderAuthenticate,
     {std::string("00:11:22")},
     {},
     "ReaderFailed ReaderAuthenticate" + kInvalid},
    {"empty template",
     cmd::DesfireAuthenticate,
     {std::string("00"), std::string("000000"), std::string("00"), std::string("00"), std::string("00")},
     {},
     "ReaderFailed DesfireAuthenticate" + kInvalid},
    {"unknown code", 0x40A, {std::string("00")}, {}, "ReaderFailed " + kInvalid},
    {"unknown code", 0x442, {std::string("00")}, {}, "ReaderFailed " + kInvalid},
    {"escape without text", cmd::Escape, {}, {}, "ReaderFailed Escape" + kInvalid},
    {"escape of blanks", cmd::Escape, {std::string("   ")}, {}, "ReaderFailed Escape" + kInvalid},
    // ISO answers: the last two bytes are the status.
    {"ISO success", cmd::GetUID, {}, {{"FF CA 00 00 00", "04 A1 B2 C3 90 00"}}, "Success GetUID [04 A1 B2 C3] 9000"},
    {"9100", cmd::GetUID, {}, {{"FF CA 00 00 00", "91 00"}}, "Success GetUID [] 9100"},
    {"9101", cmd::GetUID, {}, {{"FF CA 00 00 00", "01 91 01"}}, "Success GetUID [01] 9101"},
    {"91AF not followed", cmd::GetUID, {}, {{"FF CA 00 00 00", "01 02 91 AF"}}, "Success GetUID [01 02] 91AF"},
    {"refusal drops the data", cmd::GetUID, {}, {{"FF CA 00 00 00", "11 22 63 00"}}, "CardRefused GetUID [] 6300"},
    {"9001", cmd::GetUID, {}, {{"FF CA 00 00 00", "90 01"}}, "CardRefused GetUID [] 9001"},
    // Without a status word there is no answer to judge.
    {"too short for a status",
     cmd::GetUID,
     {},
     {{"FF CA 00 00 00", "90"}},
     "AnswerRefused GetUID [] FFFF No status word in the answer: received 90"},
    {"nothing received",
     cmd::GetUID,
     {},
     {{"FF CA 00 00 00", ""}},
     "AnswerRefused GetUID [] FFFF No status word in the answer: nothing received"},
    {"nothing received natively",
     cmd::DesfireGetVersion,
     {},
     {{"60", ""}},
     "AnswerRefused DesfireGetVersion [] FFFF No status word in the answer: nothing received"},
    // Native answers: the first byte is the status.
    {"native success", cmd::DesfireGetVersion, {}, {{"60", "00 04 01 01"}}, "Success DesfireGetVersion [04 01 01] 00"},
    {"AF not followed", cmd::DesfireGetVersion, {}, {{"60", "AF 04 01"}}, "Success DesfireGetVersion [04 01] AF"},
    {"native refusal", cmd::DesfireGetVersion, {}, {{"60", "AE"}}, "CardRefused DesfireGetVersion [] AE"},
    {"ISO success means nothing natively",
     cmd::DesfireGetVersion,
     {},
     {{"60", "90 00"}},
     "CardRefused DesfireGetVersion [] 90"},
    // The raw channel.
    {"escape is not judged",
     cmd::Escape,
     {std::string("FF CA 00 00 00")},
     {{"FF CA 00 00 00", "6A 81"}},
     "Success Escape [6A 81] "},
    {"escape is known by its name",
     cmd::DesfireContinue,
     {std::string("Escape"), 1, std::string("01")},
     {{"AF 01", "6A 81"}},
     "Success Escape [6A 81] "},
    {"escape takes an empty answer", cmd::Escape, {std::string("FF 00")}, {{"FF 00", ""}}, "Success Escape [] "},
    {"odd digit count", cmd::Escape, {std::string("F CA")}, {{"0F CA", "90 00"}}, "Success Escape [90 00] "},
    {"non-hex pair reads 0", cmd::Escape, {std::string("ZZ01")}, {{"00 01", "90 00"}}, "Success Escape [90 00] "},
    // Continuation frames.
    {"ISO frames gathered",
     cmd::GetUID,
     {},
     {{"FF CA 00 00 00", "01 02 91 AF"}, {"90 AF 00 00 00", "03 91 AF"}, {"90 AF 00 00 00", "04 90 00"}},
     "Success MoreResponse [01 02 03 04] 9000",
     true},
    {"native frames gathered",
     cmd::DesfireGetVersion,
     {},
     {{"60", "AF 04 01"}, {"AF", "AF 04 02"}, {"AF", "00 A1"}},
     "Success MoreResponse [04 01 04 02 A1] 00",
     true},
    {"a refused frame drops everything and names itself",
     cmd::DesfireReadData,
     {std::string("01"), std::string("000000"), std::string("000000")},
     {{"BD 01 00 00 00 00 00 00", "AF 11 22"}, {"AF", "7E"}},
     "CardRefused MoreResponse [] 7E",
     true},
    {"a failed transmission keeps the last status",
     cmd::GetUID,
     {},
     {{"FF CA 00 00 00", "01 91 AF"}, {"90 AF 00 00 00", "!80100069"}},
     "ReaderFailed MoreResponse [] 91AF pcsc 80100069",
     true},
    {"failed transmission",
     cmd::ReadBinary,
     {1},
     {{"FF B0 00 01 00", "!80100016"}},
     "ReaderFailed ReadBinary [] FFFF pcsc 80100016"},
};

TEST(EncoderCommand, SendsTheExactBytesAndTellsWhatCameOfIt) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.what);
        Session s;
        s.Script(c.exchanges);
        EXPECT_EQ(Show(EncoderCommand(s.channel, c.code, c.params, {.moreResponse = c.more})), c.outcome);
        std::vector<std::string> sent;
        for (const auto& e : c.exchanges)
            sent.push_back(e.sent);
        EXPECT_EQ(s.fake->Transmitted(), sent);
    }
}

TEST(EncoderCommand, NamesCommandsAsTracesShowThem) {
    EXPECT_EQ(CommandName(cmd::MoreResponseNative), "MoreResponse");
    EXPECT_EQ(CommandName(cmd::DesfireAuthenticateToken), "DesfireAuthenticate");
    EXPECT_EQ(CommandName(0x40A), "");
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

TEST(EncoderCommand, EndlessFramesStopAtTheFrameLimitAndTheLastAllowedMayEnd) {
    for (const bool ends : {false, true}) {
        Session s;
        s.fake->Expect("60").Reply("AF 01");
        s.fake->Expect("AF").Reply("AF 01").Times(MaxContinuationFrames - (ends ? 1 : 0));
        if (ends) s.fake->Expect("AF").Reply("00 01");
        const Outcome o = EncoderCommand(s.channel, cmd::DesfireGetVersion, {}, {.moreResponse = true});
        EXPECT_EQ(o.ok(), ends);
        EXPECT_EQ(o.data.size(), ends ? 1u + MaxContinuationFrames : 0u);
        EXPECT_EQ(o.reason, ends ? "" : "Too many continuation frames");
    }
}

TEST(EncoderCommand, GatheringStopsOnceTheDataReachesTheLimit) {
    // Full frames of 4095 data bytes: 16 stay below 64 KiB, the 17th passes it.
    constexpr std::size_t kData = pcsc_const::MaxAnswer - 1;
    constexpr std::size_t kFramesBelow = MaxGatheredBytes / kData;
    const std::string frame = "AF" + std::string(2 * kData, 'A');
    for (const bool ends : {false, true}) {
        Session s;
        s.fake->Expect("60").Reply(frame);
        s.fake->Expect("AF").Reply(frame).Times(kFramesBelow - (ends ? 1 : 0));
        if (ends) s.fake->Expect("AF").Reply("00" + frame.substr(2));
        const Outcome o = EncoderCommand(s.channel, cmd::DesfireGetVersion, {}, {.moreResponse = true});
        EXPECT_EQ(o.ok(), ends);
        EXPECT_EQ(o.data.size(), ends ? (kFramesBelow + 1) * kData : 0u);
        EXPECT_EQ(o.reason, ends ? "" : "Too much data in continuation frames");
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

TEST(Outcome, TellsACardsStatusFromOtherFailures) {
    Outcome refused;
    refused.result = Result::CardRefused;
    refused.status = StatusWord::Native(0xAE);
    EXPECT_TRUE(refused.RefusedWith(StatusWord::Native(0xAE)));
    EXPECT_FALSE(refused.RefusedWith(StatusWord::Iso(0x91AE)));
    Outcome failed = std::move(refused);
    failed.result = Result::ReaderFailed;
    EXPECT_FALSE(failed.RefusedWith(StatusWord::Native(0xAE)));
    EXPECT_EQ(StatusWord::Iso(0x0A0B).Text(), "0A0B");
    EXPECT_EQ(StatusWord::Native(0x0C).Text(), "0C");
}

}  // namespace
}  // namespace elatectwn4::command
