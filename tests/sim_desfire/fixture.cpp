#include "fixture.h"

#include <openssl/rand.h>

#include <algorithm>

namespace desfire_test {

void ScriptedRandom::operator()(std::span<std::uint8_t> out) const {
    if (!queue->empty()) {
        const Bytes next = queue->front();
        queue->pop_front();
        std::copy_n(next.begin(), std::min(next.size(), out.size()), out.begin());
        return;
    }
    RAND_bytes(out.data(), static_cast<int>(out.size()));
}

Bytes ChangeOwnKeyFrame(const Host& host, std::uint8_t keyNumber, const Key& newKey) {
    return Concat({Bytes{0xC4, keyNumber}, host.Encipher(newKey)});
}

Bytes ChangeOtherKeyFrame(const Host& host, std::uint8_t keyNumber, const Key& oldKey, const Key& newKey) {
    Bytes x(16);
    for (int i = 0; i < 16; ++i)
        x[i] = oldKey[i] ^ newKey[i];
    Bytes plain = x;
    const std::uint16_t crcX = CrcA(x);
    const std::uint16_t crcNew = CrcA(newKey);
    plain.insert(plain.end(), {static_cast<std::uint8_t>(crcX), static_cast<std::uint8_t>(crcX >> 8),
                               static_cast<std::uint8_t>(crcNew), static_cast<std::uint8_t>(crcNew >> 8), 0, 0, 0, 0});
    return Concat({Bytes{0xC4, keyNumber}, SendMode(host.Session(), plain)});
}

void CardTest::SecureCard() {
    ASSERT_EQ(Is(host_.Authenticate(0, kZeroKey)), Is(0x00));
    ASSERT_EQ(Status(ChangeOwnKeyFrame(host_, 0, kPiccKey)), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(0, kPiccKey)), Is(0x00));
}

void CardTest::CreateApplication(std::uint8_t settings, std::uint8_t keyCount) {
    ASSERT_NO_FATAL_FAILURE(SecureCard());
    ASSERT_EQ(Status(Concat({Bytes{0xCA}, kAid, Bytes{settings, keyCount}})), Is(0x00));
    ASSERT_EQ(Is(host_.Select(kAid)), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(0, kZeroKey)), Is(0x00));
    const Key keys[] = {kAppMasterKey, kReadKey, kWriteKey};
    for (std::uint8_t k = 1; k < std::min<std::uint8_t>(keyCount, 3); ++k) {
        ASSERT_EQ(Status(ChangeOtherKeyFrame(host_, k, kZeroKey, keys[k])), Is(0x00)) << "key " << int{k};
    }
    ASSERT_EQ(Status(ChangeOwnKeyFrame(host_, 0, kAppMasterKey)), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
}

}  // namespace desfire_test
