// The vpcd link: however TCP cuts a byte stream, the decoder gives the frames
// a plain reading of the stream gives, keeps exactly the rest, and each frame
// reaches the card as the power message or the command it is.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "sim/bridge/vpcd_protocol.h"

namespace {

using namespace elatectwn4::sim::bridge;
using elatectwn4::fuzz::Check;
using Bytes = std::vector<std::uint8_t>;

// Records what vpcd asked of it.
class RecordingSlot : public CardSlot {
public:
    std::string calls;
    Bytes lastApdu;
    Bytes Atr() override {
        calls += 'A';
        return {0x3B, 0x80};
    }
    void PowerOff() override { calls += '0'; }
    void PowerOn() override { calls += '1'; }
    void Reset() override { calls += 'R'; }
    Bytes Transmit(std::span<const std::uint8_t> apdu) override {
        calls += 'T';
        lastApdu.assign(apdu.begin(), apdu.end());
        return {0x90, 0x00};
    }
};

void CheckAnswer(const Bytes& frame) {
    RecordingSlot slot;
    const auto answer = AnswerVpcd(slot, frame);
    if (frame.size() == 1 && frame[0] <= 0x02) {
        Check(!answer && slot.calls == std::string(1, "01R"[frame[0]]), "a power message drives the power line");
    } else if (frame.size() == 1 && frame[0] == 0x04) {
        Check(answer == Bytes{0x3B, 0x80} && slot.calls == "A", "a request for the ATR gets the ATR");
    } else {
        Check(answer == Bytes{0x90, 0x00} && slot.calls == "T" && slot.lastApdu == frame,
              "any other message reaches the card whole");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // The first byte decides where the stream is cut; the rest is the stream.
    std::uint32_t cut = data[0] | 1u;
    const std::span<const std::uint8_t> stream(data + 1, size - 1);

    // A plain reading of the whole stream.
    std::vector<Bytes> expected;
    std::size_t at = 0;
    while (stream.size() - at >= 2) {
        const std::size_t length = std::size_t{stream[at]} << 8 | stream[at + 1];
        if (stream.size() - at - 2 < length) break;
        expected.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(at + 2),
                              stream.begin() + static_cast<std::ptrdiff_t>(at + 2 + length));
        at += 2 + length;
    }

    FrameDecoder decoder;
    std::vector<Bytes> frames;
    for (std::size_t fed = 0; fed < stream.size();) {
        cut = cut * 1103515245u + 12345u;
        const std::size_t piece = std::min<std::size_t>(1 + (cut >> 16) % 9, stream.size() - fed);
        decoder.Feed(stream.subspan(fed, piece));
        fed += piece;
        while (auto frame = decoder.Next())
            frames.push_back(std::move(*frame));
    }
    Check(frames == expected, "the frames do not depend on where the stream was cut");
    Check(decoder.Pending() == stream.size() - at, "the decoder keeps exactly the incomplete rest");

    Bytes again;
    for (const auto& frame : frames) {
        const Bytes encoded = EncodeFrame(frame);
        again.insert(again.end(), encoded.begin(), encoded.end());
        CheckAnswer(frame);
    }
    Check(again == Bytes(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(at)),
          "the frames encode back to the stream they came from");
    return 0;
}
