// A fresh simulated card with a host, and the steps most tests start from.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <vector>

#include "host.h"
#include "sim/desfire/desfire_sim.h"

namespace desfire_test {

/// Hands out queued challenges first, then random bytes.
struct ScriptedRandom {
    std::shared_ptr<std::deque<Bytes>> queue = std::make_shared<std::deque<Bytes>>();
    void operator()(std::span<std::uint8_t> out) const;
};

/// Frame for ChangeKey of the session's own key: new key, CRC, zero padding.
Bytes ChangeOwnKeyFrame(const Host& host, std::uint8_t keyNumber, const Key& newKey);
/// Frame for ChangeKey of another key: (old XOR new), CRC of that, CRC of the new key, zero padding.
Bytes ChangeOtherKeyFrame(const Host& host, std::uint8_t keyNumber, const Key& oldKey, const Key& newKey);

inline const Key kZeroKey{};
inline const Key kPiccKey = MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809");
inline const Key kAppMasterKey = MakeKey("1122334455667788");  // single DES
inline const Key kReadKey = MakeKey("0F1E2D3C4B5A69788796A5B4C3D2E1F0");
inline const Key kWriteKey = MakeKey("F00DCAFEBEEF1234");  // single DES
inline const Bytes kAid = Hex("A1 B2 C3");

class CardTest : public ::testing::Test {
protected:
    CardTest() : card_({}, random_), host_(card_) {}

    /// Answer status as text, for readable assertions.
    std::string Status(ByteSpan frame) { return Is(host_.Send(frame).status); }
    static std::string Is(std::uint8_t status) { return ToHex(Bytes{status}); }

    /// Card master key changed from the factory key to kPiccKey, session open with it.
    void SecureCard();
    /// Application kAid with `keyCount` keys and `settings`; key 0 becomes
    /// kAppMasterKey, key 1 kReadKey, key 2 kWriteKey (when present). Leaves a
    /// session with key 0 of the application.
    void CreateApplication(std::uint8_t settings = 0x0F, std::uint8_t keyCount = 3);

    /// One step of a conversation: what it does (run when its turn comes, so
    /// that it sees the session the steps before left) and the status it must get.
    struct Step {
        std::string what;
        std::function<std::uint8_t()> act;
        std::uint8_t status;
    };
    Step Send(Bytes frame, std::uint8_t status, std::string what = {}) {
        return Built([frame] { return frame; }, status, what.empty() ? ToHex(frame) : what);
    }
    /// `head` followed by WithCrc(data) enciphered under the session of the moment.
    Step Sealed(Bytes head, Bytes data, std::uint8_t status, std::string what = "sealed") {
        return Built([this, head, data] { return Concat({head, host_.Encipher(data)}); }, status, what);
    }
    /// A frame built when the step runs, from the session of the moment.
    Step Built(std::function<Bytes()> frame, std::uint8_t status, std::string what = "built") {
        return {what, [this, frame] { return host_.Send(frame()).status; }, status};
    }
    /// A command whose answer, continuations included, must be `hex`.
    Step Reads(Bytes frame, std::string hex) {
        return {"read " + ToHex(frame),
                [this, frame, hex] {
                    const Answer answer = host_.Exchange(frame);
                    EXPECT_EQ(ToHex(answer.data), ToHex(Hex(hex))) << ToHex(frame);
                    return answer.status;
                },
                0x00};
    }
    /// `steps` with `first` in front of each: the card ends its session on every refusal.
    static std::vector<Step> EachAfter(const Step& first, const std::vector<Step>& steps) {
        std::vector<Step> out;
        for (const Step& step : steps) {
            out.push_back(first);
            out.push_back(step);
        }
        return out;
    }
    Step Auth(std::uint8_t keyNumber, const Key& key, std::uint8_t status = 0x00) {
        return {"authenticate with key " + std::to_string(keyNumber),
                [this, keyNumber, key] { return host_.Authenticate(keyNumber, key); }, status};
    }
    Step Select(Bytes aid, std::uint8_t status = 0x00) {
        return {"select " + ToHex(aid), [this, aid] { return host_.Select(aid); }, status};
    }
    void Run(const std::vector<Step>& steps) {
        for (std::size_t i = 0; i < steps.size(); ++i)
            EXPECT_EQ(Is(steps[i].act()), Is(steps[i].status)) << "step " << i << ": " << steps[i].what;
    }

    ScriptedRandom random_;
    elatectwn4::sim::desfire::DesfireCard card_;
    Host host_;
};

}  // namespace desfire_test
