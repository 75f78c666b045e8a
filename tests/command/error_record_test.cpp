#include "command/error_record.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "cipher/des_error.h"
#include "support/record_text.h"

namespace elatectwn4::command {
namespace {

using test::RecordText;

CError Filled() {
    return CError{11, "Old description", 22, "OldFunction", "OldCommand", "OldCode"};
}

TEST(SetError, WritesOnlyTheMembersGiven) {
    struct Case {
        ErrorUpdate update;
        std::string record;
    };
    const Case cases[] = {
        {{}, RecordText(11, "Old description", 0x16, "OldFunction", "OldCommand", "OldCode")},
        {{.number = 0x90010F04, .description = "Encoder command failed"},
         RecordText(0x90010F04, "Encoder command failed", 0x16, "OldFunction", "OldCommand", "OldCode")},
        {{.lastDllError = 0x80100069},
         RecordText(11, "Old description", 0x80100069, "OldFunction", "OldCommand", "OldCode")},
        {{.comFunction = "MifareReadDataBloc"},
         RecordText(11, "Old description", 0x16, "MifareReadDataBloc", "OldCommand", "OldCode")},
        {{.rdrCommand = "SCardConnect", .rdrRetCode = "9D"},
         RecordText(11, "Old description", 0x16, "OldFunction", "SCardConnect", "9D")},
        // Empty texts are values like any other.
        {{.description = "", .rdrRetCode = ""}, RecordText(11, "", 0x16, "OldFunction", "OldCommand", "")},
    };
    for (const Case& c : cases) {
        CError record = Filled();
        SetError(record, c.update);
        EXPECT_EQ(RecordText(record), c.record);
    }
}

TEST(SetError, NumbersReadBackAsSigned32BitValues) {
    struct Case {
        std::int64_t written;
        std::int32_t read;
    };
    const Case cases[] = {
        {0x90010F01, static_cast<std::int32_t>(0x90010F01LL - (1LL << 32))},
        {0x80100069, static_cast<std::int32_t>(0x80100069LL - (1LL << 32))},
        {0x7FFFFFFF, 0x7FFFFFFF},
        {-1, -1},
        {(1LL << 32) + 5, 5},  // only the low 32 bits are kept
        {0, 0},
    };
    for (const Case& c : cases) {
        CError record;
        SetError(record, {.number = c.written, .lastDllError = c.written});
        EXPECT_EQ(record.Number, c.read) << c.written;
        EXPECT_EQ(record.LastDllError, c.read) << c.written;
    }
    EXPECT_LT(ErrorValue(ErrorNumber::EncoderClosed), 0);
    EXPECT_EQ(ErrorValue(ErrorNumber::EncoderClosed), -1878978815);
}

TEST(ClearError, EmptiesTheRecordAndNamesTheRunningOperation) {
    CError record = Filled();
    ClearError(record, "ReadSerialNumber");
    EXPECT_EQ(RecordText(record), RecordText(0, "", 0, "ReadSerialNumber", "", ""));
    ClearError(record);
    EXPECT_EQ(RecordText(record), RecordText(0, "", 0, "", "", ""));
}

TEST(Fail, PairsTheNumberWithItsOwnDescription) {
    struct Case {
        ErrorNumber number;
        std::string description;
    };
    const Case cases[] = {
        {ErrorNumber::CannotOpenContext, "Cannot open encoder"},
        {ErrorNumber::CannotOpenReader, "Cannot open encoder"},
        {ErrorNumber::NoChangesInBackup, "No changes in backup files, abort/commit not needed"},
        {ErrorNumber::ValueOutOfBounds, "The value isn't between lower and upper bounds"},
    };
    for (const Case& c : cases) {
        CError record = Filled();
        Fail(record, c.number, "OpenEncoder", "SCardConnect", "No Smart Card is currently in the device.", 0x8010000C);
        EXPECT_EQ(RecordText(record),
                  RecordText(static_cast<std::uint32_t>(c.number), c.description, 0x8010000C, "OpenEncoder",
                             "SCardConnect", "No Smart Card is currently in the device."));
    }
    CError record = Filled();
    Fail(record, ErrorNumber::NoCard, "EncoderCommand");
    EXPECT_EQ(RecordText(record), RecordText(0x90010F06, "No card in encoder", 0, "EncoderCommand", "", ""));
    EXPECT_EQ(ErrorDescription(static_cast<ErrorNumber>(0x90010F07)), "");
}

TEST(RecordRuntimeError, TurnsEachKindOfExceptionIntoTheRecord) {
    struct Case {
        std::function<void()> raise;
        std::string record;
    };
    const Case cases[] = {
        {[] { throw RuntimeError(RuntimeOverflow, "Overflow"); },
         RecordText(6, "Overflow", 0, "MifareWriteValueBloc", "", "")},
        {[] { throw cipher::DesError("Bad key index"); },
         RecordText(0x80040201, "Bad key index", 0, "MifareWriteValueBloc", "", "")},
        {[] { throw std::bad_alloc(); }, RecordText(7, "Out of memory", 0, "MifareWriteValueBloc", "", "")},
        {[] { throw std::out_of_range("index 9"); },
         RecordText(5, "Unexpected error: index 9", 0, "MifareWriteValueBloc", "", "")},
        {[] { throw 42; }, RecordText(5, "Unexpected error", 0, "MifareWriteValueBloc", "", "")},
    };
    for (const Case& c : cases) {
        CError record = Filled();
        try {
            c.raise();
        } catch (...) {
            RecordRuntimeError(record, "MifareWriteValueBloc");
        }
        EXPECT_EQ(RecordText(record), c.record);
    }
}

}  // namespace
}  // namespace elatectwn4::command
