#include "sim/reader.h"

#include <algorithm>
#include <thread>

namespace elatectwn4::sim {

namespace {

constexpr std::uint8_t kReaderClass = 0xFF;
constexpr std::uint8_t kDesfireIsoClass = 0x90;
constexpr std::uint8_t kDesfireMoreFrames = 0xAF;

namespace ins {
constexpr std::uint8_t GetData = 0xCA;
constexpr std::uint8_t LoadKeys = 0x82;
constexpr std::uint8_t GeneralAuthenticate = 0x86;
constexpr std::uint8_t ReadBinary = 0xB0;
constexpr std::uint8_t UpdateBinary = 0xD6;
constexpr std::uint8_t SimpleProtocol = 0x9B;  // the reader's own escape
}  // namespace ins

constexpr std::uint8_t kVolatileKeys = 0x00;
constexpr std::uint8_t kNonVolatileKeys = 0x20;
constexpr std::uint8_t kAuthenticateVersion = 0x01;
constexpr std::uint8_t kKeyTypeA = 0x60;
constexpr std::uint8_t kKeyTypeB = 0x61;

std::vector<std::uint8_t> Status(std::uint16_t word) {
    return {static_cast<std::uint8_t>(word >> 8), static_cast<std::uint8_t>(word)};
}

void AppendStatus(std::vector<std::uint8_t>& answer, std::uint16_t word) {
    answer.push_back(static_cast<std::uint8_t>(word >> 8));
    answer.push_back(static_cast<std::uint8_t>(word));
}

// A short APDU with a data field: CLA INS P1 P2 Lc data, nothing after it.
bool HasExactDataField(std::span<const std::uint8_t> apdu) {
    return apdu.size() >= 5 && apdu.size() == 5u + apdu[4];
}

}  // namespace

Reader::Reader(std::string name) : name_(std::move(name)) {}

void Reader::Insert(std::shared_ptr<Card> card) {
    const std::lock_guard lock(mutex_);
    card_ = std::move(card);
    if (!card_) {
        session_ = {};
        return;
    }
    card_->PowerOn();
    session_ = {++insertions_, 0};
}

void Reader::Remove() {
    const std::lock_guard lock(mutex_);
    LoseCard();
}

bool Reader::HasCard() const {
    const std::lock_guard lock(mutex_);
    return card_ != nullptr;
}

std::shared_ptr<Card> Reader::CurrentCard() const {
    const std::lock_guard lock(mutex_);
    return card_;
}

std::vector<std::uint8_t> Reader::Atr() const {
    const std::lock_guard lock(mutex_);
    if (!card_) return {};
    if (readerModeAtr_) return {kReaderModeAtr.begin(), kReaderModeAtr.end()};
    return card_->Atr();
}

void Reader::ResetCard() {
    const std::lock_guard lock(mutex_);
    if (!card_) return;
    card_->PowerOn();
    ++session_.resets;
}

FieldSession Reader::CurrentSession() const {
    const std::lock_guard lock(mutex_);
    return session_;
}

void Reader::SetFaults(const Faults& faults) {
    const std::lock_guard lock(mutex_);
    faults_ = faults;
}

Faults Reader::CurrentFaults() const {
    const std::lock_guard lock(mutex_);
    return faults_;
}

void Reader::SetReaderModeAtr(bool on) {
    const std::lock_guard lock(mutex_);
    readerModeAtr_ = on;
}

std::uint64_t Reader::ExchangeCount() const {
    const std::lock_guard lock(mutex_);
    return exchanges_;
}

std::optional<MifareKey> Reader::KeySlot(std::size_t slot) const {
    const std::lock_guard lock(mutex_);
    return slot < keySlots_.size() ? keySlots_[slot] : std::nullopt;
}

std::vector<std::uint8_t> Reader::Transmit(std::span<const std::uint8_t> apdu) {
    std::vector<std::uint8_t> answer;
    Exchange(nullptr, apdu, answer);
    return answer;
}

Reader::Delivery Reader::TransmitIn(const FieldSession& session, std::span<const std::uint8_t> apdu,
                                    std::vector<std::uint8_t>& answer) {
    return Exchange(&session, apdu, answer);
}

Reader::Delivery Reader::Exchange(const FieldSession* session, std::span<const std::uint8_t> apdu,
                                  std::vector<std::uint8_t>& answer) {
    answer.clear();
    Delivery delivery = Delivery::Answered;
    std::chrono::milliseconds delay{0};
    {
        const std::lock_guard lock(mutex_);
        delay = faults_.delay;
        if (!card_ || (session && session->insertion != session_.insertion)) {
            delivery = Delivery::CardGone;
        } else if (session && session->resets != session_.resets) {
            delivery = Delivery::CardReset;
        } else {
            ++exchanges_;
            const bool lostNow = faults_.cardLoss && faults_.cardLoss->exchange-- == 0;
            const bool lostAfterAnswer = lostNow && faults_.cardLoss->afterAnswer;
            if (lostNow) faults_.cardLoss.reset();
            if (faults_.dropConnection || (lostNow && !lostAfterAnswer)) {
                faults_.dropConnection = false;
                LoseCard();
                delivery = Delivery::CardGone;
            } else {
                answer = Dispatch(apdu);
                Distort(apdu, answer);
                if (lostAfterAnswer) {
                    // The card did the work; its answer never reaches the host.
                    answer.clear();
                    LoseCard();
                    delivery = Delivery::CardGone;
                }
            }
        }
    }
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    return delivery;
}

void Reader::LoseCard() noexcept {
    card_.reset();
    session_ = {};
}

void Reader::Distort(std::span<const std::uint8_t> apdu, std::vector<std::uint8_t>& answer) {
    if (answer.empty()) return;
    if (faults_.corruptAnswersTo && !apdu.empty() && apdu[0] != kReaderClass) {
        // Native answers end with their data; wrapped ones with the status word.
        const bool wrapped = apdu[0] == kDesfireIsoClass;
        const std::uint8_t command = wrapped && apdu.size() > 1 ? apdu[1] : apdu[0];
        const std::size_t dataEnd = wrapped ? answer.size() - std::min<std::size_t>(2, answer.size()) : answer.size();
        const std::size_t dataStart = wrapped ? 0 : 1;
        if (command == *faults_.corruptAnswersTo && dataEnd > dataStart) answer[dataEnd - 1] ^= 0xFF;
    }
    if (faults_.garbageAnswers) {
        const auto original = answer;
        for (auto& byte : answer)
            byte = static_cast<std::uint8_t>(noise_());
        if (answer == original) answer[0] = static_cast<std::uint8_t>(~answer[0]);
    }
    if (faults_.truncatedAnswers) answer.resize(1);
}

std::vector<std::uint8_t> Reader::Dispatch(std::span<const std::uint8_t> apdu) {
    if (apdu.empty()) return Status(sw::WrongLength);
    if (apdu[0] == kReaderClass) return ReaderCommand(apdu);
    if (faults_.endlessMoreFrames) {
        if (apdu[0] == kDesfireIsoClass) return {0x91, kDesfireMoreFrames};
        return {kDesfireMoreFrames};
    }
    // No DESFire command has the code 90, so that class byte can only be the ISO wrapping.
    if (apdu[0] == kDesfireIsoClass) return DesfireIso(apdu);
    return DesfireNative(apdu);
}

std::vector<std::uint8_t> Reader::ReaderCommand(std::span<const std::uint8_t> apdu) {
    if (apdu.size() < 4) return Status(sw::WrongLength);
    switch (apdu[1]) {
        case ins::GetData:
            return GetData(apdu);
        case ins::LoadKeys:
            return Status(LoadKeys(apdu));
        case ins::GeneralAuthenticate:
            return Status(GeneralAuthenticate(apdu));
        case ins::ReadBinary:
            return ReadBinary(apdu);
        case ins::UpdateBinary:
            return Status(UpdateBinary(apdu));
        case ins::SimpleProtocol:
            readerModeAtr_ = false;
            return Status(sw::Ok);
        default:
            return Status(sw::InsNotSupported);
    }
}

std::vector<std::uint8_t> Reader::GetData(std::span<const std::uint8_t> apdu) {
    if (apdu.size() != 5) return Status(sw::WrongLength);
    if (apdu[2] == 0x01 && apdu[3] == 0x00) return Status(sw::FunctionNotSupported);
    if (apdu[2] != 0x00 || apdu[3] != 0x00) return Status(sw::WrongP1P2);
    std::vector<std::uint8_t> answer = card_->Uid();
    const std::size_t le = apdu[4];
    if (le != 0 && le < answer.size()) return Status(static_cast<std::uint16_t>(sw::WrongLe | answer.size()));
    AppendStatus(answer, le == 0 || le == answer.size() ? sw::Ok : sw::EndOfData);
    return answer;
}

std::uint16_t Reader::LoadKeys(std::span<const std::uint8_t> apdu) {
    if (!HasExactDataField(apdu)) return sw::WrongLength;
    if (apdu[2] == kNonVolatileKeys) return sw::NonVolatileUnavailable;
    if (apdu[2] != kVolatileKeys) return sw::WrongP1P2;
    const std::size_t slot = apdu[3];
    if (slot >= keySlots_.size()) return sw::KeySlotInvalid;
    if (apdu[4] != MifareKey{}.size()) return sw::KeyLengthInvalid;
    MifareKey key{};
    std::copy_n(apdu.begin() + 5, key.size(), key.begin());
    keySlots_[slot] = key;
    return sw::Ok;
}

std::uint16_t Reader::GeneralAuthenticate(std::span<const std::uint8_t> apdu) {
    if (!HasExactDataField(apdu) || apdu[4] != 5) return sw::WrongLength;
    if (apdu[2] != 0x00 || apdu[3] != 0x00) return sw::WrongP1P2;
    const auto data = apdu.subspan(5);
    if (data[0] != kAuthenticateVersion) return sw::WrongData;
    const unsigned block = static_cast<unsigned>(data[1]) << 8 | data[2];
    MifareKeyKind kind{};
    if (data[3] == kKeyTypeA) {
        kind = MifareKeyKind::A;
    } else if (data[3] == kKeyTypeB) {
        kind = MifareKeyKind::B;
    } else {
        return sw::KeyTypeUnknown;
    }
    const std::size_t slot = data[4];
    if (slot >= keySlots_.size()) return sw::KeySlotInvalid;
    if (!keySlots_[slot]) return sw::KeyNotUsable;
    return card_->MifareAuthenticate(block, kind, *keySlots_[slot]);
}

std::vector<std::uint8_t> Reader::ReadBinary(std::span<const std::uint8_t> apdu) {
    if (apdu.size() != 5) return Status(sw::WrongLength);
    const std::uint8_t le = apdu[4];
    if (le != 0x00 && le != Block{}.size()) return Status(sw::WrongLength);
    const unsigned block = static_cast<unsigned>(apdu[2]) << 8 | apdu[3];
    Block contents{};
    const std::uint16_t status = card_->MifareRead(block, contents);
    if (status != sw::Ok) return Status(status);
    std::vector<std::uint8_t> answer(contents.begin(), contents.end());
    AppendStatus(answer, sw::Ok);
    return answer;
}

std::uint16_t Reader::UpdateBinary(std::span<const std::uint8_t> apdu) {
    if (!HasExactDataField(apdu) || apdu[4] != Block{}.size()) return sw::WrongLength;
    const unsigned block = static_cast<unsigned>(apdu[2]) << 8 | apdu[3];
    Block contents{};
    std::copy_n(apdu.begin() + 5, contents.size(), contents.begin());
    return card_->MifareWrite(block, contents);
}

std::vector<std::uint8_t> Reader::DesfireNative(std::span<const std::uint8_t> frame) {
    auto answer = card_->DesfireCommand(frame);
    if (!answer) return Status(sw::ClaNotSupported);
    return std::move(*answer);
}

std::vector<std::uint8_t> Reader::DesfireIso(std::span<const std::uint8_t> apdu) {
    // 90 INS 00 00 [Lc data] Le, Le being 00: the card's frame is INS + data
    // and its answer, status byte first, comes back as data + 91 + status.
    if (apdu.size() < 5) return Status(sw::WrongLength);
    std::span<const std::uint8_t> data;
    std::optional<std::uint8_t> le;
    if (apdu.size() == 5) {
        le = apdu[4];
    } else {
        const std::size_t lc = apdu[4];
        if (lc == 0) return Status(sw::WrongLength);
        if (apdu.size() == 6 + lc) {
            le = apdu.back();
        } else if (apdu.size() != 5 + lc) {
            return Status(sw::WrongLength);
        }
        data = apdu.subspan(5, lc);
    }
    if (le && *le != 0x00) return Status(sw::WrongLength);
    if (apdu[2] != 0x00 || apdu[3] != 0x00) return Status(sw::WrongP1P2);
    std::vector<std::uint8_t> frame;
    frame.reserve(1 + data.size());
    frame.push_back(apdu[1]);
    frame.insert(frame.end(), data.begin(), data.end());
    const auto native = card_->DesfireCommand(frame);
    if (!native) return Status(sw::ClaNotSupported);
    if (native->empty()) return {};
    std::vector<std::uint8_t> answer(native->begin() + 1, native->end());
    answer.push_back(0x91);
    answer.push_back(native->front());
    return answer;
}

}  // namespace elatectwn4::sim
