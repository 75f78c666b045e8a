// A simulated reader with one card, seen from vpcd, whose card contents are
// kept in a state file across runs.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "sim/bridge/vpcd_protocol.h"
#include "sim/reader.h"

namespace elatectwn4::sim::bridge {

class ReaderSlot final : public CardSlot {
public:
    using Logger = std::function<void(const std::string&)>;

    /// Takes `card` out of the field to begin with (Enter puts it in). With a
    /// state path, the card is loaded from that file when it exists, and the
    /// file is created from the card otherwise. Throws std::runtime_error when
    /// the file exists but does not hold a card of this kind, or cannot be
    /// written.
    ReaderSlot(std::shared_ptr<Card> card, std::filesystem::path statePath, Logger log = {});

    std::vector<std::uint8_t> Atr() override;
    void PowerOff() override {}
    void PowerOn() override;
    void Reset() override;
    /// Answers through the simulated reader, then stores the card when the
    /// command changed it.
    std::vector<std::uint8_t> Transmit(std::span<const std::uint8_t> apdu) override;
    void Leave() override;
    void Enter() override;

    /// Writes the card to the state file if it changed since the last write.
    /// Returns false (and logs) when the file could not be written.
    bool Persist();

    Reader& reader() noexcept { return reader_; }

private:
    std::shared_ptr<Card> card_;
    std::filesystem::path statePath_;
    Logger log_;
    Reader reader_;
    nlohmann::json stored_;
};

}  // namespace elatectwn4::sim::bridge
