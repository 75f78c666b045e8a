// The card taken out of the field at every exchange of the DESFire members
// that need several, through the public Encoder on the simulated reader:
// before the card sees exchange k, and after it did what exchange k asked but
// before its answer came back. Each time the member fails with a whole
// record, the card keeps either what it held before or what a complete run
// leaves (a file whole, a transaction never half committed), and once the
// card is back the next OpenEncoder and a plain read work. (A MIFARE member
// changes the card with one block write, whose loss the simulator's own
// tests cover.)
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "elatectwn4/encoder.h"
#include "sim/simulated_pcsc.h"
#include "support/record_text.h"
#include "support/registry_dir.h"

namespace elatectwn4 {
namespace {

const std::string kFactoryKey = "0000000000000000";
const std::string kAppKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
const std::string kApp = "A1B2C3";
constexpr std::int32_t kDataFile = 1, kValueFile = 3;

std::string Record(Encoder& e) {
    return test::RecordText(e.LastError());
}

// A step of a case that must succeed while the card stays in the field.
void Must(Encoder& e, sceReturnCode result) {
    ASSERT_EQ(result, sceSuccess) << Record(e);
}

using Call = std::function<sceReturnCode(Encoder&)>;

// The exact records of a member losing its card are the members' own tests';
// here every loss must leave a whole record naming the exchange.
struct Case {
    const char* name;
    std::vector<Call> steps;  ///< the member, or the members a transaction takes
};

// The card's starting point: an application with a key of its own, a data
// file and a value file; the session ends authenticated in it.
void PrepareDesfire(Encoder& e) {
    const DesfireAccessRights key0 = DesfireAccessRights(0);
    Must(e, e.DESFireSelectRoot(kFactoryKey));
    Must(e, e.DESFireCreateApplication(kApp, DesfireKeySettings(0x0F), 2));
    Must(e, e.DESFireSelectApplication(kApp, 0, kFactoryKey));
    Must(e, e.DESFireChangeKey(0, kFactoryKey, kAppKey));
    Must(e, e.DESFireSelectApplication(kApp, 0, kAppKey));
    Must(e, e.DESFireCreateStdDataFile(kDataFile, dfcCiphered, key0, key0, key0, key0, 100));
    Must(e, e.DESFireCreateValueFile(kValueFile, dfcCiphered, key0, key0, key0, key0, 0, 1000, 100, false));
}

// What a host reads of the card once it is back.
std::string ReadDesfireFiles(Encoder& e) {
    std::string data;
    std::int32_t value = -1;
    if (e.DESFireSelectApplication(kApp, 0, kAppKey) != sceSuccess ||
        e.DESFireReadData(kDataFile, 0, 0, data, true) != sceSuccess ||
        e.DESFireGetValue(kValueFile, value) != sceSuccess) {
        return "<error " + Record(e) + ">";
    }
    return data + " " + std::to_string(value);
}

std::vector<Case> Cases() {
    const Call write = [](Encoder& e) { return e.DESFireWriteData(kDataFile, 0, 100, std::string(200, '7'), true); };
    const Call credit = [](Encoder& e) { return e.DESFireCredit(kValueFile, 50); };
    const Call debit = [](Encoder& e) { return e.DESFireDebit(kValueFile, 20); };
    const Call commit = [](Encoder& e) { return e.DESFireCommitTransaction(); };
    return {
        {"WriteDataInFrames", {write}},
        {"ValuesAndCommit", {credit, debit, commit}},
    };
}

// ---- One reader with one card and the encoder on it ------------------------------------------

// What a host reads of the card, then what the card keeps as the simulator saves it.
using Observed = std::string;

class Rig {
public:
    Rig() : card_(sim::MakeCard("desfire")) {
        reader_->Insert(card_);
        encoder_.Parameters("Device=" + reader_->Name());
        Must(encoder_, encoder_.OpenEncoder());
        PrepareDesfire(encoder_);
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
        return "host: " + ReadDesfireFiles(encoder_) + "\ncard: " + card_->Save().dump();
    }

private:
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

    Rig untouched;
    ASSERT_FALSE(HasFatalFailure());
    const Observed before = untouched.CardBack();

    Rig complete;
    ASSERT_FALSE(HasFatalFailure());
    const std::uint64_t start = complete.reader().ExchangeCount();
    for (const Call& step : c.steps)
        Must(complete.encoder(), step(complete.encoder()));
    const std::uint64_t exchanges = complete.reader().ExchangeCount() - start;
    ASSERT_GE(exchanges, 2u) << "not a member of several exchanges";
    const Observed after = complete.CardBack();
    EXPECT_NE(before, after) << "a run that changes nothing tells nothing";

    std::optional<Observed> sawUpToPrevious;
    for (std::uint64_t k = 0; k < exchanges; ++k) {
        for (const bool afterAnswer : {false, true}) {
            SCOPED_TRACE("card gone " + std::string(afterAnswer ? "after" : "before") + " exchange " +
                         std::to_string(k) + " of " + std::to_string(exchanges));
            Rig rig;
            ASSERT_FALSE(HasFatalFailure());
            Encoder& e = rig.encoder();
            sim::Faults loss;
            loss.cardLoss = sim::CardLoss{k, afterAnswer};
            rig.reader().SetFaults(loss);

            ASSERT_TRUE(std::any_of(c.steps.begin(), c.steps.end(), [&](const Call& step) {
                return step(e) != sceSuccess;
            })) << "every step reported success without the card";
            EXPECT_FALSE(rig.reader().HasCard()) << "the loss never happened";
            const CError& record = e.LastError();
            EXPECT_TRUE(record.Number != 0 && !record.Description.empty() && !record.ComFunction.empty() &&
                        record.RdrCommand.starts_with("SCardTransmit:"))
                << Record(e);

            const Observed now = rig.CardBack();
            // Before its first exchange the card has nothing; after its last
            // it has it all; otherwise it kept what it kept when the answer to
            // the previous exchange was lost.
            const std::optional<Observed> expected = afterAnswer
                                                         ? (k + 1 == exchanges ? std::optional(after) : std::nullopt)
                                                         : (k == 0 ? std::optional(before) : sawUpToPrevious);
            EXPECT_EQ(now, expected.value_or(now));
            if (afterAnswer) sawUpToPrevious = now;
            EXPECT_TRUE(now == before || now == after) << "torn: " << now;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Members, FaultTable, ::testing::ValuesIn(Cases()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace elatectwn4
