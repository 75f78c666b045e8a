#include "sim/bridge/vpcd_protocol.h"

#include <stdexcept>

namespace elatectwn4::sim::bridge {

std::vector<std::uint8_t> EncodeFrame(std::span<const std::uint8_t> payload) {
    if (payload.size() > MaxFramePayload) throw std::length_error("vpcd frame payload longer than 65535 bytes");
    std::vector<std::uint8_t> frame;
    frame.reserve(payload.size() + 2);
    frame.push_back(static_cast<std::uint8_t>(payload.size() >> 8));
    frame.push_back(static_cast<std::uint8_t>(payload.size() & 0xFF));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

void FrameDecoder::Feed(std::span<const std::uint8_t> bytes) {
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

std::optional<std::vector<std::uint8_t>> FrameDecoder::Next() {
    if (buffer_.size() < 2) return std::nullopt;
    const std::size_t length = (std::size_t{buffer_[0]} << 8) | buffer_[1];
    if (buffer_.size() < 2 + length) return std::nullopt;
    std::vector<std::uint8_t> payload(buffer_.begin() + 2, buffer_.begin() + 2 + static_cast<std::ptrdiff_t>(length));
    buffer_.erase(buffer_.begin(), buffer_.begin() + 2 + static_cast<std::ptrdiff_t>(length));
    return payload;
}

std::optional<std::vector<std::uint8_t>> AnswerVpcd(CardSlot& slot, std::span<const std::uint8_t> message) {
    if (message.size() == 1) {
        switch (static_cast<VpcdControl>(message[0])) {
            case VpcdControl::PowerOff:
                slot.PowerOff();
                return std::nullopt;
            case VpcdControl::PowerOn:
                slot.PowerOn();
                return std::nullopt;
            case VpcdControl::Reset:
                slot.Reset();
                return std::nullopt;
            case VpcdControl::GetAtr:
                return slot.Atr();
        }
    }
    return slot.Transmit(message);
}

}  // namespace elatectwn4::sim::bridge
