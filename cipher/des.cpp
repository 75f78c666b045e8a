#include "cipher/des.h"

#include <algorithm>
#include <span>

#include "cipher/convert.h"
#include "cipher/wipe.h"

namespace elatectwn4::cipher {
namespace {

constexpr std::size_t kBlock = 8;
constexpr std::uint8_t kPadMarker = 0x80;  // ISO/IEC 9797-1 padding method 2

enum class Mode {
    EcbEncipher,
    CbcEncipher,
    EcbDecipher,
    CbcDecipher,  // DESFire receive mode
    Send,         // DESFire send mode: the card enciphers what it receives, so the host deciphers first
    Mac,          // CBC enciphering; the caller keeps part of the last block
};

// Send mode and the MAC prepare data for the card, so they pad like Encrypt.
constexpr bool AddsPadding(Mode mode) noexcept {
    return mode != Mode::EcbDecipher && mode != Mode::CbcDecipher;
}

struct SingleDes {
    const detail::KeySchedule& k;
    template <bool Encipher>
    std::uint64_t Apply(std::uint64_t block) const noexcept {
        return detail::Des<Encipher>(block, k);
    }
};

struct TripleDes {
    const detail::KeySchedule& k1;
    const detail::KeySchedule& k2;
    const detail::KeySchedule& k3;
    template <bool Encipher>
    std::uint64_t Apply(std::uint64_t block) const noexcept {
        return detail::TripleDes<Encipher>(block, k1, k2, k3);
    }
};

template <typename Cipher>
void Process(const Cipher& cipher, Mode mode, std::uint64_t chain, std::span<std::uint8_t> data) noexcept {
    std::uint8_t* p = data.data();
    const std::uint8_t* const end = p + data.size();
    switch (mode) {
        case Mode::EcbEncipher:
            for (; p != end; p += kBlock)
                detail::StoreBlock(cipher.template Apply<true>(detail::LoadBlock(p)), p);
            break;
        case Mode::EcbDecipher:
            for (; p != end; p += kBlock)
                detail::StoreBlock(cipher.template Apply<false>(detail::LoadBlock(p)), p);
            break;
        case Mode::CbcEncipher:
        case Mode::Mac:
            for (; p != end; p += kBlock) {
                chain = cipher.template Apply<true>(detail::LoadBlock(p) ^ chain);
                detail::StoreBlock(chain, p);
            }
            break;
        case Mode::CbcDecipher:
            for (; p != end; p += kBlock) {
                const std::uint64_t in = detail::LoadBlock(p);
                detail::StoreBlock(cipher.template Apply<false>(in) ^ chain, p);
                chain = in;
            }
            break;
        case Mode::Send:
            for (; p != end; p += kBlock) {
                chain = cipher.template Apply<false>(detail::LoadBlock(p) ^ chain);
                detail::StoreBlock(chain, p);
            }
            break;
    }
    SecureWipeObject(chain);
}

Mode SelectMode(std::uint32_t chaining, bool decrypt) {
    switch (chaining) {
        case DES::kEcb:
            return decrypt ? Mode::EcbDecipher : Mode::EcbEncipher;
        case DES::kCbc:
            return decrypt ? Mode::CbcDecipher : Mode::CbcEncipher;
        case DES::kSendMode:
            if (decrypt) return Mode::Send;
            break;
        case DES::kMac:
            if (decrypt) return Mode::Mac;
            break;
        default:
            break;
    }
    throw DesError(des_message::kInvalidChaining);
}

// Takes method-2 padding off: trailing zero bytes, then the marker, all in the
// last block. Data without a marker there was not padded and stays whole.
void RemovePadding(ByteArray& bytes) noexcept {
    const std::size_t limit = bytes.size() >= kBlock ? bytes.size() - kBlock : 0;
    std::size_t i = bytes.size();
    while (i > limit && bytes[i - 1] == 0)
        --i;
    if (i > limit && bytes[i - 1] == kPadMarker) bytes.resize(i - 1);
}

// The eight bytes of a key or vector; longer texts are cut, shorter ones
// filled with zero bytes on the right.
std::array<std::uint8_t, 8> EightBytes(const Value& hex) {
    ByteArray bytes = ReadForm(hex, static_cast<int>(DataForm::HexText));
    WipeOnExit wipeBytes(bytes);
    std::array<std::uint8_t, 8> out{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), out.size()), out.begin());
    return out;
}

}  // namespace

DES::DES() noexcept {
    for (KeySlot& slot : keys_)
        slot.schedule = detail::ExpandKey(slot.key);
}

DES::~DES() {
    SecureWipeObject(keys_);
    SecureWipeObject(vector_);
}

void DES::Keys(int index, const Value& hex) {
    if (index < 1 || index > static_cast<int>(keys_.size())) throw DesError(des_message::kBadKeyIndex);
    KeySlot loaded;
    loaded.key = EightBytes(hex);
    loaded.schedule = detail::ExpandKey(loaded.key);
    keys_[static_cast<std::size_t>(index - 1)] = loaded;
    SecureWipeObject(loaded);
}

void DES::InitVector(const Value& hex) {
    auto vector = EightBytes(hex);
    vector_ = vector;
    SecureWipeObject(vector);
}

std::string DES::CRC16(const Value& hex) {
    // The CRC of ChangeKey runs over key bytes, so they are wiped like any other.
    ByteArray bytes = ReadForm(hex, static_cast<int>(DataForm::HexText));
    WipeOnExit wipeBytes(bytes);
    std::uint32_t crc = 0x6363;
    for (std::uint8_t b : bytes) {
        std::uint32_t ch = (b ^ crc) & 0xFFU;
        ch = (ch ^ (ch << 4)) & 0xFFU;
        crc = (crc >> 8) ^ (ch << 8) ^ (ch << 3) ^ (ch >> 4);
    }
    const std::uint8_t crcBytes[2] = {static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)};
    return WriteForm(crcBytes, static_cast<int>(DataForm::HexText)).Text();
}

Value DES::ConvertData(const Value& data, std::int32_t conversion) {
    const int output = conversion & 0xFF;
    if (output > kLastForm) return data;
    const int input = conversion >> 8;
    if (input < 0 || input > kLastForm) throw DesError(des_message::kBadParameterType);
    ByteArray bytes = ReadForm(data, input);
    WipeOnExit wipeBytes(bytes);
    return WriteForm(bytes, output);
}

Value DES::Encrypt(const Value& data, std::int32_t& options) {
    return Run(data, options, Direction::Encrypt);
}

Value DES::Decrypt(const Value& data, std::int32_t& options) {
    return Run(data, options, Direction::Decrypt);
}

Value DES::Run(const Value& data, std::int32_t options, Direction direction) const {
    const std::int32_t algorithm = options & kAlgorithmMask;
    if (algorithm != kSingleDes && algorithm != kTripleDes) throw DesError(des_message::kInvalidAlgorithm);
    const std::int32_t padding = options & kPaddingMask;
    if (padding != kPadNone && padding != kPadIso9797Method2) throw DesError(des_message::kBadPadding);
    const Mode mode = SelectMode(static_cast<std::uint32_t>(options) & kChainingMask, direction == Direction::Decrypt);

    // The result keeps the input's shape, so callers can go on with the text
    // or array they started from.
    DataForm outputForm;
    if (data.IsText()) {
        const std::string& text = data.Text();
        const bool separated = std::any_of(text.begin(), text.end(), IsSeparator);
        outputForm = separated ? DataForm::HexText : DataForm::CompactHex;
    } else if (data.IsArray()) {
        outputForm = DataForm::Bytes;
    } else {
        throw DesError(des_message::kBadParameterType);
    }
    ByteArray bytes =
        ReadForm(data, data.IsText() ? static_cast<int>(DataForm::HexText) : static_cast<int>(DataForm::Bytes));
    WipeOnExit wipeBytes(bytes);

    if (padding == kPadIso9797Method2 && AddsPadding(mode)) bytes.push_back(kPadMarker);
    bytes.resize((bytes.size() + kBlock - 1) / kBlock * kBlock, 0);

    std::uint64_t chain = detail::LoadBlock(vector_.data());
    if (algorithm == kSingleDes) {
        Process(SingleDes{keys_[0].schedule}, mode, chain, bytes);
    } else {
        Process(TripleDes{keys_[0].schedule, keys_[1].schedule, keys_[2].schedule}, mode, chain, bytes);
    }
    SecureWipeObject(chain);

    if (padding == kPadIso9797Method2 && !AddsPadding(mode)) RemovePadding(bytes);
    return WriteForm(bytes, static_cast<int>(outputForm));
}

}  // namespace elatectwn4::cipher
