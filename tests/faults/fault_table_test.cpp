// The card taken out of the field at every exchange of the members that need
// several, through the public Encoder on the simulated reader: before the
// card sees exchange k, and after it did what exchange k asked but before
// its answer came back. Each time the member fails with a whole record, the
// card keeps either what it held before or what a complete run leaves (a
// block whole, a transaction never half committed), and once the card is
// back the next OpenEncoder and a plain read work.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "elatectwn4/encoder.h"
#include "sim/simulated_pcsc.h"
#include "support/record_text.h"
#include "support/registry_dir.h"

namespace elatectwn4 {
namespace {

const std::string kTransportKey = "FFFFFFFFFFFF";
const std::string kKeyA = "A0A1A2A3A4A5";
const std::string kKeyB = "B0B1B2B3B4B5";
const std::string kFactoryKey = "0000000000000000";
const std::string kPiccKey = "4A1B7C3D5E6F708192A3B4C5D6E7F809";
const std::string kAppKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
const std::string kApp = "A1B2C3";
constexpr std::int32_t kDataFile = 1, kBackupFile = 2, kValueFile = 3, kRecordFile = 4;

std::string Hex(const std::vector<std::uint8_t>& bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 0xF];
    }
    return text;
}

std::string Pattern(std::size_t size, unsigned seed) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(seed + 29 * i);
    return Hex(bytes);
}

std::string Record(Encoder& e) {
    return test::RecordText(e.LastError());
}

// A step of a case that must succeed while the card stays in the field.
void Must(Encoder& e, sceReturnCode result) {
    ASSERT_EQ(result, sceSuccess) << Record(e);
}

// One member call and the record it must leave when the card leaves under it.
struct Step {
    std::function<sceReturnCode(Encoder&)> call;
    ErrorNumber number;
    std::vector<std::string> comFunctions;  ///< the one it names, depending on the exchange lost
    std::vector<std::string> commands;      ///< the command RdrCommand names after "SCardTransmit:"
    std::vector<std::string> rdrRetCodes;
};

const std::string kRemoved = "The smart card has been removed, so that further communication is not possible.";

// MIFARE members and the DESFire authentication report the reader's failure
// (a trailer write keeps the record of the trailer read it makes); the other
// DESFire members report their own, with the last status the card sent
// before it left ("FFFF": none, "AF": a frame of a longer answer).
Step Mifare(std::function<sceReturnCode(Encoder&)> call, std::vector<std::string> comFunctions) {
    return {std::move(call),
            ErrorNumber::CommandFailed,
            std::move(comFunctions),
            {"LoadKey", "GeneralAuthenticate", "ReadBinary", "WriteBinary"},
            {kRemoved}};
}
Step Authentication(std::function<sceReturnCode(Encoder&)> call, std::string comFunction) {
    return {std::move(call),
            ErrorNumber::CommandFailed,
            {std::move(comFunction)},
            {"SelectApplication", "DesfireAuthenticate"},
            {kRemoved}};
}
Step Desfire(std::function<sceReturnCode(Encoder&)> call, std::string member, std::vector<std::string> commands) {
    return {std::move(call), ErrorNumber::OperationFailed, {std::move(member)}, std::move(commands), {"FFFF", "AF"}};
}
// A transfer learns the file's settings first.
Step Transfer(std::function<sceReturnCode(Encoder&)> call, std::string member, std::string command) {
    return Desfire(std::move(call), std::move(member), {"DesfireGetFileSettings", std::move(command)});
}

bool OneOf(const std::string& text, const std::vector<std::string>& allowed) {
    return std::find(allowed.begin(), allowed.end(), text) != allowed.end();
}

struct Case {
    const char* name;
    const char* kind;
    bool changesCard;                           ///< false: reading or authenticating
    std::function<void(Encoder&)> prepare;      ///< with the card in the field; no fault yet
    std::vector<Step> steps;                    ///< the member, or the members a transaction takes
    std::function<std::string(Encoder&)> read;  ///< what the host sees of the card once it is back
};

void PrintTo(const Case& c, std::ostream* out) {
    *out << c.name;
}

// ---- The cards' starting points and what a host reads of them -------------------------------

void PrepareMifare(Encoder& e) {
    std::string data = Pattern(16, 0x11);
    Must(e, e.WriteDataBloc(6, kTransportKey, 0, data));
    Must(e, e.WriteValueBloc(5, kTransportKey, 0, 77));
}

std::string ReadMifareBlock(Encoder& e, std::int32_t block) {
    std::string contents;
    return e.ReadDataBloc(block, kTransportKey, 0, contents) == sceSuccess ? contents : "<error " + Record(e) + ">";
}

// An application with a key of its own and one file of each kind that takes
// part in a transaction, the data files holding data already; the session
// ends authenticated in it.
void PrepareDesfire(Encoder& e) {
    const DesfireAccessRights key0 = DesfireAccessRights(0);
    Must(e, e.DESFireSelectRoot(kFactoryKey));
    Must(e, e.DESFireChangeKey(0, kFactoryKey, kPiccKey));
    Must(e, e.DESFireSelectRoot(kPiccKey));
    Must(e, e.DESFireCreateApplication(kApp, DesfireKeySettings(0x0F), 2));
    Must(e, e.DESFireSelectApplication(kApp, 0, kFactoryKey));
    Must(e, e.DESFireChangeKey(0, kFactoryKey, kAppKey));
    Must(e, e.DESFireSelectApplication(kApp, 0, kAppKey));
    Must(e, e.DESFireCreateStdDataFile(kDataFile, dfcCiphered, key0, key0, key0, key0, 100));
    Must(e, e.DESFireCreateBackupDataFile(kBackupFile, dfcPlainMac, key0, key0, key0, key0, 80));
    Must(e, e.DESFireCreateValueFile(kValueFile, dfcCiphered, key0, key0, key0, key0, 0, 1000, 100, false));
    Must(e, e.DESFireCreateLinearRecordFile(kRecordFile, dfcPlainMac, key0, key0, key0, key0, 40, 4));
    Must(e, e.DESFireWriteData(kDataFile, 0, 100, Pattern(100, 0x21), true));
    Must(e, e.DESFireWriteData(kBackupFile, 0, 80, Pattern(80, 0x31), true));
    Must(e, e.DESFireWriteRecord(kRecordFile, 0, 40, Pattern(40, 0x41), true));
    Must(e, e.DESFireCommitTransaction());
}

std::string ReadDesfireFiles(Encoder& e) {
    std::string data, backup, records;
    std::int32_t value = -1;
    if (e.DESFireSelectApplication(kApp, 0, kAppKey) != sceSuccess ||
        e.DESFireReadData(kDataFile, 0, 0, data, true) != sceSuccess ||
        e.DESFireReadData(kBackupFile, 0, 0, backup, true) != sceSuccess ||
        e.DESFireGetValue(kValueFile, value) != sceSuccess ||
        e.DESFireReadRecords(kRecordFile, 0, 0, records, true) != sceSuccess) {
        return "<error " + Record(e) + ">";
    }
    return data + " " + backup + " " + std::to_string(value) + " " + records;
}

std::vector<Case> Cases() {
    const auto mifare = [](std::int32_t block) { return [block](Encoder& e) { return ReadMifareBlock(e, block); }; };
    const Step trailer = Mifare(
        [](Encoder& e) {
            return e.WriteSectorTrailer(1, kTransportKey, 0, kKeyA, kKeyB, 2, scbs_A_Read | scbs_B_ReadWrite,
                                        scbs_B_ReadWrite, 15, scss_B_WriteKeysConditions, Variant{std::uint8_t{0x42}});
        },
        {"MifareWriteSectorTrailer", "MifareReadSectorTrailer"});
    const Step value =
        Mifare([](Encoder& e) { return e.WriteValueBloc(5, kTransportKey, 0, 1234); }, {"MifareWriteValueBloc"});
    const Step partial = Mifare(
        [](Encoder& e) {
            std::string bytes = "C0FFEE0BADF00D";
            return e.WriteBytesInBloc(6, kTransportKey, 0, 3, 9, bytes);
        },
        {"MifareWriteBytesInBloc"});
    const Step root = Authentication([](Encoder& e) { return e.DESFireSelectRoot(kPiccKey); },
                                     "DESFireSelectRoot:DESFireSelectApplication:EncoderCommand");
    const Step select = Authentication([](Encoder& e) { return e.DESFireSelectApplication(kApp, 0, kAppKey); },
                                       "DESFireSelectApplication:EncoderCommand");
    const Step write =
        Transfer([](Encoder& e) { return e.DESFireWriteData(kDataFile, 0, 100, Pattern(100, 0x99), true); },
                 "DESFireWriteData", "DesfireWriteData");
    const Step read = Transfer(
        [](Encoder& e) {
            std::string data;
            return e.DESFireReadData(kDataFile, 0, 0, data, true);
        },
        "DESFireReadData", "DesfireReadData");
    const Step backup =
        Transfer([](Encoder& e) { return e.DESFireWriteData(kBackupFile, 0, 80, Pattern(80, 0x77), true); },
                 "DESFireWriteData", "DesfireWriteData");
    const Step credit =
        Transfer([](Encoder& e) { return e.DESFireCredit(kValueFile, 50); }, "DESFireCredit", "DesfireCredit");
    const Step debit =
        Transfer([](Encoder& e) { return e.DESFireDebit(kValueFile, 20); }, "DESFireDebit", "DesfireDebit");
    const Step record =
        Transfer([](Encoder& e) { return e.DESFireWriteRecord(kRecordFile, 0, 40, Pattern(40, 0x55), true); },
                 "DESFireWriteRecord", "DesfireWriteRecord");
    const Step commit = Desfire([](Encoder& e) { return e.DESFireCommitTransaction(); }, "DESFireCommitTransaction",
                                {"DesfireCommitTransaction"});
    // name, card, whether it changes the card, start, steps, what the host reads
    return {
        {"MifareSectorTrailer", "mifare1k", true, PrepareMifare, {trailer}, mifare(1)},
        {"MifareValueBlock", "mifare1k", true, PrepareMifare, {value}, mifare(5)},
        {"MifarePartialWrite", "mifare1k", true, PrepareMifare, {partial}, mifare(6)},
        {"DesfireSelectRoot", "desfire", false, PrepareDesfire, {root}, ReadDesfireFiles},
        {"DesfireSelectApplication", "desfire", false, PrepareDesfire, {select}, ReadDesfireFiles},
        {"DesfireWriteDataInFrames", "desfire", true, PrepareDesfire, {write}, ReadDesfireFiles},
        {"DesfireReadDataInFrames", "desfire", false, PrepareDesfire, {read}, ReadDesfireFiles},
        {"DesfireBackupWriteAndCommit", "desfire", true, PrepareDesfire, {backup, commit}, ReadDesfireFiles},
        {"DesfireValuesAndCommit", "desfire", true, PrepareDesfire, {credit, debit, commit}, ReadDesfireFiles},
        {"DesfireRecordAndCommit", "desfire", true, PrepareDesfire, {record, commit}, ReadDesfireFiles},
    };
}

// ---- One reader with one card and the encoder on it ------------------------------------------

struct Observed {
    std::string card;  ///< what the card keeps, as the simulator saves it
    std::string host;  ///< what a host reads of it
    friend bool operator==(const Observed&, const Observed&) = default;
    friend void PrintTo(const Observed& o, std::ostream* out) { *out << "host: " << o.host << "\ncard: " << o.card; }
};

class Rig {
public:
    explicit Rig(const Case& c) : case_(c), card_(sim::MakeCard(c.kind)) {
        reader_->Insert(card_);
        encoder_.Parameters("Device=" + reader_->Name());
        Must(encoder_, encoder_.OpenEncoder());
        c.prepare(encoder_);
    }

    Encoder& encoder() { return encoder_; }
    sim::Reader& reader() { return *reader_; }

    // The card comes back to the field (or, never having left, is powered
    // anew): the encoder opens again, reads the serial number and what the
    // case reads.
    Observed CardBack() {
        reader_->Insert(card_);
        EXPECT_EQ(encoder_.OpenEncoder(), sceSuccess) << Record(encoder_);
        EXPECT_EQ(encoder_.LastError().Number, 0) << Record(encoder_);
        EXPECT_EQ(encoder_.EncoderState(), sceReady);
        std::string uid;
        EXPECT_EQ(encoder_.ReadSerialNumber(uid), sceSuccess) << Record(encoder_);
        EXPECT_EQ(uid, Hex(card_->Uid()));
        return {card_->Save().dump(), case_.read(encoder_)};
    }

private:
    const Case& case_;
    std::shared_ptr<sim::SimulatedPcsc> pcsc_ = std::make_shared<sim::SimulatedPcsc>();
    std::shared_ptr<sim::Reader> reader_ = pcsc_->Readers()[0];
    std::shared_ptr<sim::Card> card_;
    Encoder encoder_{pcsc_};
};

class FaultTable : public ::testing::TestWithParam<Case> {
protected:
    test::RegistryDir registry;
};

TEST_P(FaultTable, TheCardLeavingAtAnyExchangeIsAFailureAndTheCardIsOldOrNew) {
    const Case& c = GetParam();

    Rig untouched(c);
    ASSERT_FALSE(HasFatalFailure());
    const Observed before = untouched.CardBack();

    Rig complete(c);
    ASSERT_FALSE(HasFatalFailure());
    const std::uint64_t start = complete.reader().ExchangeCount();
    for (const Step& step : c.steps)
        Must(complete.encoder(), step.call(complete.encoder()));
    const std::uint64_t exchanges = complete.reader().ExchangeCount() - start;
    ASSERT_GE(exchanges, 2u) << "not a member of several exchanges";
    const Observed after = complete.CardBack();
    if (c.changesCard) {
        EXPECT_NE(before.card, after.card) << "a run that changes nothing tells nothing";
    } else {
        EXPECT_EQ(before, after) << "reading and authenticating change nothing";
    }

    // What the card kept when the answer to the previous exchange was lost:
    // the card then saw the same exchanges as when the next one never reaches it.
    std::optional<Observed> sawUpToPrevious;
    for (std::uint64_t k = 0; k < exchanges; ++k) {
        for (const bool afterAnswer : {false, true}) {
            SCOPED_TRACE("card gone " + std::string(afterAnswer ? "after" : "before") + " exchange " +
                         std::to_string(k) + " of " + std::to_string(exchanges));
            Rig rig(c);
            ASSERT_FALSE(HasFatalFailure());
            Encoder& e = rig.encoder();
            sim::Faults loss;
            loss.cardLoss = sim::CardLoss{k, afterAnswer};
            rig.reader().SetFaults(loss);

            const Step* failed = nullptr;
            for (const Step& step : c.steps) {
                if (step.call(e) != sceSuccess) {
                    failed = &step;
                    break;
                }
            }
            ASSERT_NE(failed, nullptr) << "every step reported success without the card";
            EXPECT_FALSE(rig.reader().HasCard()) << "the loss never happened";
            const CError& record = e.LastError();
            EXPECT_EQ(record.Number, ErrorValue(failed->number)) << Record(e);
            EXPECT_EQ(record.Description, ErrorDescription(failed->number));
            EXPECT_TRUE(OneOf(record.ComFunction, failed->comFunctions)) << Record(e);
            EXPECT_TRUE(record.RdrCommand.starts_with("SCardTransmit:") &&
                        OneOf(record.RdrCommand.substr(14), failed->commands))
                << Record(e);
            EXPECT_TRUE(OneOf(record.RdrRetCode, failed->rdrRetCodes)) << Record(e);

            const Observed now = rig.CardBack();
            // Before its first exchange the card has nothing; after its last it has it all.
            if (k == 0 && !afterAnswer) {
                EXPECT_EQ(now, before);
            }
            if (!afterAnswer && sawUpToPrevious) {
                EXPECT_EQ(now, *sawUpToPrevious) << "the card saw the same exchanges";
            }
            if (afterAnswer) sawUpToPrevious = now;
            if (k + 1 == exchanges && afterAnswer) {
                EXPECT_EQ(now, after);
            }
            EXPECT_TRUE(now == before || now == after) << "torn: " << testing::PrintToString(now);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Members, FaultTable, ::testing::ValuesIn(Cases()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace elatectwn4
