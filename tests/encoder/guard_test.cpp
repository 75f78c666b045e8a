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

enum class Work { Succeeds, RaisesRuntimeError, RaisesOther };

struct GuardCase {
    const char* name;
    RecordRule rule;
    Work work;
    Record after;
    friend void PrintTo(const GuardCase& c, std::ostream* os) { *os << c.name; }
};

class Guard : public ::testing::TestWithParam<GuardCase> {};

TEST_P(Guard, AppliesItsRuleAndNeverThrows) {
    const GuardCase& c = GetParam();
    Encoder::Impl impl(std::make_shared<ScriptedPcsc>());
    impl.error = kBefore;
    auto run = [&] {
        if (c.work == Work::RaisesRuntimeError) throw command::RuntimeError(6, "Overflow", "ignored");
        if (c.work == Work::RaisesOther) throw std::out_of_range("index 9");
        return sceSuccess;
    };
    const sceReturnCode result = impl.Guard("Member", run, c.rule);
    EXPECT_EQ(result, c.work == Work::Succeeds ? sceSuccess : sceError);
    EXPECT_EQ(Of(impl.error), c.after);

    // A member with a text result answers "" when cut short.
    EXPECT_EQ(impl.Guard(
                  "Text", []() -> std::string { throw std::bad_alloc(); }, RecordRule::Untouched),
              "");
}

INSTANTIATE_TEST_SUITE_P(
    Rules, Guard,
    ::testing::Values(GuardCase{"ClearSucceeds", RecordRule::Clear, Work::Succeeds, Cleared("Member")},
                      GuardCase{"KeepSucceeds", RecordRule::Keep, Work::Succeeds, Of(kBefore)},
                      GuardCase{"UntouchedRaises", RecordRule::Untouched, Work::RaisesOther, Of(kBefore)},
                      GuardCase{"ClearRaises", RecordRule::Clear, Work::RaisesRuntimeError,
                                Failure(6, "Overflow", "Member")},
                      GuardCase{"KeepRaises", RecordRule::Keep, Work::RaisesOther,
                                Failure(5, "Unexpected error: index 9", "Member")}),
    [](const auto& info) { return std::string(info.param.name); });

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
