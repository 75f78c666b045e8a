// The public Encoder over the system's PC/SC, and the twn4 tool, against the
// simulated cards that run_e2e.sh serves through pcscd and vpcd: a DESFire
// card and a MIFARE Classic 1K card, the latter with a control socket that
// takes it out of the field and puts it back. One run per area: what the
// component makes of each answer is tested below this layer; here the point
// is that the real resource manager, driver and bridge carry it, with pcscd's
// own codes.
//
// Expected values come from the simulator's reference implementation, the
// card's own layout rules and the bridge's state file, never from the component.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "elatectwn4/encoder.h"
#include "sim/bridge/state_file.h"
#include "sim/mifare_classic.h"
#include "sim/reader.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::e2e;

const std::string TransportKey = "FFFFFFFFFFFF";
const std::string MifareAtrFragment = "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01";

// Set by main() before any test runs.
std::filesystem::path RegistryFile;

// The record as one comparable text, so that a mismatch shows every field.
std::string Describe(const CError& e) {
    return std::to_string(e.Number) + " \"" + e.Description + "\" " + std::to_string(e.LastDllError) + " \"" +
           e.ComFunction + "\" \"" + e.RdrCommand + "\" \"" + e.RdrRetCode + "\"";
}

std::string Record(ErrorNumber number, std::string comFunction, std::string rdrCommand = {},
                   std::string rdrRetCode = {}, std::uint32_t lastDllError = 0) {
    CError e;
    e.Number = ErrorValue(number);
    e.Description = std::string(ErrorDescription(number));
    e.LastDllError = static_cast<std::int32_t>(lastDllError);
    e.ComFunction = std::move(comFunction);
    e.RdrCommand = std::move(rdrCommand);
    e.RdrRetCode = std::move(rdrRetCode);
    return Describe(e);
}

std::string RandomBlock() {
    static std::mt19937 generator{std::random_device{}()};
    Bytes bytes(16);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(generator());
    return Hex(bytes);
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
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reader);
        Encoder encoder(SystemPcsc());
        encoder.Parameters("Device=" + row.reader);
        ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
        EXPECT_EQ(encoder.LastError().Number, 0) << Describe(encoder.LastError());
        EXPECT_EQ(encoder.EncoderState(), sceReady);
        EXPECT_EQ(encoder.ATRString(), SpacedHex(sim::MakeCard(row.kind)->Atr()));
        EXPECT_EQ(encoder.CardType(), row.type) << "only the MIFARE Classic 1K type is registered";
        std::string uid;
        ASSERT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << Describe(encoder.LastError());
        EXPECT_EQ(uid, row.uid);

        sim::Reader reference("reference");
        reference.Insert(sim::MakeCard(row.kind, FromHex(row.uid)));
        for (const std::string& escape : row.escapes) {
            std::string raw;
            ASSERT_EQ(encoder.Escape(escape, raw), sceSuccess) << Describe(encoder.LastError());
            EXPECT_EQ(raw, Hex(reference.Transmit(FromHex(escape)))) << escape;
        }
        EXPECT_EQ(encoder.CloseEncoder(), sceSuccess);
        EXPECT_EQ(encoder.EncoderState(), sceClosed);
    }
    EXPECT_EQ(ReadFile(RegistryFile).find("Unknown ("), std::string::npos)
        << "recorded although \"Add new cards\" is absent:\n"
        << ReadFile(RegistryFile);
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
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(Describe(encoder.LastError()), Record(ErrorNumber::NoCard, "OpenEncoder", "SCardConnect",
                                                    "No Smart Card is currently in the device.", 0x8010000C));
    EXPECT_EQ(encoder.EncoderState(), sceOpened);

    ASSERT_EQ(Control(setup_.mifareControl, "insert"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "the card did not come back";
    EXPECT_EQ(encoder.EncoderState(), sceReady);
    std::string uid;
    ASSERT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(uid, setup_.mifareUid);

    // Taken out in the middle of the session.
    ASSERT_EQ(Control(setup_.mifareControl, "remove"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, false)) << "the reader still reports a card";
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder.LastError().Number, ErrorValue(ErrorNumber::NoCard)) << Describe(encoder.LastError());
    EXPECT_EQ(encoder.EncoderState(), sceOpened);

    ASSERT_EQ(::kill(setup_.desfirePid, SIGUSR1), 0);
    EXPECT_TRUE(WaitForCard(setup_.desfireReader, false)) << "SIGUSR1 did not take the DESFire card out";
    ASSERT_EQ(::kill(setup_.desfirePid, SIGUSR2), 0);
    EXPECT_TRUE(WaitForCard(setup_.desfireReader, true)) << "SIGUSR2 did not put the DESFire card back";
}

TEST_F(EndToEnd, RefusalsCarryPcscdsOwnCodes) {
    Encoder nowhere(SystemPcsc());
    nowhere.Parameters("Device=Virtual PCD 00 07 no such reader");
    EXPECT_EQ(nowhere.OpenEncoder(), sceError);
    EXPECT_EQ(Describe(nowhere.LastError()), Record(ErrorNumber::CannotOpenReader, "OpenEncoder", "SCardConnect",
                                                    "The specified reader name is not recognized.", 0x80100009));
    EXPECT_EQ(nowhere.EncoderState(), sceClosed);

    Encoder first(SystemPcsc()), second(SystemPcsc());
    first.Parameters("Device=" + setup_.mifareReader);
    second.Parameters("Device=" + setup_.mifareReader);
    ASSERT_EQ(first.OpenEncoder(), sceSuccess) << Describe(first.LastError());
    EXPECT_EQ(second.OpenEncoder(), sceError);
    EXPECT_EQ(Describe(second.LastError()),
              Record(ErrorNumber::CannotOpenReader, "OpenEncoder", "SCardConnect",
                     "The smart card cannot be accessed because of other connections outstanding.", 0x8010000B));
    EXPECT_EQ(first.CloseEncoder(), sceSuccess);
    EXPECT_EQ(second.OpenEncoder(), sceSuccess)
        << "the close did not release the card: " << Describe(second.LastError());
}

// A block stored on the card: the bridge keeps the card's state current.
TEST_F(EndToEnd, MifareMembersReachTheCardThroughPcscd) {
    Encoder encoder(SystemPcsc());
    encoder.Parameters("Device=" + setup_.mifareReader);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
    // The bridge stores the card before it answers, so its state file is current.
    const auto stored = [&](unsigned block) {
        const auto state = sim::bridge::ReadStateFile(setup_.mifareState);
        if (!state) return std::string("<no state file>");
        auto card = sim::MakeCard("mifare1k");
        card->Load(*state);
        const auto& raw = dynamic_cast<const sim::MifareClassicCard&>(*card).RawBlock(block);
        return Hex(Bytes(raw.begin(), raw.end()));
    };
    const auto read = [&](std::int32_t block, const std::string& key, std::uint8_t keyType) {
        std::string contents;
        if (encoder.ReadDataBloc(block, key, keyType, contents) != sceSuccess)
            return "<error " + Describe(encoder.LastError()) + ">";
        return contents;
    };

    std::string data = RandomBlock();
    ASSERT_EQ(encoder.WriteDataBloc(4, TransportKey, 0, data), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(read(4, TransportKey, 0), data);
    EXPECT_EQ(stored(4), data);

    // A refusal carries the reader's own status word through pcscd.
    EXPECT_EQ(read(8, "A0A1A2A3A4A5", 0), "<error " +
                                              Record(ErrorNumber::CommandFailed, "MifareAuthenticate",
                                                     "SCardTransmit:GeneralAuthenticate", "6300") +
                                              ">");
}

TEST_F(EndToEnd, Twn4ListsTheSystemsReadersAndCallsMembersOnOne) {
    const ToolRun readers = RunTool(setup_.twn4, {"readers"});
    ASSERT_EQ(readers.exitStatus, 0) << readers.output;
    const auto names = Lines(readers.output);
    EXPECT_NE(std::find(names.begin(), names.end(), setup_.desfireReader), names.end()) << readers.output;
    EXPECT_NE(std::find(names.begin(), names.end(), setup_.mifareReader), names.end()) << readers.output;

    const ToolRun run = RunTool(setup_.twn4, {"--reader", setup_.mifareReader, "--json", "ReadSerialNumber", "--",
                                              "ReadDataBloc", "1", TransportKey, "0"});
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    const auto lines = Lines(run.output);
    ASSERT_EQ(lines.size(), 2u) << run.output;
    const auto serial = nlohmann::json::parse(lines[0], nullptr, false);
    const auto block = nlohmann::json::parse(lines[1], nullptr, false);
    EXPECT_EQ(serial.value("member", ""), "ReadSerialNumber") << lines[0];
    EXPECT_EQ(serial["out"].value("SerialNumber", ""), setup_.mifareUid) << lines[0];
    EXPECT_EQ(block.value("result", -1), 0) << lines[1];
    EXPECT_EQ(block["out"].value("BlocContents", ""), std::string(32, '0')) << lines[1];

    const ToolRun missing =
        RunTool(setup_.twn4, {"--reader", "Virtual PCD 00 07 no such reader", "--json", "ReadSerialNumber"});
    EXPECT_EQ(missing.exitStatus, 1) << missing.output;
    const auto open = nlohmann::json::parse(missing.output, nullptr, false);
    EXPECT_EQ(open.value("member", ""), "OpenEncoder") << missing.output;
    EXPECT_EQ(open["error"].value("RdrRetCode", ""), "The specified reader name is not recognized.") << missing.output;
}

TEST_F(EndToEnd, Twn4PersonalisesTheDesfireCardWithTheExampleScript) {
    const std::string factoryKey = "0000000000000000";
    const std::string piccKey = "4A1B7C3D5E6F708192A3B4C5D6E7F809";
    // Whatever happens, the card goes back to its factory state for the other tests.
    struct Restore {
        const E2eSetup& setup;
        std::string factoryKey, piccKey;
        ~Restore() {
            Encoder encoder(SystemPcsc());
            encoder.Parameters("Device=" + setup.desfireReader);
            encoder.OpenEncoder();
            if (encoder.DESFireSelectRoot(piccKey) == sceSuccess) {
                encoder.DESFireFormat();
                encoder.DESFireChangeKey(0, piccKey, factoryKey);
            } else if (encoder.DESFireSelectRoot(factoryKey) == sceSuccess) {
                encoder.DESFireFormat();
            }
            EXPECT_EQ(encoder.DESFireSelectRoot(factoryKey), sceSuccess) << Describe(encoder.LastError());
        }
    } restore{setup_, factoryKey, piccKey};

    const ToolRun run = RunTool(setup_.twn4, {"--reader", setup_.desfireReader, "--json", "--script",
                                              std::string(EXAMPLES_DIR) + "/personalise-desfire.twn4"});
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    std::map<std::string, std::vector<nlohmann::json>> outs;
    for (const auto& line : Lines(run.output)) {
        const auto parsed = nlohmann::json::parse(line, nullptr, false);
        if (!parsed.is_object() || !parsed.contains("member")) continue;
        EXPECT_EQ(parsed.value("result", -1), 0) << line;
        outs[parsed["member"].get<std::string>()].push_back(parsed["out"]);
    }
    EXPECT_EQ(outs["ReadSerialNumber"].at(0).value("SerialNumber", ""), setup_.desfireUid);
    const std::string holder = "Jane Doe / 12 Harbour Road / Springfield / member 0042 / valid to 2028-12-31 ###";
    const auto& reads = outs["DESFireReadData"];
    ASSERT_EQ(reads.size(), 6u) << run.output;
    for (std::size_t file = 0; file < 3; ++file)
        EXPECT_EQ(reads[file].value("DataString", ""), holder) << "file " << file + 1;
    EXPECT_EQ(reads[5].value("DataString", ""), "Issued: Nov 2026");
    ASSERT_EQ(outs["DESFireGetValue"].size(), 3u) << run.output;
    EXPECT_EQ(outs["DESFireGetValue"][2].value("ValueData", -1), 120);
    EXPECT_EQ(outs["DESFireReadRecords"].at(0).value("DataString", ""), "2026-11-20 gate12026-11-21 gate3");
}

}  // namespace

// The card-type registry every test (and the twn4 runs) reads: only the
// MIFARE Classic 1K type, and no "Add new cards", so nothing is ever added.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const elatectwn4::e2e::TempDir registry("e2e-registry");
    RegistryFile = registry.path() / "HKEY_LOCAL_MACHINE.reg";
    std::ofstream(RegistryFile, std::ios::binary)
        << "Windows Registry Editor Version 5.00\r\n\r\n"
        << "[HKEY_LOCAL_MACHINE\\Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types]\r\n"
        << "\"MIFARE Classic 1K\"=\"11;" << MifareAtrFragment << ";4\"\r\n";
    ::setenv("ELATECTWN4_REGISTRY_DIR", registry.path().c_str(), 1);
    return RUN_ALL_TESTS();
}
