#include "command/encoder_command.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string>

#include "cipher/bytes.h"
#include "cipher/wipe.h"
#include "command/command_table.h"
#include "command/raw_secrets.h"
#include "command/trace.h"

namespace elatectwn4::command {

namespace {

enum class Verdict { Success, MoreIso, MoreNative, Failure };

// Every other status is a refusal. "91AF" and "AF" announce more data.
Verdict Judge(StatusWord status) noexcept {
    if (status.IsNative()) {
        if (status.value() == 0x00) return Verdict::Success;
        if (status.value() == 0xAF) return Verdict::MoreNative;
    } else if (status.IsIso()) {
        switch (status.value()) {
            case 0x9000:
            case 0x9100:
            case 0x9101:
                return Verdict::Success;
            case 0x91AF:
                return Verdict::MoreIso;
            default:
                break;
        }
    }
    return Verdict::Failure;
}

bool IsDesfire(std::uint32_t code) noexcept {
    return (code & 0xF00) == 0x400;
}

// The answer's data bytes in the received frame, for masking in the trace.
SecretRange AnswerData(bool native, std::size_t received) noexcept {
    if (native) return {1, received > 0 ? received - 1 : 0};
    return {0, received > 2 ? received - 2 : 0};
}

// The bytes of a filled command; the component's hex parse reads a pair
// that is not hex as 0 and an odd digit count as if a "0" stood in front.
// Returns the number of digits read.
std::size_t ParseCommand(const FilledCommand& filled, cipher::SecretBuffer& bytes) {
    constexpr cipher::HexSyntax kCommandSyntax{cipher::IsBlank, true};
    const std::size_t digits = cipher::CountHexDigits(filled.text.text(), kCommandSyntax).value_or(0);
    bytes.Resize((digits + 1) / 2);
    cipher::DecodeHex(filled.text.text(), {bytes.data(), bytes.size()}, kCommandSyntax);
    return digits;
}

// The sent bytes that the trace hides: from the byte in which the secret's
// first digit lands (the parse put a "0" in front of an odd count), or where
// a raw command's own secret starts, to the end.
SecretRange SentSecret(const FilledCommand& filled, std::size_t digits, std::size_t sent,
                       std::optional<std::size_t> rawFrom) noexcept {
    std::optional<std::size_t> from = rawFrom;
    if (filled.secretDigit) from = std::min(from.value_or(sent), (*filled.secretDigit + digits % 2) / 2);
    if (!from) return {};
    return {*from, sent > *from ? sent - *from : 0};
}

// What arrived instead of a status word; a single byte is no key material.
std::string NoStatusReason(std::span<const std::uint8_t> frame) {
    return "No status word in the answer: " +
           (frame.empty() ? std::string("nothing received") : "received " + cipher::ToHex(frame, ' '));
}

void Fail(Outcome& outcome, Result result) noexcept {
    outcome.result = result;
    outcome.data.Clear();
}

// The receive buffer of one command; whatever a driver wrote into it is
// wiped however the command ends, as it may be a key.
struct AnswerBuffer {
    std::array<std::uint8_t, pcsc_const::MaxAnswer> bytes;
    std::size_t written = 0;

    void Wipe() noexcept {
        cipher::SecureWipe(bytes.data(), written);
        written = 0;
    }
    ~AnswerBuffer() { Wipe(); }
};

}  // namespace

std::string_view CommandName(std::uint32_t code) noexcept {
    const CommandRow* row = FindCommand(code);
    return row == nullptr ? std::string_view{} : row->name;
}

Outcome EncoderCommand(Channel& channel, std::uint32_t code, const Params& params,
                       const CommandOptions& options) noexcept {
    Outcome outcome;
    try {
        if (channel.context == 0 || channel.pcsc == nullptr) {
            Fail(outcome, Result::EncoderClosed);
            return outcome;
        }
        if (channel.card == 0) {
            Fail(outcome, Result::NoCard);
            return outcome;
        }

        // The transmit header follows the protocol the reader agreed to; T=1 is
        // what the session asks for and what it falls back to.
        const std::uint32_t protocol = channel.activeProtocol != 0 ? channel.activeProtocol : pcsc_const::ProtocolT1;
        const bool tracing = TraceEnabled();
        AnswerBuffer answer;
        cipher::SecretBuffer sent;
        FilledCommand filled;
        std::uint32_t current = code;
        std::string_view secretFrom = options.secretFrom;
        bool secretAnswer = options.secretAnswer;
        int continuations = 0;

        for (;;) {
            const std::uint32_t fillResult = FillCommand(current, params, secretFrom, filled);
            secretAnswer = secretAnswer || filled.secretAnswer;
            outcome.command = filled.Name();
            const std::size_t digits = fillResult == pcsc_code::Success ? ParseCommand(filled, sent) : 0;
            // A template that yields no bytes (0x202 and 0x402 always: their
            // templates are empty) fails as an invalid parameter would.
            if (fillResult != pcsc_code::Success || sent.empty()) {
                outcome.pcscCode = pcsc_code::InvalidParameter;
                Fail(outcome, Result::ReaderFailed);
                return outcome;
            }
            // A raw command carries whatever the host wrote, keys included.
            const RawSecrets raw = current == cmd::Escape ? RawCommandSecrets(sent.view()) : RawSecrets{};
            secretAnswer = secretAnswer || raw.answer;
            if (tracing) {
                TraceBytes("Sending " + outcome.command + ": ", sent.view(),
                           SentSecret(filled, digits, sent.size(), raw.sentFrom));
            }

            std::size_t received = answer.bytes.size();
            const std::uint32_t result =
                channel.pcsc->Transmit(channel.card, protocol, sent.view(), answer.bytes, received);
            answer.written = std::min(received, answer.bytes.size());
            // DESFire commands travel without an ISO 7816 envelope (the reader
            // hands them to the card as they are), so their answers come back
            // native too: status byte first.
            const bool native = IsDesfire(current) || current == cmd::MoreResponseNative;
            const bool oversize = result == pcsc_code::Success && received > answer.bytes.size();
            const std::span<const std::uint8_t> frame(answer.bytes.data(),
                                                      result == pcsc_code::Success && !oversize ? received : 0);
            if (tracing)
                TraceBytes("Received: ", frame,
                           secretAnswer ? AnswerData(native || raw.nativeAnswer, frame.size()) : SecretRange{});

            if (result != pcsc_code::Success) {
                outcome.pcscCode = result;
                Fail(outcome, Result::ReaderFailed);
                return outcome;
            }
            if (oversize) {
                outcome.reason = "Answer longer than the receive buffer";
                Fail(outcome, Result::AnswerRefused);
                return outcome;
            }
            // The raw channel is recognised by its name, whichever code carries
            // it; its answer is the caller's to read, an empty one included.
            if (outcome.command == "Escape") {
                outcome.data.Clear();
                outcome.data.Append(frame);
                outcome.status = StatusWord{};
                return outcome;
            }
            // Every other command is judged by its status word: an answer too
            // short to hold one is no answer to it.
            if (frame.size() < (native ? 1u : 2u)) {
                outcome.reason = NoStatusReason(frame);
                Fail(outcome, Result::AnswerRefused);
                return outcome;
            }

            if (native) {
                outcome.status = StatusWord::Native(frame[0]);
                outcome.data.Append(frame.subspan(1));
            } else {
                const std::size_t n = frame.size();
                outcome.data.Append(frame.first(n - 2));
                outcome.status = StatusWord::Iso(static_cast<std::uint16_t>(frame[n - 2] << 8 | frame[n - 1]));
            }
            answer.Wipe();

            const Verdict verdict = Judge(*outcome.status);
            if (verdict == Verdict::Failure) {
                Fail(outcome, Result::CardRefused);
                return outcome;
            }
            if (verdict == Verdict::Success || !options.moreResponse) return outcome;

            // A card that announces more data forever must not hang the host.
            const char* limit = continuations >= MaxContinuationFrames    ? "Too many continuation frames"
                                : outcome.data.size() >= MaxGatheredBytes ? "Too much data in continuation frames"
                                                                          : nullptr;
            if (limit != nullptr) {
                outcome.reason = limit;
                Fail(outcome, Result::AnswerRefused);
                return outcome;
            }
            ++continuations;
            current = verdict == Verdict::MoreIso ? cmd::MoreResponseIso : cmd::MoreResponseNative;
            secretFrom = {};  // the caller's secret was in the first frame; continuations carry none
        }
    } catch (...) {
        outcome.fault = std::current_exception();
        Fail(outcome, Result::Fault);
        return outcome;
    }
}

}  // namespace elatectwn4::command
