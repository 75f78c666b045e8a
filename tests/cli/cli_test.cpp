// The twn4 tool end to end against the built-in simulator: what people and
// scripts see, exit statuses, and that refused calls send nothing.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "elatectwn4/dispatch.h"

namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/twn4-cli-XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// Runs twn4 with a shell command line; standard error goes to a file.
Outcome Twn4(const std::string& arguments, const std::string& input = {}) {
    TempDir dir;
    const std::string errFile = dir / "stderr";
    std::string command = std::string(TWN4_PATH) + " " + arguments + " 2>" + errFile;
    if (!input.empty()) {
        std::ofstream(dir / "stdin") << input;
        command += " <" + (dir / "stdin");
    }
    Outcome o;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return o;
    std::array<char, 4096> buffer;
    std::size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        o.out.append(buffer.data(), n);
    const int raw = pclose(pipe);
    o.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    std::ifstream err(errFile);
    std::stringstream s;
    s << err.rdbuf();
    o.err = s.str();
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

struct RunCase {
    const char* arguments;
    const char* input;
    int status;
    std::vector<std::string> shows;
    std::vector<std::string> hides = {};
};

TEST(Twn4, PeopleSeeResultsOutValuesAndTheRecordInWords) {
    const std::string example =
        std::string("--simulate mifare1k --script ") + EXAMPLES_DIR + "/personalise-mifare1k.twn4";
    const std::vector<RunCase> cases{
        {"--simulate mifare1k ReadSerialNumber -- ATRString -- CardType",
         "",
         0,
         {"ReadSerialNumber: sceSuccess", "ATRString = 3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A",
          "CardType = "}},
        {"--simulate mifare1k ReadDataBloc 4 A0A1A2A3A4A5 0",
         "",
         1,
         {"ReadDataBloc: sceError", "Number       = 0x90010F04", "Description  = Encoder command failed",
          "[Warning]  State of non-volatile memory changed"}},
        {"--simulate mifare1k --script -",
         "# a comment\necho Writing block 4\n"
         "WriteDataBloc 4 FFFFFFFFFFFF 0 \"00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF\"\n\n"
         "ReadDataBloc 4 FFFFFFFFFFFF 0\n",
         0,
         {"Writing block 4", "BlocContents = 00112233445566778899AABBCCDDEEFF"},
         {"a comment"}},
        {example.c_str(), "", 0, {"Security0 = 13"}, {"sceError"}},
        // A property given a value is set, and the session carries on.
        {"--simulate mifare1k Parameters \"Device=Elsewhere\" -- ReadSerialNumber -- Parameters",
         "",
         0,
         {"Parameters: sceSuccess", "ReadSerialNumber: sceSuccess", "Device=Elsewhere"}},
        {"--simulate mifare1k ReadDataBloc 4 A0A1A2A3A4A5 0 -- ReadSerialNumber", "", 1, {"ReadSerialNumber"}},
        {"--stop-on-error --simulate mifare1k ReadDataBloc 4 A0A1A2A3A4A5 0 -- ReadSerialNumber",
         "",
         1,
         {"sceError"},
         {"ReadSerialNumber"}},
        {"--simulate desfire readers", "", 0, {"Virtual PCD 00 00\n"}},
        {"--help", "", 0, {"SYNOPSIS", "OPTIONS", "EXIT STATUS", "EXAMPLES", "--simulate KIND[:STATEFILE]"}},
    };
    for (const auto& c : cases) {
        const auto o = Twn4(c.arguments, c.input);
        EXPECT_EQ(o.status, c.status) << c.arguments << "\n" << o.out << o.err;
        for (const auto& text : c.shows)
            EXPECT_NE(o.out.find(text), std::string::npos) << c.arguments << " lacks " << text << ":\n" << o.out;
        for (const auto& text : c.hides)
            EXPECT_EQ(o.out.find(text), std::string::npos) << c.arguments << " shows " << text << ":\n" << o.out;
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
}

TEST(Twn4, CardContentsPersistBetweenRunsInTheStateFile) {
    TempDir dir;
    const std::string state = dir / "card.json";
    // A call that does not parse sends nothing: the card is not even saved.
    EXPECT_EQ(Twn4("--simulate mifare1k:" + state + " WriteValueBloc 8 FFFFFFFFFFFF 0 300 -- ReadDataBloc x").status,
              2);
    EXPECT_FALSE(std::filesystem::exists(state));
    ASSERT_EQ(Twn4("--simulate mifare1k:" + state + " WriteValueBloc 8 FFFFFFFFFFFF 0 300").status, 0);
    EXPECT_EQ(std::filesystem::status(state).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write)
        << "the card's keys are in it";
    const auto o = Twn4("--json --simulate mifare1k:" + state + " ReadDataBloc 8 FFFFFFFFFFFF 0");
    ASSERT_EQ(o.status, 0) << o.out << o.err;
    EXPECT_EQ(JsonLines(o.out).at(0)["out"]["BlocContents"], "2C010000D3FEFFFF2C010000FF00FF00");
}

TEST(Twn4, TheDesfireExampleSecuresACardAndShowsByteArraysForPeopleAndScripts) {
    const std::string script =
        std::string(" --simulate desfire --script ") + EXAMPLES_DIR + "/desfire-applications.twn4";
    const auto people = Twn4(script);
    EXPECT_EQ(people.status, 0) << people.out << people.err;
    EXPECT_EQ(people.out.find("sceError"), std::string::npos) << people.out;
    EXPECT_NE(people.out.find("Information = 04 5A 3B 2C 1D 0E 80\n"), std::string::npos) << people.out;
    EXPECT_NE(people.out.find("Applications = A1B2C3\n"), std::string::npos) << people.out;

    const auto json = Twn4("--json" + script);
    ASSERT_EQ(json.status, 0) << json.out << json.err;
    const auto lines = JsonLines(json.out);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[1]["out"]["Information"], nlohmann::json({4, 0x5A, 0x3B, 0x2C, 0x1D, 0x0E, 0x80}));
    EXPECT_EQ(lines[2]["out"]["Information"], 4096);
    EXPECT_EQ(lines[3]["out"]["Information"].size(), 28u);
}

TEST(Twn4, TheDesfirePersonalisationWritesEveryKindOfFileAndReadsItBack) {
    const std::string script =
        std::string(" --simulate desfire --script ") + EXAMPLES_DIR + "/personalise-desfire.twn4";
    const auto people = Twn4(script);
    EXPECT_EQ(people.status, 0) << people.out << people.err;
    EXPECT_EQ(people.out.find("sceError"), std::string::npos) << people.out;

    const auto json = Twn4("--json" + script);
    ASSERT_EQ(json.status, 0) << json.out << json.err;
    std::map<std::string, std::vector<nlohmann::json>> outs;
    for (const auto& line : JsonLines(json.out)) {
        if (line.contains("member")) outs[line["member"].get<std::string>()].push_back(line["out"]);
    }
    const std::string holder = "Jane Doe / 12 Harbour Road / Springfield / member 0042 / valid to 2028-12-31 ###";
    const auto& reads = outs["DESFireReadData"];
    ASSERT_EQ(reads.size(), 6u);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(reads[i]["DataString"], holder) << "file " << i + 1;
    EXPECT_EQ(reads[3]["DataString"], "313220486172626F757220526F616420");  // "12 Harbour Road " as hex
    EXPECT_EQ(reads[4]["DataString"], std::string(32, '0')) << "not committed yet";
    EXPECT_EQ(reads[5]["DataString"], "Issued: Nov 2026");
    const auto& values = outs["DESFireGetValue"];
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ(values[0]["ValueData"], 150);
    EXPECT_EQ(values[1]["ValueData"], 150) << "the debit was aborted";
    EXPECT_EQ(values[2]["ValueData"], 120);
    EXPECT_EQ(outs["DESFireReadRecords"].at(0)["DataString"], "2026-11-20 gate12026-11-21 gate3");
    EXPECT_EQ(outs["DESFireGetFileIDs"].at(0)["FileIds"], "1,2,3,4,5,6");
}

struct UsageCase {
    const char* arguments;
    const char* input;
    const char* mustSay;
};

TEST(Twn4, UsageErrorsExitWithTwoSendNothingAndSayWhatWasWrong) {
    const std::vector<UsageCase> cases{
        {"--simulate mifare1k NoSuchMember", "", "unknown member \"NoSuchMember\""},
        {"--simulate mifare1k ReadDataBloc 4 FFFFFFFFFFFF 256", "", "argument 3 (KeyType)"},
        {"--simulate mifare1k ReadDataBloc 4", "", "missing argument 2 (Key As String)"},
        {"--simulate mifare1k ReadSerialNumber x y", "", "takes at most 1 argument"},
        {"--simulate desfire DESFireSelectApplication A1B2C3 one 00", "", "argument 2 (KeyNumber)"},
        {"--simulate mifare1k --script -", "ReadSerialNumber\nReadDataBloc 4 \"FFFF\n", "line 2"},
        {"--simulate floppy ReadSerialNumber", "", "floppy"},
        {"--bogus", "", "unknown option --bogus"},
        {"", "", "nothing to do"},
    };
    for (const auto& c : cases) {
        const auto o = Twn4(c.arguments, c.input);
        EXPECT_EQ(o.status, 2) << c.arguments << "\n" << o.out << o.err;
        EXPECT_TRUE(o.out.empty()) << c.arguments << ": " << o.out;
        EXPECT_NE(o.err.find(c.mustSay), std::string::npos) << c.arguments << ": " << o.err;
    }
}

TEST(Twn4, RoughInputGetsAClearMessageAndItsExitStatus) {
    const std::string longName(100000, 'Q');
    struct Row {
        std::string arguments;
        std::string input;
        int status;
        std::string errSays;
        std::string outSays;
    };
    const std::vector<Row> rows{
        {"--simulate mifare1k --script -", "\v\nReadSerialNumber\n\f\n", 0, "", "ReadSerialNumber: sceSuccess"},
        {"--simulate mifare1k --script -", "\xEF\xBB\xBFReadSerialNumber\n", 0, "", "ReadSerialNumber: sceSuccess"},
        {"--simulate mifare1k --script -", "\xEF\xBB\xBF\n\v \f\n", 2, "no member to call", ""},
        {"members Foo", "", 2, "unknown member \"Foo\"", ""},
        {"members ReadSerialNumber Foo", "", 2, "at most one member name", ""},
        {"--simulate mifare1k " + longName, "", 2, "unknown member \"" + std::string(40, 'Q') + "...\"", ""},
        {"--simulate mifare1k ReadDataBloc " + longName, "", 2, "got \"" + std::string(40, 'Q') + "...\"", ""},
    };
    for (const auto& row : rows) {
        const auto o = Twn4(row.arguments, row.input);
        const std::string shown = row.arguments.substr(0, 60);
        EXPECT_EQ(o.status, row.status) << shown << "\n" << o.out << o.err;
        EXPECT_NE(o.err.find(row.errSays), std::string::npos) << shown << ": " << o.err;
        EXPECT_LT(o.err.size(), 300u) << shown;
        EXPECT_NE(o.out.find(row.outSays), std::string::npos) << shown << ": " << o.out;
    }
}

TEST(Twn4, JsonShowsTextThatIsNotUtf8AndTheCardKeepsItsChanges) {
    TempDir dir;
    const std::string state = dir / "card.json";
    const auto o = Twn4("--json --simulate mifare1k:" + state + " --script -",
                        "WriteDataBloc 4 FFFFFFFFFFFF 0 00112233445566778899AABBCCDDEEFF\n"
                        "Parameters \"Device=\xFF\xFE\"\nParameters\n");
    EXPECT_EQ(o.status, 0) << o.out << o.err;
    const auto lines = JsonLines(o.out);
    ASSERT_EQ(lines.size(), 3u) << o.out;
    EXPECT_NE(lines[2]["value"].get<std::string>().find("Device=\xEF\xBF\xBD\xEF\xBF\xBD"), std::string::npos)
        << lines[2];
    const auto read = Twn4("--json --simulate mifare1k:" + state + " ReadDataBloc 4 FFFFFFFFFFFF 0");
    EXPECT_EQ(JsonLines(read.out).at(0)["out"]["BlocContents"], "00112233445566778899AABBCCDDEEFF");
}

TEST(Twn4, MembersListsEveryMemberOfTheEncoder) {
    const auto o = Twn4("members");
    ASSERT_EQ(o.status, 0);
    for (const auto& m : elatectwn4::Members()) {
        if (m.interfaceName != "_Encoder") continue;
        EXPECT_NE(o.out.find(elatectwn4::Signature(m) + '\n'), std::string::npos) << m.name;
    }
}

}  // namespace
