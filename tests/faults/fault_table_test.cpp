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
    const Call select = [](Encoder& e) { return e.DESFireSelectApplication(kApp, 0, kAppKey); };
    const Call write = [](Encoder& e) { return e.DESFireWriteData(kDataFile, 0, 100, std::string(200, '7'), true); };
    const Call credit = [](Encoder& e) { return e.DESFireCredit(kValueFile, 50); };
    const Call debit = [](Encoder& e) { return e.DESFireDebit(kValueFile, 20); };
    const Call commit = [](Encoder& e) { return e.DESFireCommitTransaction(); };
    return {
        {"WriteDataInFrames", {write}},
        // Authenticating first: a lost answer is the reader's failure, not the card's refusal.
        {"AuthenticatedValuesAndCommit", {select, credit, debit, commit}},
    };
}

// One reader with the prepared card and the encoder on it.
struct Rig {
    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    std::shared_ptr<sim::Reader> reader = pcsc->Readers()[0];
    std::shared_ptr<sim::Card> card = sim::MakeCard("desfire");
    Encoder encoder{pcsc};

    Rig() {
        reader->Insert(card);
        encoder.Parameters("Device=" + reader->Name());
        Must(encoder, encoder.OpenEncoder());
        PrepareDesfire(encoder);
    }

    // The card comes back to the field (or, never having left, is powered
    // anew): the encoder opens again and reads the serial number, then what
    // a host reads of the files and what the card keeps.
    std::string CardBack() {
        reader->Insert(card);
        EXPECT_EQ(encoder.OpenEncoder(), sceSuccess) << Record(encoder);
        EXPECT_EQ(encoder.EncoderState(), sceReady);
        std::string uid;
        EXPECT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << Record(encoder);
        return "host: " + ReadDesfireFiles(encoder) + "\ncard: " + card->Save().dump();
    }
};

TEST(FaultTable, TheCardLeavingAtAnyExchangeIsAFailureAndTheCardIsOldOrNew) {
    test::RegistryDir registry;
    for (const Case& c : Cases()) {
        SCOPED_TRACE(c.name);
        Rig untouched, complete;
        ASSERT_FALSE(HasFatalFailure());
        const std::string before = untouched.CardBack();
        const std::uint64_t start = complete.reader->ExchangeCount();
        for (const Call& step : c.steps)
            Must(complete.encoder, step(complete.encoder));
        const std::uint64_t exchanges = complete.reader->ExchangeCount() - start;
        ASSERT_GE(exchanges, 2u) << "not a member of several exchanges";
        const std::string after = complete.CardBack();
        ASSERT_NE(before, after) << "a run that changes nothing tells nothing";

        for (std::uint64_t k = 0; k < exchanges; ++k) {
            for (const bool afterAnswer : {false, true}) {
                SCOPED_TRACE("card gone " + std::string(afterAnswer ? "after" : "before") + " exchange " +
                             std::to_string(k) + " of " + std::to_string(exchanges));
                Rig rig;
                sim::Faults loss;
                loss.cardLoss = sim::CardLoss{k, afterAnswer};
                rig.reader->SetFaults(loss);
                EXPECT_TRUE(std::any_of(c.steps.begin(), c.steps.end(), [&](const Call& step) {
                    return step(rig.encoder) != sceSuccess;
                })) << "every step reported success without the card";
                EXPECT_FALSE(rig.reader->HasCard()) << "the loss never happened";
                const CError& record = rig.encoder.LastError();
                EXPECT_TRUE(record.Number != 0 && !record.Description.empty() && !record.ComFunction.empty() &&
                            record.RdrCommand.starts_with("SCardTransmit:"))
                    << Record(rig.encoder);

                // Before its first exchange the card has nothing; after its
                // last it has it all; in between never half of it.
                const std::string now = rig.CardBack();
                if (k == 0 && !afterAnswer) {
                    EXPECT_EQ(now, before);
                }
                if (k + 1 == exchanges && afterAnswer) {
                    EXPECT_EQ(now, after);
                }
                EXPECT_TRUE(now == before || now == after) << "torn: " << now;
            }
        }
    }
}

}  // namespace
}  // namespace elatectwn4
