// The public Encoder over the system's PC/SC, and the twn4 tool, against the
// simulated cards that run_e2e.sh serves through pcscd and vpcd: a DESFire
// card and a MIFARE Classic 1K card whose bridge takes it out of the field and
// puts it back on request. What the component makes of each answer is tested
// below this layer; here the point is that the real resource manager, driver
// and bridge carry it, and that encoders open when pcscd stops survive its
// restart. run_e2e.sh runs PcscdRestart last.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <winscard.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "elatectwn4/encoder.h"
#include "sim/hex_util.h"
#include "sim/reader.h"
#include "support/registry_dir.h"
#include "support/two_sessions.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::e2e;
using test::SessionRecord;

std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

// What run_e2e.sh tells the program.
struct E2eSetup {
    std::string desfireReader = Env("E2E_DESFIRE_READER");
    std::string mifareReader = Env("E2E_MIFARE_READER");
    std::string desfireUid = Env("E2E_DESFIRE_UID");
    std::string mifareUid = Env("E2E_MIFARE_UID");
    std::string mifareControl = Env("E2E_MIFARE_CONTROL");
    std::string twn4 = Env("E2E_TWN4");
    int desfirePid = std::atoi(Env("E2E_DESFIRE_PID").c_str());  // its bridge: SIGUSR1 removes, SIGUSR2 inserts
};

// Whether pcscd reports a card in `reader` (present) or none (!present) within ten seconds.
bool WaitForCard(const std::string& reader, bool present) {
    SCARDCONTEXT context = 0;
    if (SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context) != SCARD_S_SUCCESS) return false;
    SCARD_READERSTATE state{};
    state.szReader = reader.c_str();
    state.dwCurrentState = SCARD_STATE_UNAWARE;
    const DWORD wanted = present ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool reached = false;
    while (!reached && std::chrono::steady_clock::now() < deadline) {
        const LONG rc = SCardGetStatusChange(context, 250, &state, 1);
        if (rc != SCARD_S_SUCCESS && rc != SCARD_E_TIMEOUT) break;
        reached = (state.dwEventState & wanted) != 0;
        state.dwCurrentState = state.dwEventState & ~SCARD_STATE_CHANGED;
    }
    SCardReleaseContext(context);
    return reached;
}

// Both cards in their readers before each test.
class ServedCards : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(setup_.mifareControl.empty() || setup_.twn4.empty() || setup_.desfirePid <= 0)
            << "run this program through run_e2e.sh, which starts pcscd and the bridges";
        ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "no card in " << setup_.mifareReader;
        ASSERT_TRUE(WaitForCard(setup_.desfireReader, true)) << "no card in " << setup_.desfireReader;
    }

    E2eSetup setup_;
};

struct ToolRun {
    int exitStatus = -1;  // -1 when the program could not be run or was killed
    std::string output;   // its standard output
};

ToolRun RunTool(const std::string& program, const std::vector<std::string>& args) {
    // Through the shell, every word quoted: 'it'\''s' for it's.
    const auto quoted = [](const std::string& word) {
        std::string out = "'";
        for (char c : word)
            out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    };
    std::string command = quoted(program);
    for (const auto& arg : args)
        command += " " + quoted(arg);
    ToolRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        run.output.append(buffer, n);
    const int status = ::pclose(pipe);
    if (status != -1 && WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
    return run;
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

const std::string TransportKey = "FFFFFFFFFFFF";

void Open(Encoder& encoder, const std::string& reader) {
    encoder.Parameters("Device=" + reader);
    EXPECT_EQ(encoder.OpenEncoder(), sceSuccess) << SessionRecord(encoder.LastError());
    EXPECT_EQ(encoder.LastError().Number, 0) << SessionRecord(encoder.LastError());
}

class EndToEnd : public ServedCards {};

TEST_F(EndToEnd, EachCardsIdentityAndRawAnswersComeThroughPcscd) {
    struct Row {
        std::string reader, kind, uid;
        sceCardTypes type;
        std::vector<std::string> escapes;  // raw commands the reader passes to the card
    };
    const Row rows[] = {
        {setup_.mifareReader, "mifare1k", setup_.mifareUid, sceMifare1K, {"FFCA000000"}},
        // A native DESFire frame of one byte, which vpcd must not take for a power message,
        // and its continuations, so that the card is left with no answer half given.
        {setup_.desfireReader, "desfire", setup_.desfireUid, sceUnknownType, {"60", "AF", "AF"}},
    };
    // Both vpcd slots, as the system lists them.
    const auto pcsc = SystemPcsc();
    PcscHandle context = 0;
    std::vector<std::string> readers;
    ASSERT_EQ(pcsc->EstablishContext(pcsc_const::ScopeSystem, context), pcsc_code::Success);
    EXPECT_EQ(pcsc->ListReaders(context, readers), pcsc_code::Success);
    EXPECT_EQ(readers, (std::vector<std::string>{setup_.desfireReader, setup_.mifareReader}));
    pcsc->ReleaseContext(context);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reader);
        Encoder encoder(SystemPcsc());
        Open(encoder, row.reader);
        EXPECT_EQ(encoder.EncoderState(), sceReady);
        std::string atr = encoder.ATRString();
        std::erase(atr, ' ');
        EXPECT_EQ(atr, sim::ToHex(sim::MakeCard(row.kind)->Atr()));
        EXPECT_EQ(encoder.CardType(), row.type) << "only the MIFARE Classic 1K type is registered";
        std::string uid;
        EXPECT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << SessionRecord(encoder.LastError());
        EXPECT_EQ(uid, row.uid);

        sim::Reader reference("reference");
        reference.Insert(sim::MakeCard(row.kind, *sim::FromHex(row.uid)));
        for (const std::string& escape : row.escapes) {
            std::string raw;
            EXPECT_EQ(encoder.Escape(escape, raw), sceSuccess) << SessionRecord(encoder.LastError());
            EXPECT_EQ(raw, sim::ToHex(reference.Transmit(*sim::FromHex(escape)))) << escape;
        }
        EXPECT_EQ(encoder.CloseEncoder(), sceSuccess);
    }
}

// The MIFARE card leaves through the control socket, the DESFire card
// through the bridge's signals.
TEST_F(EndToEnd, ACardLeavingAndComingBackIsFollowed) {
    struct PutBack {
        std::string socket;
        pid_t pid;
        ~PutBack() {
            Control(socket, "insert");
            ::kill(pid, SIGUSR2);
        }
    } putBack{setup_.mifareControl, setup_.desfirePid};

    ASSERT_EQ(Control(setup_.mifareControl, "remove"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, false)) << "the reader still reports a card";
    Encoder encoder(SystemPcsc());
    encoder.Parameters("Device=" + setup_.mifareReader);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << SessionRecord(encoder.LastError());
    EXPECT_EQ(SessionRecord(encoder.LastError()),
              SessionRecord(ErrorNumber::NoCard, "OpenEncoder", "SCardConnect",
                            "No Smart Card is currently in the device.", 0x8010000C));
    EXPECT_EQ(encoder.EncoderState(), sceOpened);

    ASSERT_EQ(Control(setup_.mifareControl, "insert"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "the card did not come back";
    std::string uid;
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << SessionRecord(encoder.LastError());
    EXPECT_EQ(uid, setup_.mifareUid);

    // Taken out in the middle of the session.
    ASSERT_EQ(Control(setup_.mifareControl, "remove"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, false)) << "the reader still reports a card";
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder.LastError().Number, ErrorValue(ErrorNumber::NoCard)) << SessionRecord(encoder.LastError());
    EXPECT_EQ(encoder.EncoderState(), sceOpened);

    ASSERT_EQ(::kill(setup_.desfirePid, SIGUSR1), 0);
    EXPECT_TRUE(WaitForCard(setup_.desfireReader, false)) << "SIGUSR1 did not take the DESFire card out";
    ASSERT_EQ(::kill(setup_.desfirePid, SIGUSR2), 0);
    EXPECT_TRUE(WaitForCard(setup_.desfireReader, true)) << "SIGUSR2 did not put the DESFire card back";
}

// twn4 on the system's readers: authenticated and enciphered DESFire sessions
// through pcscd. The card keeps its new keys for the rest of the run.
TEST_F(EndToEnd, Twn4PersonalisesTheDesfireCardWithTheExampleScript) {
    const ToolRun run = RunTool(setup_.twn4, {"--json", "--reader", setup_.desfireReader, "--script",
                                              std::string(EXAMPLES_DIR) + "/personalise-desfire.twn4"});
    EXPECT_EQ(run.exitStatus, 0) << run.output;
    std::vector<nlohmann::json> calls;
    std::istringstream lines(run.output);
    for (std::string line; std::getline(lines, line);) {
        auto call = nlohmann::json::parse(line, nullptr, false);
        if (call.is_object() && call.contains("member")) calls.push_back(std::move(call));
    }
    ASSERT_GT(calls.size(), 40u);
    for (const auto& call : calls)
        EXPECT_EQ(call.value("result", -1), 0) << call;
    EXPECT_EQ(calls.front()["out"].value("SerialNumber", ""), setup_.desfireUid);
    EXPECT_EQ(calls.back()["member"], "DESFireGetFileSettings");
}

// The pcscd that pcscd-up.sh started and recorded, or 0.
pid_t RecordedPcscd() {
    std::ifstream state(Env("ELATECTWN4_PCSCD_STATE"));
    pid_t pid = 0;
    for (std::string line; std::getline(state, line);) {
        if (line.starts_with("pid=")) pid = static_cast<pid_t>(std::atoi(line.c_str() + 4));
    }
    return pid > 0 && ReadFile("/proc/" + std::to_string(pid) + "/comm") == "pcscd\n" ? pid : 0;
}

// A zombie still answers kill(pid, 0); it counts as gone.
bool Running(pid_t pid) {
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    return ::kill(pid, 0) == 0 && status.find("State:\tZ") == std::string::npos;
}

class PcscdRestart : public ServedCards {};

TEST_F(PcscdRestart, EncodersOpenWhilePcscdStopsFailAndOpenAgainOnceItIsBack) {
    const std::string scripts = Env("E2E_SCRIPTS"), vcard = Env("E2E_VCARD");
    ASSERT_FALSE(scripts.empty() || vcard.empty()) << "run_e2e.sh names the scripts and the bridge";
    const pid_t pcscd = RecordedPcscd();
    if (pcscd == 0) GTEST_SKIP() << "the pcscd running was not started by pcscd-up.sh; it is not ours to stop";

    // One encoder is used while pcscd is away, the other is left alone until it is back.
    Encoder used(SystemPcsc()), idle(SystemPcsc());
    Open(used, setup_.mifareReader);
    Open(idle, setup_.desfireReader);
    // Whatever happens below, pcscd comes back for what runs after.
    struct Restart {
        std::string scripts, vcard;
        ~Restart() { EXPECT_EQ(RunTool(scripts + "/pcscd-up.sh", {"--vcard", vcard}).exitStatus, 0); }
    } restart{scripts, vcard};
    const ToolRun down = RunTool(scripts + "/pcscd-down.sh", {});
    ASSERT_EQ(down.exitStatus, 0) << down.output;
    ASSERT_FALSE(Running(pcscd)) << "pcscd " << pcscd << " still runs: " << down.output;

    // The first call finds the resource manager gone and closes the encoder;
    // opening again needs pcscd.
    const std::string notRunning = "The Smart card resource manager is not running.";
    std::string uid;
    EXPECT_EQ(used.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(SessionRecord(used.LastError()), SessionRecord(ErrorNumber::CannotOpenReader, "SelectCardInRange",
                                                             "SCardConnect", notRunning, 0x8010001D));
    EXPECT_EQ(used.EncoderState(), sceClosed);
    EXPECT_EQ(used.OpenEncoder(), sceError);
    EXPECT_EQ(SessionRecord(used.LastError()), SessionRecord(ErrorNumber::CannotOpenContext, "OpenEncoder",
                                                             "SCardEstablishContext", notRunning, 0x8010001D));

    ASSERT_EQ(RunTool(scripts + "/pcscd-up.sh", {"--vcard", vcard}).exitStatus, 0);
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "the MIFARE bridge did not come back";
    ASSERT_TRUE(WaitForCard(setup_.desfireReader, true)) << "the DESFire bridge did not come back";
    for (auto [encoder, reader, cardUid] : {std::tuple{&used, setup_.mifareReader, setup_.mifareUid},
                                            std::tuple{&idle, setup_.desfireReader, setup_.desfireUid}}) {
        Open(*encoder, reader);
        EXPECT_EQ(encoder->ReadSerialNumber(uid), sceSuccess) << SessionRecord(encoder->LastError());
        EXPECT_EQ(uid, cardUid) << reader;
    }
    EXPECT_EQ(used.ReadDataBloc(1, TransportKey, 0, uid), sceSuccess) << SessionRecord(used.LastError());
}

}  // namespace

// The card-type registry every test (and the twn4 runs) reads: only the
// MIFARE Classic 1K type, and no "Add new cards", so nothing is ever added.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const elatectwn4::test::RegistryDir registry;
    registry.WriteCardTypes("\"MIFARE Classic 1K\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
    return RUN_ALL_TESTS();
}
