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

TEST(MakeCall, CompletesTrailingInOutArgumentsWithTheirTypesDefaults) {
    const auto call = MakeCall({"ReadSectorTrailer", "1", "FFFFFFFFFFFF", "0"}, "call 1");
    ASSERT_EQ(call.args.size(), 9u);
    EXPECT_EQ(call.args[3], Variant{std::uint8_t{0}});  // KeysUsed
    EXPECT_EQ(call.args[4], Variant{std::int32_t{0}});  // Security0
    EXPECT_EQ(call.args[8], Variant{std::uint8_t{0}});  // BX
}

TEST(MakeCall, LeavesAnOmittedOptionalArgumentToTheDispatcher) {
    const auto without = MakeCall(
        {"WriteSectorTrailer", "1", "FFFFFFFFFFFF", "0", "FFFFFFFFFFFF", "FFFFFFFFFFFF", "0", "-1", "-1", "-1", "-1"},
        "call 1");
    EXPECT_EQ(without.args.size(), 10u);
    const auto with = MakeCall({"WriteSectorTrailer", "1", "FFFFFFFFFFFF", "0", "FFFFFFFFFFFF", "FFFFFFFFFFFF", "0",
                                "-1", "-1", "-1", "-1", "0x69"},
                               "call 1");
    ASSERT_EQ(with.args.size(), 11u);
    EXPECT_EQ(with.args[10], Variant{std::int32_t{0x69}});
    const auto text = MakeCall({"WriteSectorTrailer", "1", "FFFFFFFFFFFF", "0", "FFFFFFFFFFFF", "FFFFFFFFFFFF", "0",
                                "-1", "-1", "-1", "-1", "lots"},
                               "call 1");
    EXPECT_EQ(text.args[10], Variant{std::string("lots")});
}

TEST(ParseScript, NamesTheLineOfAMistake) {
    try {
        ParseScript("# header\nReadSerialNumber\n\nReadDataBloc 4 FFFFFFFFFFFF zero\n");
        FAIL() << "accepted";
    } catch (const UsageError& e) {
        EXPECT_NE(std::string(e.what()).find("line 4, argument 3 (KeyType)"), std::string::npos) << e.what();
    }
}

TEST(ParseScript, KeepsNarrationInOrderAndAcceptsCrLf) {
    const auto calls = ParseScript("echo one\r\nReadSerialNumber\r\necho two words\r\n");
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].member, nullptr);
    EXPECT_EQ(calls[0].narration, "one");
    EXPECT_EQ(calls[1].member->name, "ReadSerialNumber");
    EXPECT_EQ(calls[2].narration, "two words");
}

TEST(ParseWords, SplitsCallsAtDoubleDashesAndSetsAPropertyGivenAValue) {
    const auto calls = ParseWords({"Parameters", "Device=R", "--", "parameters", "--", "ReadSerialNumber"});
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].member->kind, MemberKind::PropertyPut);
    EXPECT_EQ(calls[0].args, std::vector<Variant>{std::string("Device=R")});
    EXPECT_EQ(calls[1].member->kind, MemberKind::PropertyGet);
    EXPECT_EQ(calls[2].member->kind, MemberKind::Method);
    EXPECT_THROW(ParseWords({"ATRString", "--"}), UsageError);
    EXPECT_THROW(ParseWords({"--", "ATRString"}), UsageError);
    EXPECT_THROW(ParseWords({"ATRString", "x"}), UsageError);  // a property without a put takes no value
}

}  // namespace
}  // namespace elatectwn4::cli
