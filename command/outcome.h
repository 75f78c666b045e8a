// What one encoder command came to: the card's answer, or why there is none.
// The command layer never writes the host's error record; the member that
// sent the command turns a failed outcome into its record with RecordFailure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "cipher/secret.h"
#include "elatectwn4/error.h"

namespace elatectwn4::command {

/// A card's status as received: the last two bytes of an ISO 7816 answer
/// ("9000", "91AF"), the first byte of a DESFire native answer ("00", "AF"),
/// or none ("") on the raw channel, which has no status of its own.
class StatusWord {
public:
    constexpr StatusWord() noexcept = default;
    static constexpr StatusWord Iso(std::uint16_t sw1sw2) noexcept { return {sw1sw2, 2}; }
    static constexpr StatusWord Native(std::uint8_t status) noexcept { return {status, 1}; }

    constexpr std::uint16_t value() const noexcept { return value_; }
    constexpr bool IsIso() const noexcept { return width_ == 2; }
    constexpr bool IsNative() const noexcept { return width_ == 1; }
    /// Upper-case hex, two digits per byte received: "9000", "AF" or "".
    std::string Text() const;

    friend constexpr bool operator==(StatusWord, StatusWord) noexcept = default;

private:
    constexpr StatusWord(std::uint16_t value, std::uint8_t width) noexcept : value_(value), width_(width) {}
    std::uint16_t value_ = 0;
    std::uint8_t width_ = 0;
};

enum class Result : std::uint8_t {
    Success,        ///< the card took the command; data and status hold its answer
    CardRefused,    ///< the card answered a status that is no success: status
    ReaderFailed,   ///< PC/SC failed the transmission, or the command yielded no bytes: pcscCode
    AnswerRefused,  ///< the answer held no status word, or broke one of the component's limits: reason
    EncoderClosed,  ///< no context; nothing was sent
    NoCard,         ///< no card connected; nothing was sent
    Fault,          ///< an exception escaped: fault
};

struct Outcome {
    Result result = Result::Success;
    /// The command of the last frame sent, as traces and RdrCommand name it:
    /// the caller's, or a continuation's ("MoreResponse").
    std::string command;
    /// The answer's data over every frame (the whole raw answer for Escape);
    /// empty unless Success. Wipes itself: it may hold keys.
    cipher::SecretBuffer data;
    /// The status of the last frame received; none before any answer.
    std::optional<StatusWord> status;
    std::uint32_t pcscCode = 0;
    std::string reason;
    std::exception_ptr fault;

    bool ok() const noexcept { return result == Result::Success; }
    /// The status as RdrRetCode shows it: "9000", "AF", and "FFFF" when
    /// nothing was received.
    std::string StatusText() const { return status ? status->Text() : "FFFF"; }
};

/// Writes what a failed command came to into `record`, naming `comFunction`:
/// 0x90010F01 or 0x90010F06 with no reader details; 0x90010F04 "Encoder
/// command failed" with RdrCommand "SCardTransmit:<command>" and RdrRetCode
/// the card's status, the PC/SC error text or the refusal's reason; or the
/// run-time error a fault carries. Nothing for a success.
void RecordFailure(CError& record, const Outcome& outcome, const std::string& comFunction) noexcept;

/// Records a successful exchange whose answer has a form the command never
/// yields: 0x90010F04 "Encoder command failed" naming `comFunction`, with
/// RdrCommand "SCardTransmit:<command>" and RdrRetCode `what`: what arrived,
/// in words, never the bytes (they may be keys).
void RecordMalformedAnswer(CError& record, std::string_view command, const std::string& what,
                           const std::string& comFunction) noexcept;

/// True when the answer's data has one of the lengths `allowed`; otherwise
/// records it with RecordMalformedAnswer ("Answer of 5 data bytes, expected
/// 4, 7 or 10") and returns false.
bool CheckDataLength(CError& record, const Outcome& outcome, std::initializer_list<std::size_t> allowed,
                     const std::string& comFunction) noexcept;

}  // namespace elatectwn4::command
