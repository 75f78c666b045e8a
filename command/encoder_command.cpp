#include "command/encoder_command.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string>

#include "cipher/wipe.h"
#include "command/command_table.h"
#include "command/error_record.h"
#include "command/pcsc_error_text.h"
#include "command/trace.h"

namespace elatectwn4::command {

namespace {

constexpr char kComFunction[] = "EncoderCommand";
constexpr char kTransmitPrefix[] = "SCardTransmit:";
constexpr std::size_t kInlineCommand = 272;  // covers every fixed-size command; longer ones go to the heap

// The bytes of one frame. A small buffer on the stack keeps the common
// commands free of allocations; Escape and long DESFire payloads spill over.
class CommandBytes {
public:
    void Parse(std::string_view text) {
        std::size_t digits = 0;
        for (char c : text)
            digits += c != ' ';
        size_ = (digits + 1) / 2;
        std::uint8_t* out = Reserve(size_);
        // An odd count reads as if a "0" stood in front.
        bool high = digits % 2 == 0;
        std::size_t at = 0;
        int pending = 0;
        bool bad = false;
        for (char c : text) {
            if (c == ' ') continue;
            const int value = HexDigit(c);
            bad = bad || value < 0;
            if (high) {
                pending = value;
                high = false;
            } else {
                // A pair with a character that is not hex reads as 0.
                out[at++] = bad ? 0 : static_cast<std::uint8_t>(pending * 16 + value);
                bad = false;
                high = true;
            }
        }
    }

    std::span<const std::uint8_t> View() const noexcept {
        return {heap_.empty() ? inline_.data() : heap_.data(), size_};
    }

    void Wipe() noexcept {
        if (heap_.empty()) {
            cipher::SecureWipe(inline_.data(), size_);
        } else {
            cipher::SecureWipe(heap_);
        }
    }

private:
    static int HexDigit(char c) noexcept {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    }

    std::uint8_t* Reserve(std::size_t size) {
        heap_.clear();
        if (size <= inline_.size()) return inline_.data();
        heap_.resize(size);
        return heap_.data();
    }

    std::array<std::uint8_t, kInlineCommand> inline_;
    std::vector<std::uint8_t> heap_;
    std::size_t size_ = 0;
};

constexpr char kHexDigits[] = "0123456789ABCDEF";

void SetStatus(std::string& status, std::span<const std::uint8_t> bytes) {
    status.clear();
    for (std::uint8_t b : bytes) {
        status.push_back(kHexDigits[b >> 4]);
        status.push_back(kHexDigits[b & 0x0F]);
    }
}

// The answer's data bytes in the received frame, for masking in the trace.
SecretRange AnswerData(bool native, std::size_t received) noexcept {
    if (native) return {1, received > 0 ? received - 1 : 0};
    return {0, received > 2 ? received - 2 : 0};
}

std::string Joined(std::string_view a, std::string_view b) {
    std::string out;
    out.reserve(a.size() + b.size());
    out.append(a).append(b);
    return out;
}

sceReturnCode CommandFailed(CError& record, std::string_view name, const std::string& reason, std::string& response) {
    Fail(record, ErrorNumber::CommandFailed, kComFunction, Joined(kTransmitPrefix, name), reason);
    response.clear();
    return sceError;
}

enum class Verdict { Success, MoreIso, MoreNative, Failure };

struct StatusVerdict {
    std::string_view status;
    Verdict verdict;
};

// Every other status is a refusal. "91AF" and "AF" announce more data.
constexpr std::array kVerdicts{
    StatusVerdict{"9000", Verdict::Success}, StatusVerdict{"9100", Verdict::Success},
    StatusVerdict{"9101", Verdict::Success}, StatusVerdict{"00", Verdict::Success},
    StatusVerdict{"91AF", Verdict::MoreIso}, StatusVerdict{"AF", Verdict::MoreNative},
};

Verdict Judge(std::string_view status) noexcept {
    for (const auto& entry : kVerdicts) {
        if (entry.status == status) return entry.verdict;
    }
    return Verdict::Failure;
}

bool IsDesfire(std::uint32_t code) noexcept {
    return (code & 0xF00) == 0x400;
}

}  // namespace

std::string_view CommandName(std::uint32_t code) noexcept {
    const CommandRow* row = FindCommand(code);
    return row == nullptr ? std::string_view{} : row->name;
}

sceReturnCode EncoderCommand(Channel& channel, std::uint32_t code, const Params& params, std::string& response,
                             std::string& sw1sw2, bool moreResponse) {
    CError spare;
    CError& record = channel.error != nullptr ? *channel.error : spare;
    try {
        sw1sw2.assign("FFFF");
        response.clear();
        if (channel.context == 0 || channel.pcsc == nullptr) {
            Fail(record, ErrorNumber::EncoderClosed, kComFunction);
            return sceError;
        }
        if (channel.card == 0) {
            Fail(record, ErrorNumber::NoCard, kComFunction);
            return sceError;
        }

        // The transmit header follows the protocol the reader agreed to; T=1 is
        // what the session asks for and what it falls back to.
        const std::uint32_t protocol = channel.activeProtocol != 0 ? channel.activeProtocol : pcsc_const::ProtocolT1;
        const bool tracing = TraceEnabled();
        std::array<std::uint8_t, pcsc_const::MaxAnswer> answer;
        CommandBytes bytes;
        FilledCommand filled;
        std::uint32_t current = code;
        int continuations = 0;
        bool secretAnswer = false;

        for (;;) {
            const std::uint32_t fillResult = FillCommand(current, params, filled);
            secretAnswer = secretAnswer || filled.secretAnswer;
            if (fillResult == pcsc_code::Success) bytes.Parse(filled.text);
            // A template that yields no bytes (0x202 and 0x402 always: their
            // templates are empty) fails as an invalid parameter would.
            if (fillResult != pcsc_code::Success || bytes.View().empty()) {
                return CommandFailed(record, filled.Name(), PCSCErrorText(pcsc_code::InvalidParameter), response);
            }
            const std::span<const std::uint8_t> sent = bytes.View();

            if (tracing) {
                const std::string prefix = "Sending " + std::string(filled.Name()) + ": ";
                SecretRange secret;
                if (filled.secretDigit) {
                    // The parse puts a "0" in front of an odd digit count.
                    std::size_t digits = 0;
                    for (char c : filled.text)
                        digits += c != ' ';
                    secret.from = (*filled.secretDigit + digits % 2) / 2;
                    secret.count = sent.size() > secret.from ? sent.size() - secret.from : 0;
                }
                TraceBytes(prefix, sent, secret);
            }

            std::size_t received = answer.size();
            const std::uint32_t result = channel.pcsc->Transmit(channel.card, protocol, sent, answer, received);
            // DESFire commands travel without an ISO 7816 envelope (the reader
            // hands them to the card as they are), so their answers come back
            // native too: status byte first.
            const bool native = IsDesfire(current) || current == cmd::MoreResponseNative;
            if (filled.secretDigit) {
                bytes.Wipe();
                cipher::SecureWipe(filled.text);
            }
            const bool oversize = result == pcsc_code::Success && received > answer.size();
            const std::span<const std::uint8_t> frame(answer.data(),
                                                      result == pcsc_code::Success && !oversize ? received : 0);
            if (tracing)
                TraceBytes("Received: ", frame, secretAnswer ? AnswerData(native, frame.size()) : SecretRange{});

            if (result != pcsc_code::Success) {
                return CommandFailed(record, filled.Name(), PCSCErrorText(result), response);
            }
            if (oversize)
                return CommandFailed(record, filled.Name(), "Answer longer than the receive buffer", response);
            if (frame.empty()) {
                response.clear();
                return sceSuccess;
            }
            // The raw channel is recognised by its name, whichever code carries it.
            if (filled.Name() == "Escape") {
                response.assign(frame.begin(), frame.end());
                sw1sw2.clear();
                return sceSuccess;
            }

            if (native) {
                SetStatus(sw1sw2, frame.first(1));
                response.append(frame.begin() + 1, frame.end());
            } else {
                if (frame.size() >= 3) response.append(frame.begin(), frame.end() - 2);
                SetStatus(sw1sw2, frame.size() >= 2 ? frame.last(2) : frame.first(0));
            }
            if (secretAnswer) cipher::SecureWipe(answer.data(), frame.size());

            const Verdict verdict = Judge(sw1sw2);
            if (verdict == Verdict::Failure) return CommandFailed(record, filled.Name(), sw1sw2, response);
            if (verdict == Verdict::Success || !moreResponse) {
                // Kept for the reader's own authentication, whose template is empty today.
                if (current == cmd::ReaderAuthenticate && sw1sw2 == "9000") channel.readerAuthenticated = true;
                return sceSuccess;
            }
            const std::uint32_t next = verdict == Verdict::MoreIso ? cmd::MoreResponseIso : cmd::MoreResponseNative;

            // A card that announces more data forever must not hang the host.
            if (continuations >= MaxContinuationFrames) {
                return CommandFailed(record, filled.Name(), "Too many continuation frames", response);
            }
            if (response.size() >= MaxGatheredBytes) {
                return CommandFailed(record, filled.Name(), "Too much data in continuation frames", response);
            }
            ++continuations;
            current = next;
        }
    } catch (...) {
        RecordRuntimeError(record, kComFunction);
        response.clear();
        return sceError;
    }
}

}  // namespace elatectwn4::command
