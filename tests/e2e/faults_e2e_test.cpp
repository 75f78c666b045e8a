// Faults of the real PC/SC path, against the cards run_e2e.sh serves: two
// encoders on the two vpcd readers used from two threads at once, and the
// resource manager stopped and started again under open encoders. Runs last:
// it restarts the pcscd that pcscd-up.sh started for the run (by its PID),
// and only that one.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <string>

#include "e2e_support.h"
#include "elatectwn4/encoder.h"
#include "support/two_sessions.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::e2e;

const std::string kTransportKey = "FFFFFFFFFFFF";

class Faults : public ServedCards {
protected:
    Encoder& Opened(Encoder& e, const std::string& reader) {
        e.Parameters("Device=" + reader);
        EXPECT_EQ(e.OpenEncoder(), sceSuccess) << test::SessionRecord(e.LastError());
        EXPECT_EQ(e.LastError().Number, 0) << test::SessionRecord(e.LastError());
        return e;
    }
};

TEST_F(Faults, TwoEncodersOnTwoReadersFromTwoThreadsKeepTheirOwnCardAndRecord) {
    Encoder mifare(SystemPcsc()), desfire(SystemPcsc());
    const std::array<test::SessionPlan, 2> plans{{
        {&Opened(mifare, setup_.mifareReader), setup_.mifareUid,
         [](Encoder& e) {
             std::string block;
             return e.ReadDataBloc(4, "A0A1A2A3A4A5", 0, block);
         },
         test::SessionRecord(ErrorNumber::CommandFailed, "MifareAuthenticate", "SCardTransmit:GeneralAuthenticate",
                             "6300")},
        {&Opened(desfire, setup_.desfireReader), setup_.desfireUid,
         [](Encoder& e) { return e.DESFireSelectApplication("0A0B0C", 0, "00112233445566778899AABBCCDDEEFF"); },
         test::SessionRecord(ErrorNumber::CannotConnectToApplication, "DESFireSelectApplication",
                             "DesfireAuthenticate2", "A0")},
    }};
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(test::InterleaveSessions(plans, 40), "");
}

// The pcscd that pcscd-up.sh started and recorded, or 0.
pid_t RecordedPcscd() {
    std::ifstream state(Env("ELATECTWN4_PCSCD_STATE"));
    std::string line;
    pid_t pid = 0;
    while (std::getline(state, line)) {
        if (line.starts_with("pid=")) pid = static_cast<pid_t>(std::atoi(line.c_str() + 4));
    }
    return pid > 0 && ReadFile("/proc/" + std::to_string(pid) + "/comm") == "pcscd\n" ? pid : 0;
}

// A zombie still answers kill(pid, 0); it counts as gone.
bool Running(pid_t pid) {
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    return ::kill(pid, 0) == 0 && status.find("State:\tZ") == std::string::npos;
}

TEST_F(Faults, EncodersOpenWhilePcscdStopsFailAndOpenAgainOnceItIsBack) {
    const std::string scripts = Env("E2E_SCRIPTS"), vcard = Env("E2E_VCARD");
    ASSERT_FALSE(scripts.empty() || vcard.empty()) << "run_e2e.sh names the scripts and the bridge";
    const pid_t pcscd = RecordedPcscd();
    if (pcscd == 0) GTEST_SKIP() << "the pcscd running was not started by pcscd-up.sh; it is not ours to stop";

    // One encoder is used while pcscd is away, the other is left alone until it is back.
    Encoder used(SystemPcsc()), idle(SystemPcsc());
    Opened(used, setup_.mifareReader);
    Opened(idle, setup_.desfireReader);
    std::string uid;
    ASSERT_EQ(used.ReadSerialNumber(uid), sceSuccess) << test::SessionRecord(used.LastError());

    // Whatever happens below, pcscd comes back for what runs after.
    struct Restart {
        std::string scripts, vcard;
        ~Restart() {
            const ToolRun up = RunTool(scripts + "/pcscd-up.sh", {"--vcard", vcard});
            EXPECT_EQ(up.exitStatus, 0) << up.output;
        }
    } restart{scripts, vcard};
    const ToolRun down = RunTool(scripts + "/pcscd-down.sh", {});
    ASSERT_EQ(down.exitStatus, 0) << down.output;
    ASSERT_FALSE(Running(pcscd)) << "pcscd " << pcscd << " still runs: " << down.output;

    // The first call finds the resource manager gone and closes the encoder;
    // the next is refused as on any closed encoder, and opening needs pcscd.
    const std::string notRunning = "The Smart card resource manager is not running.";
    constexpr std::uint32_t kNoService = 0x8010001D;
    uid = "kept";
    EXPECT_EQ(used.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(test::SessionRecord(used.LastError()),
              test::SessionRecord(ErrorNumber::CannotOpenReader, "SelectCardInRange", "SCardConnect", notRunning,
                                  kNoService));
    EXPECT_EQ(uid, "kept");
    std::string block = "kept";
    EXPECT_EQ(used.ReadDataBloc(1, kTransportKey, 0, block), sceError);
    EXPECT_EQ(test::SessionRecord(used.LastError()),
              test::SessionRecord(ErrorNumber::EncoderClosed, "MifareAuthenticate:LoadKey", "", ""));
    EXPECT_EQ(block, "");
    EXPECT_EQ(used.OpenEncoder(), sceError);
    EXPECT_EQ(test::SessionRecord(used.LastError()),
              test::SessionRecord(ErrorNumber::CannotOpenContext, "OpenEncoder", "SCardEstablishContext", notRunning,
                                  kNoService));
    EXPECT_EQ(used.EncoderState(), sceClosed);

    {
        const ToolRun up = RunTool(scripts + "/pcscd-up.sh", {"--vcard", vcard});
        ASSERT_EQ(up.exitStatus, 0) << up.output;
    }
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "the MIFARE bridge did not come back";
    ASSERT_TRUE(WaitForCard(setup_.desfireReader, true)) << "the DESFire bridge did not come back";

    for (Encoder* e : {&used, &idle}) {
        const std::string& reader = e == &used ? setup_.mifareReader : setup_.desfireReader;
        SCOPED_TRACE(reader);
        EXPECT_EQ(e->OpenEncoder(), sceSuccess) << test::SessionRecord(e->LastError());
        EXPECT_EQ(e->LastError().Number, 0) << test::SessionRecord(e->LastError());
        EXPECT_EQ(e->ReadSerialNumber(uid), sceSuccess) << test::SessionRecord(e->LastError());
        EXPECT_EQ(uid, e == &used ? setup_.mifareUid : setup_.desfireUid);
    }
    EXPECT_EQ(used.ReadDataBloc(1, kTransportKey, 0, block), sceSuccess) << test::SessionRecord(used.LastError());
}

}  // namespace

// A card-type registry of the run's own, empty: nothing of the machine's is read or written.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const elatectwn4::e2e::TempDir registry("e2e-faults-registry");
    ::setenv("ELATECTWN4_REGISTRY_DIR", registry.path().c_str(), 1);
    return RUN_ALL_TESTS();
}
