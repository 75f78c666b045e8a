// The twn4 tool end to end against the built-in simulator: what people and
// scripts see, exit statuses, and that refused calls send nothing.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "elatectwn4/dispatch.h"

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
};

std::string Scratch(const std::string& name) {
    return testing::TempDir() + "twn4-cli-" + std::to_string(::getpid()) + "-" + name;
}

// Runs twn4 with a shell command line and `input` as its standard input.
Outcome Twn4(const std::string& arguments, const std::string& input = {}) {
    std::ofstream(Scratch("stdin")) << input;
    const std::string command =
        std::string(TWN4_PATH) + " " + arguments + " <" + Scratch("stdin") + " 2>" + Scratch("stderr");
    Outcome o;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return o;
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        o.out.append(buffer, n);
    const int raw = pclose(pipe);
    o.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    std::stringstream err;
    err << std::ifstream(Scratch("stderr")).rdbuf();
    o.err = err.str();
    return o;
}

std::vector<nlohmann::json> JsonLines(const std::string& text) {
    std::vector<nlohmann::json> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

std::string Example(const std::string& name) {
    return std::string(" --script ") + EXAMPLES_DIR + "/" + name + ".twn4";
}

// Exit status 2 is a usage error: nothing was sent and nothing printed, and
// standard error says what was wrong.
TEST(Twn4, EachCommandLineGivesItsOutputAndExitStatus) {
    struct Row {
        std::string arguments;
        int status;
        std::string says;  // "|" between texts of the output; "!text": not in it; "2>text": in standard error
        std::string input = "";
    };
    const std::string atr = "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A";
    const std::string failing = "--simulate mifare1k ReadDataBloc 4 A0A1A2A3A4A5 0 -- ReadSerialNumber";
    const Row rows[] = {
        {"--simulate mifare1k ReadSerialNumber -- ATRString -- CardType", 0,
         "ReadSerialNumber: sceSuccess|ATRString = " + atr + "\n|CardType = "},
        {failing, 1,
         "ReadDataBloc: sceError|Number       = 0x90010F04|Description  = Encoder command failed|"
         "[Warning]  State of non-volatile memory changed|ReadSerialNumber: sceSuccess"},
        {"--stop-on-error " + failing, 1, "sceError|!ReadSerialNumber"},
        {"--simulate mifare1k --script -", 0,
         "\nWriting block 4\n|BlocContents = 00112233445566778899AABBCCDDEEFF|!a comment",
         "# a comment\r\nReadSerialNumber\r\necho Writing block 4\r\n"
         "WriteDataBloc 4 FFFFFFFFFFFF 0 \"00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF\"\n\n"
         "ReadDataBloc 4 FFFFFFFFFFFF 0\n"},
        {"--simulate mifare1k" + Example("personalise-mifare1k"), 0, "Security0 = 13|!sceError"},
        {"--simulate desfire" + Example("desfire-applications"), 0,
         "Information = 04 5A 3B 2C 1D 0E 80\n|Applications = A1B2C3\n|!sceError"},
        {"--simulate desfire" + Example("personalise-desfire"), 0, "!sceError"},
        // A property given a value is set, and the session carries on.
        {"--simulate mifare1k Parameters \"Device=Elsewhere\" -- ReadSerialNumber -- Parameters", 0,
         "Parameters: sceSuccess|ReadSerialNumber: sceSuccess|Device=Elsewhere"},
        {"--simulate desfire readers", 0, "Virtual PCD 00 00\n"},
        {"--help", 0, "SYNOPSIS|OPTIONS|EXIT STATUS|EXAMPLES|--simulate KIND[:STATEFILE]"},
        {"--simulate mifare1k --script -", 2, "2>no member to call", "\xEF\xBB\xBF\n\v \f\n"},
        {"--simulate mifare1k ReadDataBloc 4 FFFFFFFFFFFF 256", 2, "2>argument 3 (KeyType)"},
        {"--simulate floppy ReadSerialNumber", 2, "2>floppy"},
        {"--bogus", 2, "2>unknown option --bogus"},
        {"", 2, "2>nothing to do"},
        {"members Foo", 2, "2>unknown member \"Foo\""},
        {"members ReadSerialNumber Foo", 2, "2>at most one member name"},
    };
    for (const auto& row : rows) {
        const std::string shown = row.arguments.substr(0, 80);
        const auto o = Twn4(row.arguments, row.input);
        EXPECT_EQ(o.status, row.status) << shown << "\n" << o.out << o.err;
        std::istringstream says(row.says);
        for (std::string text; std::getline(says, text, '|');) {
            const bool absent = text.starts_with('!'), inErr = text.starts_with("2>");
            const std::string& where = inErr ? o.err : o.out;
            const auto at = where.find(text.substr(absent ? 1 : inErr ? 2 : 0));
            EXPECT_EQ(at == std::string::npos, absent) << shown << ": " << text << " in:\n" << o.out << o.err;
        }
        EXPECT_TRUE(row.status != 2 || o.out.empty()) << shown << " printed " << o.out;
    }
}

TEST(Twn4, JsonGivesOneObjectPerCallWithOutValuesAndTheErrorRecord) {
    const auto o = Twn4(
        "--json --simulate mifare1k WriteDataBloc 4 FFFFFFFFFFFF 0 00112233445566778899aabbccddeeff"
        " -- ReadDataBloc 4 A0A1A2A3A4A5 0 -- ATRString");
    EXPECT_EQ(o.status, 1) << o.out << o.err;
    const auto lines = JsonLines(o.out);
    ASSERT_EQ(lines.size(), 3u) << o.out;
    EXPECT_EQ(lines[0]["member"], "WriteDataBloc");
    EXPECT_EQ(lines[0]["result"], 0);
    EXPECT_EQ(lines[0]["out"]["BlocContents"], "00112233445566778899AABBCCDDEEFF");  // normalised in place
    EXPECT_EQ(lines[0]["error"]["Number"], 0);
    EXPECT_EQ(lines[1]["resultName"], "sceError");
    EXPECT_EQ(lines[1]["error"], (nlohmann::json{{"Number", static_cast<std::int32_t>(0x90010F04)},
                                                 {"Description", "Encoder command failed"},
                                                 {"LastDllError", 0},
                                                 {"ComFunction", "MifareAuthenticate"},
                                                 {"RdrCommand", "SCardTransmit:GeneralAuthenticate"},
                                                 {"RdrRetCode", "6300"}}));
    EXPECT_EQ(lines[2]["value"], "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A");

    // A Variant out-argument comes as the JSON form of what it holds.
    const auto desfire = JsonLines(Twn4("--json --simulate desfire" + Example("desfire-applications")).out);
    ASSERT_GE(desfire.size(), 4u);
    EXPECT_EQ(desfire[1]["out"]["Information"], nlohmann::json({4, 0x5A, 0x3B, 0x2C, 0x1D, 0x0E, 0x80}));
    EXPECT_EQ(desfire[2]["out"]["Information"], 4096);
    EXPECT_EQ(desfire[3]["out"]["Information"].size(), 28u);
}

TEST(Twn4, CardContentsPersistBetweenRunsInTheStateFileAndTextThatIsNotUtf8Shows) {
    const std::string state = Scratch("card.json");
    std::filesystem::remove(state);
    // A call that does not parse sends nothing: the card is not even saved.
    EXPECT_EQ(Twn4("--simulate mifare1k:" + state + " WriteValueBloc 8 FFFFFFFFFFFF 0 300 -- ReadDataBloc x").status,
              2);
    EXPECT_FALSE(std::filesystem::exists(state));
    const auto o = Twn4("--json --simulate mifare1k:" + state + " --script -",
                        "WriteValueBloc 8 FFFFFFFFFFFF 0 300\nParameters \"Device=\xFF\xFE\"\nParameters\n");
    ASSERT_EQ(o.status, 0) << o.out << o.err;
    const auto lines = JsonLines(o.out);
    ASSERT_EQ(lines.size(), 3u) << o.out;
    EXPECT_NE(lines[2]["value"].get<std::string>().find("Device=\xEF\xBF\xBD\xEF\xBF\xBD"), std::string::npos)
        << lines[2];
    EXPECT_EQ(std::filesystem::status(state).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write)
        << "the card's keys are in it";
    const auto read = Twn4("--json --simulate mifare1k:" + state + " ReadDataBloc 8 FFFFFFFFFFFF 0");
    ASSERT_EQ(read.status, 0) << read.out << read.err;
    EXPECT_EQ(JsonLines(read.out).at(0)["out"]["BlocContents"], "2C010000D3FEFFFF2C010000FF00FF00");
    std::filesystem::remove(state);
}

TEST(Twn4, MembersListsEveryMemberOfTheEncoder) {
    const auto o = Twn4("members");
    ASSERT_EQ(o.status, 0);
    for (const auto& m : elatectwn4::Members()) {
        if (m.interfaceName == "_Encoder") {
            EXPECT_NE(o.out.find(elatectwn4::Signature(m) + '\n'), std::string::npos) << m.name;
        }
    }
}

}  // namespace
