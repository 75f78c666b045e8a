#include "command/outcome.h"

#include "cipher/bytes.h"
#include "command/error_record.h"
#include "command/pcsc_error_text.h"

namespace elatectwn4::command {

std::string StatusWord::Text() const {
    std::string text;
    if (width_ == 2) text = cipher::ToHex(static_cast<std::uint8_t>(value_ >> 8));
    if (width_ >= 1) text += cipher::ToHex(static_cast<std::uint8_t>(value_));
    return text;
}

void RecordFailure(CError& record, const Outcome& outcome, const std::string& comFunction) noexcept {
    try {
        const std::string transmit = "SCardTransmit:" + outcome.command;
        switch (outcome.result) {
            case Result::Success:
                return;
            case Result::EncoderClosed:
                Fail(record, ErrorNumber::EncoderClosed, comFunction);
                return;
            case Result::NoCard:
                Fail(record, ErrorNumber::NoCard, comFunction);
                return;
            case Result::CardRefused:
                Fail(record, ErrorNumber::CommandFailed, comFunction, transmit, outcome.StatusText());
                return;
            case Result::ReaderFailed:
                // The PC/SC code goes into the text only; LastDllError stays 0.
                Fail(record, ErrorNumber::CommandFailed, comFunction, transmit, PCSCErrorText(outcome.pcscCode));
                return;
            case Result::AnswerRefused:
                Fail(record, ErrorNumber::CommandFailed, comFunction, transmit, outcome.reason);
                return;
            case Result::Fault:
                break;
        }
        if (outcome.fault) std::rethrow_exception(outcome.fault);
        throw std::logic_error("fault without an exception");
    } catch (...) {
        RecordRuntimeError(record, comFunction);
    }
}

void RecordMalformedAnswer(CError& record, std::string_view command, const std::string& what,
                           const std::string& comFunction) noexcept {
    try {
        Fail(record, ErrorNumber::CommandFailed, comFunction, "SCardTransmit:" + std::string(command), what);
    } catch (...) {
        RecordRuntimeError(record, comFunction);
    }
}

bool CheckDataLength(CError& record, const Outcome& outcome, std::initializer_list<std::size_t> allowed,
                     const std::string& comFunction) noexcept {
    const std::size_t size = outcome.data.size();
    for (const std::size_t length : allowed) {
        if (size == length) return true;
    }
    try {
        std::string expected;
        std::size_t left = allowed.size();
        for (const std::size_t length : allowed) {
            expected += std::to_string(length);
            --left;
            if (left > 1) expected += ", ";
            if (left == 1) expected += " or ";
        }
        RecordMalformedAnswer(record, outcome.command,
                              "Answer of " + std::to_string(size) + " data bytes, expected " + expected, comFunction);
    } catch (...) {
        RecordRuntimeError(record, comFunction);
    }
    return false;
}

}  // namespace elatectwn4::command
