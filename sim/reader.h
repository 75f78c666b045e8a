// A simulated contactless PC/SC reader: answers the storage-card commands of
// class FF itself (UID, volatile key slots, MIFARE authentication, block read
// and write) and hands DESFire frames, native or ISO-wrapped (CLA 90), to the
// card in its field.
//
// Commands of class FF and their answers (the PC/SC storage-card status words):
//   FF CA 00 00 Le        GET DATA: the UID; Le 00 = all of it, a shorter Le
//                         gives 6Cxx (xx = the UID length), a longer one the
//                         UID with 6282. FF CA 01 00 (historical bytes): 6A81.
//   FF 82 00 nn 06 key    LOAD KEYS into volatile slot nn (0..31): 6988 for
//                         another slot, 6989 for another key length, 6387 when
//                         asked for non-volatile memory (P1 20).
//   FF 86 00 00 05 01 MSB LSB 60|61 nn
//                         GENERAL AUTHENTICATE with key A (60) or B (61) from
//                         slot nn: 6300 wrong key, 6A82 no such block, 6986
//                         unknown key type, 6988 bad slot, 6984 empty slot.
//   FF B0 MSB LSB Le      READ BINARY, Le 00 or 10: 16 bytes.
//   FF D6 MSB LSB 10 data UPDATE BINARY of 16 bytes.
//   FF 9B ...             the reader's own protocol switch: 9000.
// Malformed frames give 6700 (lengths) or 6B00 (P1 P2); other instructions
// of class FF 6D00; MIFARE commands to a card that is no Classic card 6A81;
// frames of another class to a card that speaks no DESFire 6E00.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "sim/card.h"

namespace elatectwn4::sim {

/// Status words of the reader's storage-card commands beyond those in card.h.
namespace sw {
inline constexpr std::uint16_t EndOfData = 0x6282;  ///< fewer bytes than Le asked for
inline constexpr std::uint16_t NonVolatileUnavailable = 0x6387;
inline constexpr std::uint16_t KeyNotUsable = 0x6984;  ///< empty key slot
inline constexpr std::uint16_t KeyTypeUnknown = 0x6986;
inline constexpr std::uint16_t KeySlotInvalid = 0x6988;    ///< no such key slot
inline constexpr std::uint16_t KeyLengthInvalid = 0x6989;  ///< LOAD KEYS of another length
inline constexpr std::uint16_t WrongData = 0x6A80;
inline constexpr std::uint16_t WrongLe = 0x6C00;  ///< + the right Le
}  // namespace sw

/// The card leaving the field in the middle of a host's work: at the
/// exchange `exchange` from now (0 = the next one that reaches the card),
/// either before the card sees it, or after the card has done what it asked
/// and only the answer is lost. The transmission fails as if the card left.
struct CardLoss {
    std::uint64_t exchange = 0;
    bool afterAnswer = false;
};

/// Misbehaviour to inject, for reliability tests. All off by default.
struct Faults {
    bool garbageAnswers = false;         ///< every answer replaced by random bytes of the same length
    bool truncatedAnswers = false;       ///< every answer cut to its first byte
    std::chrono::milliseconds delay{0};  ///< added before every answer
    bool dropConnection = false;         ///< the next transmission fails as if the card left (one shot)
    bool endlessMoreFrames = false;      ///< the card answers "more data" (AF / 91AF) to every DESFire frame
    /// The last data byte of every answer to this DESFire command (its native
    /// code, sent natively or wrapped) inverted, as a bit error on the way
    /// would; answers without data pass unchanged.
    std::optional<std::uint8_t> corruptAnswersTo;
    /// The card leaves once, as CardLoss says; the card stays out until it
    /// is inserted again.
    std::optional<CardLoss> cardLoss;
};

/// The answer a TWN4 gives in the mode that hides the card ("Cindy0" in its
/// historical bytes); hosts send the simple-protocol switch (FF 9B ...) and
/// connect again.
inline constexpr std::array<std::uint8_t, 12> kReaderModeAtr{0x3B, 0x86, 0x81, 0x11, 0xFE, 0x81,
                                                             0x43, 0x69, 0x6E, 0x64, 0x79, 0x30};

/// Which card-in-field period a PC/SC connection was made in.
struct FieldSession {
    std::uint64_t insertion = 0;  ///< changes with every insertion; 0 = no card
    std::uint64_t resets = 0;     ///< changes with every field reset of that card
};

class Reader {
public:
    explicit Reader(std::string name);

    const std::string& Name() const noexcept { return name_; }

    /// A card enters the field (powered on: volatile state lost). A card
    /// already there leaves first.
    void Insert(std::shared_ptr<Card> card);
    /// The card leaves the field.
    void Remove();
    bool HasCard() const;
    std::shared_ptr<Card> CurrentCard() const;
    /// The ATR of the card in the field (empty without a card); the reader's
    /// own answer instead while the reader-mode answer is on.
    std::vector<std::uint8_t> Atr() const;
    /// Field off and on again: the card loses its volatile state, key slots are kept.
    void ResetCard();

    /// One APDU in, the whole answer (data + status) out. Without a card the
    /// answer is empty.
    std::vector<std::uint8_t> Transmit(std::span<const std::uint8_t> apdu);

    /// Where a transmission went, for TransmitIn.
    enum class Delivery { Answered, CardGone, CardReset };
    /// Transmit, but only to the card of `session`: nothing is sent when that
    /// card left (CardGone) or its field was reset (CardReset) since.
    Delivery TransmitIn(const FieldSession& session, std::span<const std::uint8_t> apdu,
                        std::vector<std::uint8_t>& answer);
    /// The current card-in-field period.
    FieldSession CurrentSession() const;

    void SetFaults(const Faults& faults);
    Faults CurrentFaults() const;

    /// When on, the reader answers with kReaderModeAtr until a host sends the
    /// simple-protocol switch (FF 9B ...); that host's next connection sees
    /// the card's ATR.
    void SetReaderModeAtr(bool on);

    /// How many exchanges have reached a card in this reader, for counting
    /// the exchanges of a host's operation.
    std::uint64_t ExchangeCount() const;

    /// The key held in a volatile slot, for inspection.
    std::optional<MifareKey> KeySlot(std::size_t slot) const;

private:
    /// One exchange under the lock; `session` null = whichever card is there.
    Delivery Exchange(const FieldSession* session, std::span<const std::uint8_t> apdu,
                      std::vector<std::uint8_t>& answer);
    std::vector<std::uint8_t> Dispatch(std::span<const std::uint8_t> apdu);
    std::vector<std::uint8_t> ReaderCommand(std::span<const std::uint8_t> apdu);
    std::vector<std::uint8_t> GetData(std::span<const std::uint8_t> apdu);
    std::uint16_t LoadKeys(std::span<const std::uint8_t> apdu);
    std::uint16_t GeneralAuthenticate(std::span<const std::uint8_t> apdu);
    std::vector<std::uint8_t> ReadBinary(std::span<const std::uint8_t> apdu);
    std::uint16_t UpdateBinary(std::span<const std::uint8_t> apdu);
    std::vector<std::uint8_t> DesfireNative(std::span<const std::uint8_t> frame);
    std::vector<std::uint8_t> DesfireIso(std::span<const std::uint8_t> apdu);
    /// The card leaves the field (already locked).
    void LoseCard() noexcept;
    /// Applies the answer faults (already locked).
    void Distort(std::span<const std::uint8_t> apdu, std::vector<std::uint8_t>& answer);

    std::string name_;
    mutable std::mutex mutex_;
    std::shared_ptr<Card> card_;
    FieldSession session_;
    std::uint64_t insertions_ = 0;
    std::uint64_t exchanges_ = 0;
    std::array<std::optional<MifareKey>, 32> keySlots_{};
    Faults faults_;
    bool readerModeAtr_ = false;
    std::mt19937 noise_{0x7E4u};  // fixed seed: a failing run replays identically
};

/// A new card of `kind` ("mifare1k", "mifare4k", "desfire") in transport
/// state; throws std::invalid_argument for another kind or a UID of a length
/// the kind cannot have. An empty uid gives the kind's default UID.
std::shared_ptr<Card> MakeCard(const std::string& kind, std::vector<std::uint8_t> uid = {});

}  // namespace elatectwn4::sim
