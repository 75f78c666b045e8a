// Helpers of the end-to-end programs that run under run_e2e.sh: what the
// script set up, the bridges' control sockets, waiting on pcscd for a card to
// come or go, and running a tool with its output captured.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace elatectwn4::e2e {

/// The variable's value, "" when unset.
std::string Env(const char* name);

/// What run_e2e.sh tells the programs.
struct E2eSetup {
    std::string desfireReader = Env("E2E_DESFIRE_READER");
    std::string mifareReader = Env("E2E_MIFARE_READER");
    std::string desfireUid = Env("E2E_DESFIRE_UID");
    std::string mifareUid = Env("E2E_MIFARE_UID");
    std::string mifareControl = Env("E2E_MIFARE_CONTROL");
    std::string twn4 = Env("E2E_TWN4");
    int desfirePid = std::atoi(Env("E2E_DESFIRE_PID").c_str());  ///< its bridge: SIGUSR1 removes, SIGUSR2 inserts

    bool Complete() const {
        return !desfireReader.empty() && !mifareReader.empty() && !desfireUid.empty() && !mifareUid.empty() &&
               !mifareControl.empty() && !twn4.empty() && desfirePid > 0;
    }
};

/// Waits until pcscd reports a card in `reader` (present) or none (!present).
bool WaitForCard(const std::string& reader, bool present,
                 std::chrono::milliseconds patience = std::chrono::seconds(10));

/// The tests of a program run_e2e.sh runs: what the script set up, both cards
/// in their readers before each test.
class ServedCards : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(setup_.Complete()) << "run this program through run_e2e.sh, which starts pcscd and the bridges";
        ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "no card in " << setup_.mifareReader;
        ASSERT_TRUE(WaitForCard(setup_.desfireReader, true)) << "no card in " << setup_.desfireReader;
    }

    E2eSetup setup_;
};

/// One line to a bridge's control socket ("remove", "insert", "status") and
/// its one-line answer; a text in angle brackets when the socket is not there.
std::string Control(const std::string& socketPath, const std::string& command);

struct ToolRun {
    int exitStatus = -1;  ///< -1 when the program could not be run or was killed
    std::string output;   ///< everything it wrote to standard output
};

/// Runs `program` with `args` and waits for it.
ToolRun RunTool(const std::string& program, const std::vector<std::string>& args);

/// A fresh directory under the system's temporary directory, removed with
/// everything in it when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& prefix);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// The whole file as text ("" when it cannot be read).
std::string ReadFile(const std::filesystem::path& path);

}  // namespace elatectwn4::e2e
