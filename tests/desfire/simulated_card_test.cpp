// The DESFire members as a host calls them: through an Encoder opened on the
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
const std::string kPiccKey = "4A1B7C3D5E6F708192A3B4C5D6E7F809";
const std::string kAppMasterKey = "1122334455667788";
const std::string kReadKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";

class DesfireThroughEncoder : public ::testing::Test {
protected:
    void SetUp() override {
        Insert({});
        encoder.Parameters("Device=" + std::string(sim::kDefaultReaderNames[0]));
        ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << test::RecordText(encoder.LastError());
    }
    void Insert(std::vector<std::uint8_t> uid) {
        card = std::make_shared<sim::desfire::DesfireCard>(std::move(uid));
        pcsc->Readers()[0]->Insert(card);
    }
    std::string Record() { return test::RecordText(encoder.LastError()); }
    std::string Applications() {
        std::string list = "not read";
        EXPECT_EQ(encoder.DESFireGetApplications(list), sceSuccess) << Record();
        return list;
    }

    test::RegistryDir registry;
    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    std::shared_ptr<sim::desfire::DesfireCard> card;
    Encoder encoder{pcsc};
};

TEST_F(DesfireThroughEncoder, TheCardLevelKeyChangesAndApplicationsComeAndGo) {
    ASSERT_EQ(encoder.DESFireSelectRoot(kFactoryKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireChangeKey(0, kFactoryKey, kPiccKey), sceSuccess) << Record();
    // The card ended the session with its key; the new key opens the next one.
    EXPECT_EQ(encoder.DESFireSelectRoot(kFactoryKey), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::AuthenticationFailure, "DESFireSelectRoot:DESFireSelectApplication",
                             "DesfireAuthenticate3", "AE"));
    // The component keeps its session fields; the card has dropped its own.
    EXPECT_EQ(encoder.DESFireFormat(), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::OperationFailed, "DESFireFormat", "SCardTransmit:DesfireFormat", "AE"));
    ASSERT_EQ(encoder.DESFireSelectRoot(kPiccKey), sceSuccess) << Record();

    ASSERT_EQ(encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 3), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireCreateApplication("01 02 03", DesfireKeySettings(0x0F), 1), sceSuccess) << Record();
    EXPECT_EQ(Applications(), "A1B2C3,010203");
    ASSERT_EQ(encoder.DESFireDeleteApplication("010203"), sceSuccess) << Record();
    EXPECT_EQ(Applications(), "A1B2C3");
    EXPECT_EQ(encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 1), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::OperationFailed, "DESFireCreateApplication",
                             "SCardTransmit:DesfireCreateApplication", "DE"));
    // Any refusal ends the card's session.
    ASSERT_EQ(encoder.DESFireSelectRoot(kPiccKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireFormat(), sceSuccess) << Record();
    EXPECT_EQ(Applications(), "");

    std::int32_t settings = -1, count = -1;
    ASSERT_EQ(encoder.DESFireGetKeySettings(settings, count), sceSuccess) << Record();
    EXPECT_EQ(settings, 0x0F);
    EXPECT_EQ(count, 1);
    ASSERT_EQ(
        encoder.DESFireChangeKeySettings(DesfireKeySettings(dfkConfigurationChangeable | dfkAllowChangeMasterKey)),
        sceSuccess)
        << Record();
    ASSERT_EQ(encoder.DESFireGetKeySettings(settings, count), sceSuccess) << Record();
    EXPECT_EQ(settings, 0x09);
}

TEST_F(DesfireThroughEncoder, ApplicationKeysChangeInTheFramingTheCardTakes) {
    ASSERT_EQ(encoder.DESFireSelectRoot(kFactoryKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 3), sceSuccess) << Record();
    EXPECT_EQ(encoder.DESFireSelectApplication("0A0B0C", 0, kFactoryKey), sceError);
    EXPECT_EQ(Record(),
              Line(ErrorNumber::CannotConnectToApplication, "DESFireSelectApplication", "DesfireAuthenticate2", "A0"));

    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, kFactoryKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireChangeKey(0, kFactoryKey, kAppMasterKey), sceSuccess) << Record();
    EXPECT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, kFactoryKey), sceError);
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, kAppMasterKey), sceSuccess) << Record();

    // The component's own two-piece frame: the card takes only 24 bytes.
    EXPECT_EQ(encoder.DESFireChangeKey(1, kFactoryKey, kReadKey), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::OperationFailed, "DESFireChangeKey", "SCardTransmit:DesfireChangeKey", "7E"));
    encoder.Parameters("Conformance=card");
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 0, kAppMasterKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireChangeKey(1, kFactoryKey, kReadKey), sceSuccess) << Record();
    ASSERT_EQ(encoder.DESFireSelectApplication("A1B2C3", 1, kReadKey), sceSuccess) << Record();
    std::int32_t version = -1;
    ASSERT_EQ(encoder.DESFireGetKeyVersion(2, version), sceSuccess) << Record();
    EXPECT_EQ(version, 0);

    ASSERT_EQ(encoder.CloseEncoder(), sceSuccess);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    EXPECT_EQ(encoder.DESFireGetKeyVersion(2, version), sceError);
    EXPECT_EQ(Record(), Line(ErrorNumber::NotAuthenticated, "DESFireGetKeyVersion"));
}

TEST_F(DesfireThroughEncoder, TheVersionRecordIsKeptUntilTheEncoderCloses) {
    Variant uid;
    ASSERT_EQ(encoder.DESFireGetVersion(dfvUID, uid), sceSuccess) << Record();
    EXPECT_EQ(uid,
              Variant(std::vector<std::uint8_t>(sim::desfire::kDefaultUid.begin(), sim::desfire::kDefaultUid.end())));

    // Another card in the field: the cached record still answers...
    const std::vector<std::uint8_t> other{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    pcsc->Readers()[0]->Remove();
    Insert(other);
    ASSERT_EQ(encoder.DESFireGetVersion(dfvUID, uid), sceSuccess) << Record();
    EXPECT_NE(uid, Variant(other));
    // ...until the encoder is closed.
    ASSERT_EQ(encoder.CloseEncoder(), sceSuccess);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    ASSERT_EQ(encoder.DESFireGetVersion(dfvUID, uid), sceSuccess) << Record();
    EXPECT_EQ(uid, Variant(other));
}

}  // namespace
}  // namespace elatectwn4
