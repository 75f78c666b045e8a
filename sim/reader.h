// A simulated contactless PC/SC reader: answers the storage-card commands of
// class FF itself (UID, volatile key slots, MIFARE authentication, block read
// and write) and hands DESFire frames, native or ISO-wrapped (CLA 90), to the
// card in its field.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/card.h"

namespace elatectwn4::sim {

/// Misbehaviour to inject, for reliability tests. All off by default.
struct Faults {
    bool garbageAnswers = false;     ///< every answer replaced by random bytes
    bool truncatedAnswers = false;   ///< every answer cut to its first byte
    std::chrono::milliseconds delay{0};  ///< added before every answer
    bool dropConnection = false;     ///< the next transmission fails as if the card left
    bool endlessMoreFrames = false;  ///< the card answers "more data" (AF / 91AF) forever
};

class Reader {
public:
    explicit Reader(std::string name);

    const std::string& Name() const noexcept { return name_; }

    /// A card enters the field (powered on: volatile state lost).
    void Insert(std::shared_ptr<Card> card);
    /// The card leaves the field.
    void Remove();
    bool HasCard() const;
    std::shared_ptr<Card> CurrentCard() const;
    /// The ATR of the card in the field (empty without a card).
    std::vector<std::uint8_t> Atr() const;
    /// Field off and on again: the card loses its volatile state, key slots are kept.
    void ResetCard();

    /// One APDU in, the whole answer (data + status) out. Without a card the
    /// answer is empty.
    std::vector<std::uint8_t> Transmit(std::span<const std::uint8_t> apdu);

    Faults& faults() noexcept { return faults_; }

private:
    std::string name_;
    mutable std::mutex mutex_;
    std::shared_ptr<Card> card_;
    std::array<std::optional<MifareKey>, 32> keySlots_{};
    Faults faults_;
};

/// A new card of `kind` ("mifare1k", "mifare4k", "desfire") in transport
/// state; throws std::invalid_argument for another kind. An empty uid gives
/// the kind's default UID.
std::shared_ptr<Card> MakeCard(const std::string& kind, std::vector<std::uint8_t> uid = {});

}  // namespace elatectwn4::sim
