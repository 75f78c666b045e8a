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

TEST(Twn4, ReadsTheIdentityOfASimulatedCard) {
    const auto o = Twn4("--simulate mifare1k ReadSerialNumber -- ATRString -- CardType");
    EXPECT_EQ(o.status, 0) << o.out << o.err;
    EXPECT_NE(o.out.find("ReadSerialNumber: sceSuccess"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A"), std::string::npos) << o.out;
}

TEST(Twn4, JsonGivesOneObjectPerCallWithOutValuesAndTheErrorRecord) {
    const auto o = Twn4(
        "--json --simulate mifare1k WriteDataBloc 4 FFFFFFFFFFFF 0 00112233445566778899aabbccddeeff"
        " -- ReadDataBloc 4 FFFFFFFFFFFF 0 -- ReadDataBloc 4 A0A1A2A3A4A5 0");
    EXPECT_EQ(o.status, 1) << o.out << o.err;
    const auto lines = JsonLines(o.out);
    ASSERT_EQ(lines.size(), 3u) << o.out;
    EXPECT_EQ(lines[0]["member"], "WriteDataBloc");
    EXPECT_EQ(lines[0]["result"], 0);
    EXPECT_EQ(lines[0]["out"]["BlocContents"], "00112233445566778899AABBCCDDEEFF");  // normalised in place
    EXPECT_EQ(lines[1]["out"]["BlocContents"], "00112233445566778899AABBCCDDEEFF");
    EXPECT_EQ(lines[1]["error"]["Number"], 0);
    EXPECT_EQ(lines[2]["result"], 2);
    EXPECT_EQ(lines[2]["resultName"], "sceError");
    EXPECT_EQ(lines[2]["error"]["ComFunction"], "MifareAuthenticate");
    EXPECT_EQ(lines[2]["error"]["RdrCommand"], "SCardTransmit:GeneralAuthenticate");
    for (const char* key : {"Number", "Description", "LastDllError", "ComFunction", "RdrCommand", "RdrRetCode"}) {
        EXPECT_TRUE(lines[2]["error"].contains(key)) << key;
    }
}

TEST(Twn4, AFailureShowsTheRecordWithTheCardsStatusInWords) {
    const auto o = Twn4("--simulate mifare1k ReadDataBloc 4 A0A1A2A3A4A5 0");
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(o.out.find("sceError"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("Number       = 0x90010F04"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("Encoder command failed"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("[Warning]  State of non-volatile memory changed"), std::string::npos) << o.out;
}

TEST(Twn4, CardContentsPersistBetweenRunsInTheStateFile) {
    TempDir dir;
    const std::string state = dir / "card.json";
    ASSERT_EQ(Twn4("--simulate mifare1k:" + state + " WriteValueBloc 8 FFFFFFFFFFFF 0 300").status, 0);
    ASSERT_TRUE(std::filesystem::exists(state));
    const auto o = Twn4("--json --simulate mifare1k:" + state + " ReadDataBloc 8 FFFFFFFFFFFF 0");
    ASSERT_EQ(o.status, 0) << o.out << o.err;
    EXPECT_EQ(JsonLines(o.out).at(0)["out"]["BlocContents"], "2C010000D3FEFFFF2C010000FF00FF00");
}

TEST(Twn4, AScriptRunsInOneSessionAndNarrates) {
    const auto o = Twn4("--simulate mifare1k --script -",
                        "# a comment\n"
                        "echo Writing block 4\n"
                        "WriteDataBloc 4 FFFFFFFFFFFF 0 \"00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF\"\n"
                        "\n"
                        "ReadDataBloc 4 FFFFFFFFFFFF 0\n");
    EXPECT_EQ(o.status, 0) << o.out << o.err;
    EXPECT_NE(o.out.find("Writing block 4"), std::string::npos);
    EXPECT_NE(o.out.find("BlocContents = 00112233445566778899AABBCCDDEEFF"), std::string::npos) << o.out;
}

TEST(Twn4, TheExampleScriptPersonalisesACard) {
    const auto o = Twn4(std::string("--simulate mifare1k --script ") + EXAMPLES_DIR + "/personalise-mifare1k.twn4");
    EXPECT_EQ(o.status, 0) << o.out << o.err;
    EXPECT_EQ(o.out.find("sceError"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("Security0 = 13"), std::string::npos) << o.out;
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

TEST(Twn4, StopOnErrorSkipsTheRemainingCalls) {
    const std::string calls = "ReadDataBloc 4 A0A1A2A3A4A5 0 -- ReadSerialNumber";
    EXPECT_NE(Twn4("--simulate mifare1k " + calls).out.find("ReadSerialNumber: sceSuccess"), std::string::npos);
    const auto stopped = Twn4("--stop-on-error --simulate mifare1k " + calls);
    EXPECT_EQ(stopped.status, 1);
    EXPECT_EQ(stopped.out.find("ReadSerialNumber"), std::string::npos) << stopped.out;
}

struct UsageCase {
    const char* arguments;
    const char* input;
    const char* mustSay;
};

TEST(Twn4, UsageErrorsExitWithTwoAndSayWhatWasWrong) {
    const std::vector<UsageCase> cases{
        {"--simulate mifare1k NoSuchMember", "", "unknown member \"NoSuchMember\""},
        {"--simulate mifare1k ReadDataBloc four FFFFFFFFFFFF 0", "", "argument 1 (BlocNumber)"},
        {"--simulate mifare1k ReadDataBloc 4 FFFFFFFFFFFF 256", "", "argument 3 (KeyType)"},
        {"--simulate mifare1k ReadDataBloc 4", "", "missing argument 2 (Key As String)"},
        {"--simulate mifare1k ReadSerialNumber x y", "", "takes at most 1 argument"},
        {"--simulate desfire DESFireSelectApplication A1B2C3 one 00", "", "argument 2 (KeyNumber)"},
        {"--simulate mifare1k --script -", "ReadSerialNumber\nReadDataBloc 4 \"FFFF\n", "line 2"},
        {"--simulate mifare1k --script -", "ReadSerialNumber\nWriteValueBloc 4 FFFFFFFFFFFF 0 3000000000\n",
         "line 2, argument 4 (Value)"},
        {"--simulate floppy ReadSerialNumber", "", "floppy"},
        {"--bogus", "", "unknown option --bogus"},
        {"", "", "nothing to do"},
    };
    for (const auto& c : cases) {
        const auto o = Twn4(c.arguments, c.input);
        EXPECT_EQ(o.status, 2) << c.arguments << "\n" << o.out << o.err;
        EXPECT_NE(o.err.find(c.mustSay), std::string::npos) << c.arguments << ": " << o.err;
    }
}

TEST(Twn4, AScriptThatDoesNotParseSendsNothing) {
    TempDir dir;
    const std::string state = dir / "card.json";
    const auto o = Twn4("--simulate mifare1k:" + state + " --script -",
                        "WriteDataBloc 4 FFFFFFFFFFFF 0 FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF\nReadDataBloc x\n");
    EXPECT_EQ(o.status, 2);
    EXPECT_TRUE(o.out.empty()) << o.out;
    EXPECT_FALSE(std::filesystem::exists(state)) << "the card was touched";
}

TEST(Twn4, MembersListsTheWholeTypeLibrary) {
    const auto o = Twn4("members");
    ASSERT_EQ(o.status, 0);
    for (const auto& m : elatectwn4::Members()) {
        if (m.interfaceName != "_Encoder" || m.kind == elatectwn4::MemberKind::PropertyPut) continue;
        EXPECT_NE(o.out.find(elatectwn4::Signature(m)), std::string::npos) << m.name;
    }
}

TEST(Twn4, ReadersListsTheSimulatedReader) {
    const auto o = Twn4("--simulate desfire readers");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, "Virtual PCD 00 00\n");
}

TEST(Twn4, HelpIsAManualPage) {
    const auto o = Twn4("--help");
    EXPECT_EQ(o.status, 0);
    for (const char* section : {"SYNOPSIS", "OPTIONS", "EXIT STATUS", "EXAMPLES", "--simulate KIND[:STATEFILE]"}) {
        EXPECT_NE(o.out.find(section), std::string::npos) << section;
    }
}

}  // namespace
