// Files, data, records and values against the simulated EV1 card, in every
// communication mode, under a Triple-DES session whose key halves differ.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "apdu_fixture.h"
#include "desfire/files.h"
#include "desfire/transfer.h"
#include "desfire/values.h"
#include "sim/desfire/desfire_sim.h"
#include "sim/simulated_pcsc.h"

namespace elatectwn4::desfire {
namespace {

using desfire_test::Hex;

const std::string kFactoryKey = "0000000000000000";
const std::string kAppKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
const std::string kApp = "A1B2C3";
const AccessRights kKeyZero{0, 0, 0, 0};

// The same bytes on every run, on both sides of the authentication.
struct Deterministic {
    std::shared_ptr<std::mt19937> engine;
    void operator()(std::span<std::uint8_t> out) const {
        for (auto& b : out)
            b = static_cast<std::uint8_t>((*engine)());
    }
};

std::string Pattern(std::size_t size, std::uint8_t seed) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(seed + 13 * i);
    return ToHex(bytes);
}

class FilesOnTheCard : public ::testing::Test {
protected:
    void SetUp() override {
        card = std::make_shared<sim::desfire::DesfireCard>(std::vector<std::uint8_t>{},
                                                           Deterministic{std::make_shared<std::mt19937>(7)});
        reader = pcsc->Readers()[0];
        reader->Insert(card);
        ASSERT_EQ(pcsc->EstablishContext(2, channel.context), 0u);
        ASSERT_EQ(pcsc->Connect(channel.context, reader->Name(), 1, pcsc_const::ProtocolT1, channel.card,
                                channel.activeProtocol),
                  0u);
        session.random = Deterministic{std::make_shared<std::mt19937>(11)};
        // An application whose master key is a Triple-DES key with unequal halves.
        ASSERT_EQ(DESFireSelectRoot(ctx, kFactoryKey), sceSuccess) << Record();
        ASSERT_EQ(DESFireCreateApplication(ctx, kApp, 0x0F, 3), sceSuccess) << Record();
        ASSERT_EQ(DESFireSelectApplication(ctx, kApp, 0, kFactoryKey), sceSuccess) << Record();
        ASSERT_EQ(DESFireChangeKey(ctx, 0, kFactoryKey, kAppKey), sceSuccess) << Record();
        Reopen();
    }

    // The card ends its session on every refusal; the tests open a new one.
    void Reopen() {
        ASSERT_EQ(DESFireSelectApplication(ctx, kApp, 0, kAppKey), sceSuccess) << Record();
        const std::uint8_t* key = session.sessionKey.data();
        ASSERT_FALSE(std::equal(key, key + 8, key + 8)) << "a Triple-DES session";
    }

    std::string Record() const { return test::RecordText(record); }
    std::string ReadData(std::int32_t file, std::int32_t offset = 0, std::int32_t length = 0, bool hex = true) {
        std::string data = "not read";
        EXPECT_EQ(DESFireReadData(ctx, file, offset, length, data, hex), sceSuccess) << Record();
        return data;
    }
    std::string ReadRecords(std::int32_t file, std::int32_t offset = 0, std::int32_t count = 0) {
        std::string data = "not read";
        EXPECT_EQ(DESFireReadRecords(ctx, file, offset, count, data, true), sceSuccess) << Record();
        return data;
    }
    std::int32_t Value(std::int32_t file) {
        std::int32_t value = -999;
        EXPECT_EQ(DESFireGetValue(ctx, file, value), sceSuccess) << Record();
        return value;
    }
    void Commit() { ASSERT_EQ(DESFireCommitTransaction(ctx), sceSuccess) << Record(); }

    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    std::shared_ptr<sim::Reader> reader;
    std::shared_ptr<sim::desfire::DesfireCard> card;
    CError record;
    command::Channel channel{pcsc.get(), 0, 0, 0};
    Session session;
    Context ctx{channel, record, session};
};

TEST_F(FilesOnTheCard, EveryKindOfFileTravelsWholeInEveryMode) {
    for (const std::int32_t mode : {dfcPlain, dfcPlainMac, dfcCiphered}) {
        SCOPED_TRACE(mode);
        const std::int32_t data = 8, backup = 9, value = 0, linear = 1, cyclic = 2;
        ASSERT_EQ(DESFireCreateStdDataFile(ctx, data, mode, kKeyZero, 100), sceSuccess) << Record();
        ASSERT_EQ(DESFireCreateBackupDataFile(ctx, backup, mode, kKeyZero, 64), sceSuccess) << Record();
        ASSERT_EQ(DESFireCreateValueFile(ctx, value, mode, kKeyZero, -100, 1000, 10, true), sceSuccess) << Record();
        ASSERT_EQ(DESFireCreateLinearRecordFile(ctx, linear, mode, kKeyZero, 60, 3), sceSuccess) << Record();
        ASSERT_EQ(DESFireCreateCyclicRecordFile(ctx, cyclic, mode, kKeyZero, 60, 4), sceSuccess) << Record();
        std::string ids;
        ASSERT_EQ(DESFireGetFileIDs(ctx, ids), sceSuccess) << Record();
        EXPECT_EQ(ids, "0,1,2,8,9");

        // A standard data file: several frames each way, whole and in part, hex and text.
        const std::string contents = Pattern(100, static_cast<std::uint8_t>(mode + 1));
        ASSERT_EQ(DESFireWriteData(ctx, data, 0, 100, contents, true), sceSuccess) << Record();
        EXPECT_EQ(ReadData(data), contents);
        EXPECT_EQ(ReadData(data, 10, 30), contents.substr(20, 60));
        ASSERT_EQ(DESFireWriteData(ctx, data, 95, 0, "Hello", false), sceSuccess) << Record();
        EXPECT_EQ(ReadData(data, 95, 5, false), "Hello");

        // A backup file shows its new contents only once they are committed.
        const std::string first = Pattern(64, 0x31), second = Pattern(64, 0x77);
        ASSERT_EQ(DESFireWriteData(ctx, backup, 0, 64, first, true), sceSuccess) << Record();
        EXPECT_EQ(ReadData(backup, 0, 64), std::string(128, '0'));
        Commit();
        EXPECT_EQ(ReadData(backup, 0, 64), first);
        ASSERT_EQ(DESFireWriteData(ctx, backup, 0, 64, second, true), sceSuccess) << Record();
        ASSERT_EQ(DESFireAbortTransaction(ctx), sceSuccess) << Record();
        EXPECT_EQ(ReadData(backup, 0, 64), first);

        // A value file: credit and debit count once committed, and not after an abort.
        EXPECT_EQ(Value(value), 10);
        ASSERT_EQ(DESFireCredit(ctx, value, 5), sceSuccess) << Record();
        EXPECT_EQ(Value(value), 10);
        Commit();
        EXPECT_EQ(Value(value), 15);
        ASSERT_EQ(DESFireDebit(ctx, value, 20), sceSuccess) << Record();
        Commit();
        EXPECT_EQ(Value(value), -5);
        ASSERT_EQ(DESFireDebit(ctx, value, 1), sceSuccess) << Record();
        ASSERT_EQ(DESFireAbortTransaction(ctx), sceSuccess) << Record();
        EXPECT_EQ(Value(value), -5);

        // Record files: one record per transaction, read oldest first.
        const std::string records[] = {Pattern(60, 0xA0), Pattern(60, 0xB1), Pattern(60, 0xC2), Pattern(60, 0xD3)};
        for (const std::string& r : records) {
            ASSERT_EQ(DESFireWriteRecord(ctx, cyclic, 0, 60, r, true), sceSuccess) << Record();
            Commit();
        }
        for (std::size_t i = 0; i < 2; ++i) {
            ASSERT_EQ(DESFireWriteRecord(ctx, linear, 0, 60, records[i], true), sceSuccess) << Record();
            Commit();
        }
        EXPECT_EQ(ReadRecords(linear), records[0] + records[1]);
        EXPECT_EQ(ReadRecords(linear, 0, 1), records[1]);
        // A cyclic file of four keeps the newest three.
        EXPECT_EQ(ReadRecords(cyclic), records[1] + records[2] + records[3]);
        EXPECT_EQ(ReadRecords(cyclic, 1, 2), records[1] + records[2]);
        ASSERT_EQ(DESFireClearRecordFile(ctx, linear), sceSuccess) << Record();
        Commit();
        std::string none = "unchanged";
        EXPECT_EQ(DESFireReadRecords(ctx, linear, 0, 0, none, true), sceError);
        EXPECT_EQ(Record(),
                  Line(ErrorNumber::OperationFailed, "DESFireReadRecords", "SCardTransmit:DesfireReadRecords", "BE"));
        Reopen();
        for (const std::int32_t file : {data, backup, value, linear, cyclic})
            ASSERT_EQ(DESFireDeleteFile(ctx, file), sceSuccess) << Record();
    }
}

TEST_F(FilesOnTheCard, ValueLimitsAndTheLimitedCreditHaveTheirOwnTexts) {
    ASSERT_EQ(DESFireCreateValueFile(ctx, 1, dfcPlainMac, kKeyZero, 0, 100, 10, true), sceSuccess) << Record();
    struct Step {
        std::function<sceReturnCode(Context&)> call;
        std::string expected;  // "" = success
    };
    const Step steps[] = {
        {[](Context& c) { return DESFireDebit(c, 1, 11); }, Line(ErrorNumber::ValueExceedsLimits, "DESFireDebit")},
        {[](Context& c) { return DESFireCredit(c, 1, 91); }, Line(ErrorNumber::ValueExceedsLimits, "DESFireCredit")},
        // Nothing debited yet: nothing to give back.
        {[](Context& c) { return DESFireLimitedCredit(c, 1, 1); },
         Line(ErrorNumber::CreditExceedsLimit, "DESFireLimitedCredit")},
        {[](Context& c) { return DESFireDebit(c, 1, 5); }, ""},
        {DESFireCommitTransaction, ""},
        {[](Context& c) { return DESFireLimitedCredit(c, 1, 6); },
         Line(ErrorNumber::CreditExceedsLimit, "DESFireLimitedCredit")},
        {[](Context& c) { return DESFireLimitedCredit(c, 1, 5); }, ""},
        {DESFireCommitTransaction, ""},
        // A limited credit serves once.
        {[](Context& c) { return DESFireLimitedCredit(c, 1, 1); },
         Line(ErrorNumber::CreditExceedsLimit, "DESFireLimitedCredit")},
    };
    for (const Step& step : steps) {
        if (step.expected.empty()) {
            EXPECT_EQ(step.call(ctx), sceSuccess) << Record();
        } else {
            EXPECT_EQ(step.call(ctx), sceError);
            EXPECT_EQ(Record(), step.expected);
            Reopen();
        }
    }
    EXPECT_EQ(Value(1), 10);
}

}  // namespace
}  // namespace elatectwn4::desfire
