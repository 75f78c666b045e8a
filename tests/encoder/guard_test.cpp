// The one edge of every public member: what it does to the record on entry,
// and what an exception from below becomes.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "command/error_record.h"
#include "encoder/encoder_impl.h"
#include "encoder_test_util.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::test {
namespace {

const Record kBefore{7, "before", 9, "Previous", "SCardTransmit:ReadBinary", "6982"};

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
    impl.error = {static_cast<std::int32_t>(kBefore.number),
                  kBefore.description,
                  static_cast<std::int32_t>(kBefore.lastDllError),
                  kBefore.comFunction,
                  kBefore.rdrCommand,
                  kBefore.rdrRetCode};
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
                      GuardCase{"KeepSucceeds", RecordRule::Keep, Work::Succeeds, kBefore},
                      GuardCase{"UntouchedRaises", RecordRule::Untouched, Work::RaisesOther, kBefore},
                      GuardCase{"ClearRaises", RecordRule::Clear, Work::RaisesRuntimeError,
                                Record{6, "Overflow", 0, "Member", "", ""}},
                      GuardCase{"KeepRaises", RecordRule::Keep, Work::RaisesOther,
                                Record{5, "Unexpected error: index 9", 0, "Member", "", ""}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace elatectwn4::test
