// Turning words and script lines into calls.
#include "cli/script.h"

#include <gtest/gtest.h>

namespace elatectwn4::cli {
namespace {

TEST(SplitLine, HonoursBothQuotesAndEscapes) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases{
        {"A b  c", {"A", "b", "c"}},
        {"W \"00 11\" 'a \"b\"' \"x\\\"y\"", {"W", "00 11", "a \"b\"", "x\"y"}},
        {"E \"\"", {"E", ""}},
        {"  \t ", {}},
        {"M pre\"fix\"post", {"M", "prefixpost"}},
    };
    for (const auto& [line, words] : cases)
        EXPECT_EQ(SplitLine(line), words) << line;
    EXPECT_THROW(SplitLine("M \"open"), UsageError);
    EXPECT_THROW(SplitLine("M 'open"), UsageError);
}

// Blank and comment lines are skipped; a call that cannot be made names its
// line, its argument and the reason, with an overlong word cut.
TEST(ParseScript, YieldsTheCallsOrSaysWhereAndWhyNot) {
    const std::string longName(100000, 'Q');
    const std::pair<std::string, std::string> cases[] = {
        {"# note\r\n\v \f\nReadSerialNumber\r\necho Writing\r\n", "calls: ReadSerialNumber,echo Writing"},
        {"\xEF\xBB\xBFReadSerialNumber\n", "calls: ReadSerialNumber"},
        {"NoSuchMember", "line 1: unknown member \"NoSuchMember\""},
        {"ReadSerialNumber\nReadDataBloc 4 FFFFFFFFFFFF zero", "line 2, argument 3 (KeyType)"},
        {"ReadDataBloc 4", "line 1: missing argument 2 (Key As String)"},
        {"ReadSerialNumber x y", "line 1: ReadSerialNumber takes at most 1 argument"},
        {"ATRString\nReadDataBloc 4 \"FFFF", "line 2: unterminated \" quote"},
        {longName, "line 1: unknown member \"" + std::string(40, 'Q') + "...\""},
        {"ReadDataBloc " + longName, "got \"" + std::string(40, 'Q') + "...\""},
    };
    for (const auto& [script, expected] : cases) {
        std::string seen = "calls:";
        try {
            for (const auto& call : ParseScript(script))
                seen += (seen.ends_with(':') ? " " : ",") +
                        (call.member ? std::string(call.member->name) : "echo " + call.narration);
        } catch (const UsageError& e) {
            seen = e.what();
        }
        EXPECT_NE(seen.find(expected), std::string::npos) << seen;
    }
}

// Trailing in/out arguments get their type's default; an omitted optional
// argument is left to the dispatcher.
TEST(MakeCall, CompletesArgumentsAsTheMemberNeeds) {
    const auto trailer = MakeCall({"ReadSectorTrailer", "1", "FFFFFFFFFFFF", "0"}, "call 1");
    ASSERT_EQ(trailer.args.size(), 9u);
    EXPECT_EQ(trailer.args[3], Variant{std::uint8_t{0}});  // KeysUsed
    EXPECT_EQ(trailer.args[4], Variant{std::int32_t{0}});  // Security0
    EXPECT_EQ(trailer.args[8], Variant{std::uint8_t{0}});  // BX
    std::vector<std::string> write{
        "WriteSectorTrailer", "1", "FFFFFFFFFFFF", "0", "FFFFFFFFFFFF", "FFFFFFFFFFFF", "0", "-1", "-1", "-1", "-1"};
    EXPECT_EQ(MakeCall(write, "call 1").args.size(), 10u);
    write.push_back("0x69");
    EXPECT_EQ(MakeCall(write, "call 1").args.at(10), Variant{std::int32_t{0x69}});
    write.back() = "lots";
    EXPECT_EQ(MakeCall(write, "call 1").args.at(10), Variant{std::string("lots")});
}

TEST(ParseWords, SplitsCallsAtDoubleDashesAndSetsAPropertyGivenAValue) {
    const auto calls = ParseWords({"Parameters", "Device=R", "--", "parameters", "--", "ReadSerialNumber"});
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].member->kind, MemberKind::PropertyPut);
    EXPECT_EQ(calls[0].args, std::vector<Variant>{std::string("Device=R")});
    EXPECT_EQ(calls[1].member->kind, MemberKind::PropertyGet);
    EXPECT_EQ(calls[2].member->kind, MemberKind::Method);
    for (const auto& words : std::vector<std::vector<std::string>>{
             {"ATRString", "--"}, {"--", "ATRString"}, {"ATRString", "x"}})  // no put: no value
        EXPECT_THROW(ParseWords(words), UsageError) << testing::PrintToString(words);
}

}  // namespace
}  // namespace elatectwn4::cli
