#include "sim/bridge/reader_slot.h"

#include <stdexcept>
#include <utility>

#include "sim/bridge/state_file.h"

namespace elatectwn4::sim::bridge {

ReaderSlot::ReaderSlot(std::shared_ptr<Card> card, std::filesystem::path statePath, Logger log)
    : card_(std::move(card)), statePath_(std::move(statePath)), log_(std::move(log)), reader_("Virtual PCD") {
    if (!card_) throw std::invalid_argument("ReaderSlot needs a card");
    if (statePath_.empty()) return;
    if (auto state = ReadStateFile(statePath_)) {
        card_->Load(*state);
        stored_ = card_->Save();
    } else {
        stored_ = card_->Save();
        WriteStateFile(statePath_, stored_);
    }
}

std::vector<std::uint8_t> ReaderSlot::Atr() {
    return reader_.Atr();
}

void ReaderSlot::PowerOn() {
    reader_.ResetCard();
}

void ReaderSlot::Reset() {
    reader_.ResetCard();
}

std::vector<std::uint8_t> ReaderSlot::Transmit(std::span<const std::uint8_t> apdu) {
    auto answer = reader_.Transmit(apdu);
    Persist();
    return answer;
}

void ReaderSlot::Leave() {
    reader_.Remove();
    Persist();
}

void ReaderSlot::Enter() {
    reader_.Insert(card_);
}

bool ReaderSlot::Persist() {
    if (statePath_.empty()) return true;
    // Comparing whole documents costs a few microseconds per APDU and needs no
    // help from the card to know what a command changed.
    auto state = card_->Save();
    if (state == stored_) return true;
    try {
        WriteStateFile(statePath_, state);
    } catch (const std::exception& e) {
        if (log_) log_(std::string("card not saved: ") + e.what());
        return false;
    }
    stored_ = std::move(state);
    return true;
}

}  // namespace elatectwn4::sim::bridge
