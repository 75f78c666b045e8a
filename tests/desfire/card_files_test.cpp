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

const std::string kFactoryKey = "0000000000000000";
const std::string kAppKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
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
        auto card = std::make_shared<sim::desfire::DesfireCard>(std::vector<std::uint8_t>{},
                                                                Deterministic{std::make_shared<std::mt19937>(7)});
        auto reader = pcsc->Readers()[0];
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
        ASSERT_EQ(DESFireSelectApplication(ctx, kApp, 0, kAppKey), sceSuccess) << Record();
        const std::uint8_t* key = session.sessionKey.data();
        ASSERT_FALSE(std::equal(key, key + 8, key + 8)) << "a Triple-DES session";
    }

    std::string Record() const { return test::RecordText(record); }
    void Ok(sceReturnCode result) { EXPECT_EQ(result, sceSuccess) << Record(); }
    std::string ReadData(std::int32_t file, std::int32_t offset = 0, std::int32_t length = 0, bool hex = true) {
        std::string data = "not read";
        Ok(DESFireReadData(ctx, file, offset, length, data, hex));
        return data;
    }
    std::string ReadRecords(std::int32_t file, std::int32_t offset = 0, std::int32_t count = 0) {
        std::string data = "not read";
        Ok(DESFireReadRecords(ctx, file, offset, count, data, true));
        return data;
    }
    std::int32_t Value(std::int32_t file) {
        std::int32_t value = -999;
        Ok(DESFireGetValue(ctx, file, value));
        return value;
    }

    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    CError record;
    command::Channel channel{pcsc.get(), 0, 0, 0};
    Session session;
    Context ctx{channel, record, session};
};

TEST_F(FilesOnTheCard, EveryKindOfFileTravelsWholeInEveryMode) {
    for (const std::int32_t mode : {dfcPlain, dfcPlainMac, dfcCiphered}) {
        SCOPED_TRACE(mode);
        const std::int32_t data = 8, backup = 9, value = 0, linear = 1, cyclic = 2;
        Ok(DESFireCreateStdDataFile(ctx, data, mode, kKeyZero, 100));
        Ok(DESFireCreateBackupDataFile(ctx, backup, mode, kKeyZero, 64));
        Ok(DESFireCreateValueFile(ctx, value, mode, kKeyZero, -100, 1000, 10, true));
        Ok(DESFireCreateLinearRecordFile(ctx, linear, mode, kKeyZero, 60, 3));
        Ok(DESFireCreateCyclicRecordFile(ctx, cyclic, mode, kKeyZero, 60, 4));

        // Several frames each way, whole and in part, hex and text.
        const std::string contents = Pattern(100, static_cast<std::uint8_t>(mode + 1));
        Ok(DESFireWriteData(ctx, data, 0, 100, contents, true));
        EXPECT_EQ(ReadData(data), contents);
        EXPECT_EQ(ReadData(data, 10, 30), contents.substr(20, 60));
        Ok(DESFireWriteData(ctx, data, 95, 0, "Hello", false));
        EXPECT_EQ(ReadData(data, 95, 5, false), "Hello");

        // A backup file and a value file change only with the commit.
        const std::string first = Pattern(64, 0x31);
        Ok(DESFireWriteData(ctx, backup, 0, 64, first, true));
        Ok(DESFireCredit(ctx, value, 5));
        EXPECT_EQ(ReadData(backup, 0, 64), std::string(128, '0'));
        EXPECT_EQ(Value(value), 10);
        Ok(DESFireCommitTransaction(ctx));
        EXPECT_EQ(ReadData(backup, 0, 64), first);
        EXPECT_EQ(Value(value), 15);
        Ok(DESFireWriteData(ctx, backup, 0, 64, Pattern(64, 0x77), true));
        Ok(DESFireDebit(ctx, value, 20));
        Ok(DESFireAbortTransaction(ctx));
        EXPECT_EQ(ReadData(backup, 0, 64), first);
        EXPECT_EQ(Value(value), 15);

        // Record files: one record per transaction, read oldest first; a
        // cyclic file of four keeps the newest three.
        const std::string records[] = {Pattern(60, 0xA0), Pattern(60, 0xB1), Pattern(60, 0xC2), Pattern(60, 0xD3)};
        for (std::size_t i = 0; i < 4; ++i) {
            Ok(DESFireWriteRecord(ctx, cyclic, 0, 60, records[i], true));
            if (i < 2) Ok(DESFireWriteRecord(ctx, linear, 0, 60, records[i], true));
            Ok(DESFireCommitTransaction(ctx));
        }
        EXPECT_EQ(ReadRecords(linear), records[0] + records[1]);
        EXPECT_EQ(ReadRecords(cyclic, 1, 2), records[1] + records[2]);
        Ok(DESFireClearRecordFile(ctx, linear));
        Ok(DESFireCommitTransaction(ctx));
        std::string none = "unchanged";
        EXPECT_EQ(DESFireReadRecords(ctx, linear, 0, 0, none, true), sceError);
        EXPECT_EQ(Record(), Failed("DESFireReadRecords", "DesfireReadRecords", "BE"));
        Ok(DESFireSelectApplication(ctx, kApp, 0, kAppKey));
        for (const std::int32_t file : {data, backup, value, linear, cyclic})
            Ok(DESFireDeleteFile(ctx, file));
    }
}

}  // namespace
}  // namespace elatectwn4::desfire
