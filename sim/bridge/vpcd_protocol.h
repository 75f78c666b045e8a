// The wire protocol between the vpcd reader driver (inside pcscd) and a
// virtual card. vpcd listens on a TCP port per slot and the card connects to
// it; from then on vpcd asks and the card answers. Every message in either
// direction is a 2-byte big-endian length followed by that many bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

namespace elatectwn4::sim::bridge {

/// The first slot's port on a stock vpcd installation (0x8C7B); the second
/// slot listens on the next port.
inline constexpr std::uint16_t DefaultVpcdPort = 35963;

/// Largest payload the 2-byte length prefix can describe.
inline constexpr std::size_t MaxFramePayload = 0xFFFF;

/// One-byte messages vpcd sends to drive the card's power lines.
enum class VpcdControl : std::uint8_t {
    PowerOff = 0x00,
    PowerOn = 0x01,
    Reset = 0x02,
    GetAtr = 0x04,
};

/// `payload` with its length prefix. Throws std::length_error when the
/// payload does not fit the prefix.
std::vector<std::uint8_t> EncodeFrame(std::span<const std::uint8_t> payload);

/// Reassembles frames from a byte stream that TCP cuts wherever it likes.
class FrameDecoder {
public:
    /// Appends received bytes.
    void Feed(std::span<const std::uint8_t> bytes);
    /// The next complete frame's payload, or nullopt until one is complete.
    std::optional<std::vector<std::uint8_t>> Next();
    /// Bytes received but not yet returned as a frame.
    std::size_t Pending() const noexcept { return buffer_.size(); }
    /// Forgets a partial frame (the connection it came from is gone).
    void Clear() noexcept { buffer_.clear(); }

private:
    std::deque<std::uint8_t> buffer_;
};

/// What a virtual card in the field must do for vpcd.
class CardSlot {
public:
    virtual ~CardSlot() = default;
    /// The answer-to-reset vpcd reports to pcscd.
    virtual std::vector<std::uint8_t> Atr() = 0;
    virtual void PowerOff() = 0;
    /// Power on and reset: the card's volatile state is lost.
    virtual void PowerOn() = 0;
    virtual void Reset() = 0;
    /// One command APDU in, the whole response APDU out (empty when the card
    /// could not answer at all).
    virtual std::vector<std::uint8_t> Transmit(std::span<const std::uint8_t> apdu) = 0;
    /// The card is taken out of the field, or put back.
    virtual void Leave() {}
    virtual void Enter() {}
};

/// Acts on one message from vpcd. Returns the payload to send back, or nullopt
/// for the power messages, which vpcd does not expect an answer to.
///
/// A one-byte message is a power message only for the codes of VpcdControl:
/// DESFire native commands such as GetVersion (60) or a continuation (AF) are
/// single bytes too and must reach the card.
std::optional<std::vector<std::uint8_t>> AnswerVpcd(CardSlot& slot, std::span<const std::uint8_t> message);

}  // namespace elatectwn4::sim::bridge
