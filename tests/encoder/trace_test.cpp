// The trace a reconnection writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "elatectwn4/encoder.h"
#include "encoder_test_util.h"
#include "support/registry_dir.h"
#include "support/scripted_pcsc.h"
#include "support/trace_file.h"

namespace elatectwn4::test {
namespace {

using ::testing::ElementsAre;

class Trace : public ::testing::Test {
protected:
    void SetUp() override { ClearTrace(); }

    // The session's own lines; the command layer's "Sending"/"Received" lines
    // are that layer's business.
    static std::vector<std::string> SessionLines() {
        std::vector<std::string> lines;
        for (std::string& line : TraceLines()) {
            if (!line.starts_with("Sending ") && !line.starts_with("Received: ")) lines.push_back(std::move(line));
        }
        return lines;
    }

    RegistryDir registry;
};

constexpr const char* kReaderModeAtr = "3B 86 81 11 FE 81 43 69 6E 64 79 30";

TEST_F(Trace, ASuccessfulReconnectionIsTracedStepByStep) {
    auto fake = std::make_shared<ScriptedPcsc>();
    fake->WillGetAttrib(0, kReaderModeAtr);
    fake->Expect("FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF").Reply("90 00");
    fake->WillListReaders(0, {"TWN4 SAM 00", "Reader A", "TWN4 SAM 01"});
    Encoder encoder(fake);
    encoder.Parameters("Device=Reader A");
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);

    EXPECT_THAT(SessionLines(),
                ElementsAre("Disconnecting card", "Enumarating slots", "3 slots found, using \"Reader A\"",
                            "Connection successful", "New ATR is " + kMifare1KAtr));
}

TEST_F(Trace, AFailedReconnectionTracesTheCodeAndItsText) {
    auto fake = std::make_shared<ScriptedPcsc>();
    fake->WillGetAttrib(0, kReaderModeAtr);
    fake->Expect("FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF").Reply("90 00");
    fake->WillListReaders(0, {"TWN4 CCID"});
    fake->WillConnect(0);
    fake->WillConnect(0x80100017);
    Encoder encoder(fake);
    encoder.Parameters("Device=Reader A");
    ASSERT_EQ(encoder.OpenEncoder(), sceError);

    EXPECT_THAT(SessionLines(),
                ElementsAre("Disconnecting card", "Enumarating slots", "1 slots found, using \"TWN4 CCID\"",
                            "Error 0x80100017: The specified reader is not currently available for use."));
}

TEST_F(Trace, AnOrdinaryOpenWritesNoSessionLines) {
    auto fake = std::make_shared<ScriptedPcsc>();
    Encoder encoder(fake);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    EXPECT_TRUE(SessionLines().empty());
}

}  // namespace
}  // namespace elatectwn4::test
