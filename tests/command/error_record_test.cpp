#include "command/error_record.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "cipher/des_error.h"
#include "command/outcome.h"
#include "support/record_text.h"

namespace elatectwn4::command {
namespace {

using test::RecordText;

CError Filled() {
    return CError{11, "Old description", 22, "OldFunction", "OldCommand", "OldCode"};
}

// A partial update leaves the other members alone; numbers keep their low 32
// bits, and each number goes with its own description.
TEST(ErrorRecord, SetClearAndFailWriteTheRecord) {
    CError record = Filled();
    SetError(record, {.number = 0x90010F01, .lastDllError = (1LL << 32) + 5, .comFunction = "MifareReadDataBloc"});
    EXPECT_EQ(RecordText(record),
              RecordText(0x90010F01, "Old description", 5, "MifareReadDataBloc", "OldCommand", "OldCode"));
    EXPECT_EQ(record.Number, -1878978815) << "read back signed";
    ClearError(record, "ReadSerialNumber");
    EXPECT_EQ(RecordText(record), RecordText(0, "", 0, "ReadSerialNumber", "", ""));
    Fail(record, ErrorNumber::CannotOpenReader, "OpenEncoder", "SCardConnect", "No Smart Card", 0x8010000C);
    EXPECT_EQ(RecordText(record), RecordText(0x90010F03, "Cannot open encoder", 0x8010000C, "OpenEncoder",
                                             "SCardConnect", "No Smart Card"));
    Fail(record, ErrorNumber::NoChangesInBackup, "DESFireCommitTransaction");
    EXPECT_EQ(RecordText(record), RecordText(0x90010E4F, "No changes in backup files, abort/commit not needed", 0,
                                             "DESFireCommitTransaction", "", ""));
    EXPECT_EQ(ErrorDescription(static_cast<ErrorNumber>(0x90010F7F)), "");
}

TEST(RecordRuntimeError, TurnsEachKindOfExceptionIntoTheRecord) {
    struct Case {
        std::function<void()> raise;
        std::string record;
    };
    const Case cases[] = {
        {[] { throw RuntimeError(RuntimeOverflow, "Overflow"); }, RecordText(6, "Overflow", 0, "Member", "", "")},
        {[] { throw cipher::DesError("Bad key index"); }, RecordText(0x80040201, "Bad key index", 0, "Member", "", "")},
        {[] { throw std::bad_alloc(); }, RecordText(7, "Out of memory", 0, "Member", "", "")},
        {[] { throw std::out_of_range("index 9"); }, RecordText(5, "Unexpected error: index 9", 0, "Member", "", "")},
        {[] { throw 42; }, RecordText(5, "Unexpected error", 0, "Member", "", "")},
    };
    for (const Case& c : cases) {
        CError record = Filled();
        try {
            c.raise();
        } catch (...) {
            RecordRuntimeError(record, "Member");
        }
        EXPECT_EQ(RecordText(record), c.record);
    }
}

TEST(RecordFailure, WritesWhatTheCommandCameToUnderTheMembersName) {
    const auto outcome = [](Result result, std::optional<StatusWord> status = {}) {
        Outcome o;
        o.result = result;
        o.command = "ReadBinary";
        o.status = status;
        return o;
    };
    Outcome reader = outcome(Result::ReaderFailed, StatusWord::Iso(0x91AF));
    reader.pcscCode = 0x80100069;
    Outcome limit = outcome(Result::AnswerRefused);
    limit.reason = "Too many continuation frames";
    Outcome fault = outcome(Result::Fault);
    fault.fault = std::make_exception_ptr(RuntimeError(RuntimeOverflow, "Overflow"));
    const std::string failed = "Encoder command failed";
    const std::string transmit = "SCardTransmit:ReadBinary";
    struct Case {
        Outcome outcome;
        std::string record;
    };
    const Case cases[] = {
        {outcome(Result::Success), RecordText(11, "Old description", 0x16, "OldFunction", "OldCommand", "OldCode")},
        {outcome(Result::EncoderClosed), RecordText(0x90010F01, "Encoder is closed", 0, "Member", "", "")},
        {outcome(Result::NoCard), RecordText(0x90010F06, "No card in encoder", 0, "Member", "", "")},
        {outcome(Result::CardRefused, StatusWord::Iso(0x6982)),
         RecordText(0x90010F04, failed, 0, "Member", transmit, "6982")},
        {outcome(Result::CardRefused, StatusWord{}), RecordText(0x90010F04, failed, 0, "Member", transmit, "")},
        {reader, RecordText(0x90010F04, failed, 0, "Member", transmit,
                            "The smart card has been removed, so that further communication is not possible.")},
        {limit, RecordText(0x90010F04, failed, 0, "Member", transmit, "Too many continuation frames")},
        {fault, RecordText(6, "Overflow", 0, "Member", "", "")},
    };
    for (const Case& c : cases) {
        CError record = Filled();
        RecordFailure(record, c.outcome, "Member");
        EXPECT_EQ(RecordText(record), c.record);
    }
}

TEST(CheckDataLength, PassesTheLengthsAllowedAndRecordsAnyOtherWithWhatArrived) {
    struct Case {
        std::size_t size;
        std::initializer_list<std::size_t> allowed;
        std::string reason;  // empty: passes, the record untouched
    };
    const Case cases[] = {
        {16, {16}, ""},
        {0, {16}, "Answer of 0 data bytes, expected 16"},
        {5, {4, 7, 10}, "Answer of 5 data bytes, expected 4, 7 or 10"},
    };
    for (const Case& c : cases) {
        Outcome outcome;
        outcome.command = "GetUID";
        outcome.data.Resize(c.size);
        CError record = Filled();
        const std::string before = RecordText(record);
        EXPECT_EQ(CheckDataLength(record, outcome, c.allowed, "Member"), c.reason.empty()) << c.size;
        EXPECT_EQ(RecordText(record), c.reason.empty() ? before
                                                       : RecordText(0x90010F04, "Encoder command failed", 0, "Member",
                                                                    "SCardTransmit:GetUID", c.reason));
    }
}

}  // namespace
}  // namespace elatectwn4::command
