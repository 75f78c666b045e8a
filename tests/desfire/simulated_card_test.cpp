// The members as a host calls them: through an Encoder opened on the
// simulated reader holding a simulated EV1 card.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "apdu_fixture.h"
#include "elatectwn4/encoder.h"
#include "sim/desfire/desfire_sim.h"
#include "sim/simulated_pcsc.h"
#include "support/registry_dir.h"

namespace elatectwn4 {
namespace {

using desfire::Line;

const std::string kFactoryKey = "0000000000000000";
const std::string kAppMasterKey = "1122334455667788";
const std::string kReadKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";

class DesfireThroughEncoder : public ::testing::Test {
protected:
    void SetUp() override {
        Insert({});
        encoder.Parameters("Device=" + std::string(sim::kDefaultReaderNames[0]));
        ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Record();
    }
    void Insert(std::vector<std::uint8_t> uid) {
        pcsc->Readers()[0]->Insert(std::make_shared<sim::desfire::DesfireCard>(std::move(uid)));
    }
    std::string Record() { return test::RecordText(encoder.LastError()); }
    void Reopen() {
        ASSERT_EQ(encoder.CloseEncoder(), sceSuccess);
        ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    }

    test::RegistryDir registry;
    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    Encoder encoder{pcsc};
};

TEST_F(DesfireThroughEncoder, ApplicationKeysChangeInTheFramingTheCardTakes) {
    ASSERT_EQ(encoder.DESFireSelectRoot(kFactoryKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 3), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, kFactoryKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireChangeKey(0, kFactoryKey, kAppMasterKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, kAppMasterKey), sceSuccess) << Record();

    // The component's own two-piece frame: the card takes only 24 bytes.
    EXPECT_EQ(encoder.DESFireChangeKey(1, kFactoryKey, kReadKey), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::OperationFailed, "DESFireChangeKey", "SCardTransmit:DesfireChangeKey", "7E"));
    encoder.Parameters("Conformance=card");
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, kAppMasterKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireChangeKey(1, kFactoryKey, kReadKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 1, kReadKey), sceSuccess) << Record();

    // Closing the encoder ends the session.
    Reopen();
    std::int32_t version = -1;
    EXPECT_EQ(encoder.DESFireGetKeyVersion(2, version), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::NotAuthenticated, "DESFireGetKeyVersion"));
}

TEST_F(DesfireThroughEncoder, TheVersionRecordIsKeptUntilTheEncoderCloses) {
    Variant uid;
    ASSERT_EQ(encoder.DESFireGetVersion(dfvUID, uid), sceSuccess) << Record();
    const Variant first = uid;
    // Another card in the field: the cached record still answers until the encoder is closed.
    const std::vector<std::uint8_t> other{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    pcsc->Readers()[0]->Remove();
    Insert(other);
    ASSERT_EQ(encoder.DESFireGetVersion(dfvUID, uid), sceSuccess) << Record();
    EXPECT_EQ(uid, first);
    Reopen();
    ASSERT_EQ(encoder.DESFireGetVersion(dfvUID, uid), sceSuccess) << Record();
    EXPECT_EQ(uid, Variant(other));
}

}  // namespace
}  // namespace elatectwn4
