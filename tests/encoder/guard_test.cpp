// The one edge of every public member: what it does to the record on entry,
// and what an exception from below becomes.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "command/error_record.h"
#include "elatectwn4/encoder.h"
#include "encoder/encoder_impl.h"
#include "encoder_test_util.h"
#include "support/registry_dir.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::test {
namespace {

const CError kBefore{7, "before", 9, "Previous", "SCardTransmit:ReadBinary", "6982"};

TEST(Guard, AppliesItsRuleAndNeverThrows) {
    enum class Work { Succeeds, RaisesRuntimeError, RaisesOther };
    const std::tuple<RecordRule, Work, Record> cases[] = {
        {RecordRule::Clear, Work::Succeeds, Cleared("Member")},
        {RecordRule::Keep, Work::Succeeds, Of(kBefore)},
        {RecordRule::Untouched, Work::RaisesOther, Of(kBefore)},
        {RecordRule::Clear, Work::RaisesRuntimeError, Failure(6, "Overflow", "Member")},
        {RecordRule::Keep, Work::RaisesOther, Failure(5, "Unexpected error: index 9", "Member")},
    };
    for (const auto& [rule, work, after] : cases) {
        Encoder::Impl impl(std::make_shared<ScriptedPcsc>());
        impl.error = kBefore;
        const auto run = [work] {
            if (work == Work::RaisesRuntimeError) throw command::RuntimeError(6, "Overflow", "ignored");
            if (work == Work::RaisesOther) throw std::out_of_range("index 9");
            return sceSuccess;
        };
        EXPECT_EQ(impl.Guard("Member", run, rule), work == Work::Succeeds ? sceSuccess : sceError);
        EXPECT_EQ(Of(impl.error), after);
        // A member with a text result answers "" when cut short.
        EXPECT_EQ(impl.Guard(
                      "Text", []() -> std::string { throw std::bad_alloc(); }, rule),
                  "");
    }
}

// A driver that throws where it should answer a code.
class ThrowingPcsc : public ScriptedPcsc {
public:
    std::uint32_t Status(PcscHandle, PcscStatus&) override { throw std::bad_alloc(); }
};

TEST(EncoderEdge, AnExceptionFromBelowBecomesTheRecordOfTheMember) {
    RegistryDir registry;
    Encoder encoder(std::make_shared<ThrowingPcsc>());
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    std::string uid = "kept";
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(Of(encoder.LastError()), Failure(7, "Out of memory", "ReadSerialNumber"));
    EXPECT_EQ(uid, "kept");
    EXPECT_EQ(encoder.EncoderState(), sceReady);  // an open encoder whose probe was cut short
    EXPECT_EQ(Of(encoder.LastError()), Cleared("EncoderState"));
}

}  // namespace
}  // namespace elatectwn4::test
