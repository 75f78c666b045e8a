// A DESFire context over the scripted PC/SC fake, the card's side of the
// legacy protocol computed with OpenSSL, and the error record as one line.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "../sim_desfire/host.h"
#include "command/channel.h"
#include "desfire/desfire.h"
#include "elatectwn4/error.h"
#include "support/record_text.h"
#include "support/scripted_pcsc.h"

// A table row's call of member `fn` with the given arguments, and its name.
#define CALL(fn, ...) [&](Context& c) { return fn(c __VA_OPT__(, ) __VA_ARGS__); }, #fn

namespace elatectwn4::desfire {

using desfire_test::Bytes;
using desfire_test::Concat;
using desfire_test::Hex;
using desfire_test::Key;
using desfire_test::MakeKey;
using desfire_test::SendMode;
using desfire_test::ToHex;
using desfire_test::WithCrc;
using Call = std::function<sceReturnCode(Context&)>;

inline const Key kSession = MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809");  // the halves differ
inline const std::string kApp = "A1B2C3";
inline const std::string kCard(kCardLevel);

/// The record line of a component error with its own text.
inline std::string Line(ErrorNumber number, const std::string& comFunction, const std::string& rdrCommand = {},
                        const std::string& rdrRetCode = {}) {
    return test::RecordText(static_cast<std::uint32_t>(number), std::string(ErrorDescription(number)), 0, comFunction,
                            rdrCommand, rdrRetCode);
}
/// The record of a member that failed on the card's answer.
inline std::string Failed(const std::string& member, const std::string& command, const std::string& status) {
    return Line(ErrorNumber::OperationFailed, member, "SCardTransmit:" + command, status);
}
/// The record after a success of `comFunction`.
inline std::string Cleared(const std::string& comFunction) {
    return test::RecordText(0, "", 0, comFunction, "", "");
}
inline Bytes Crc(const Bytes& data) {
    const std::uint16_t c = desfire_test::CrcA(data);
    return {static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(c >> 8)};
}
inline Bytes Rotated(const Bytes& block) {
    Bytes out(block.begin() + 1, block.end());
    out.push_back(block.front());
    return out;
}

/// The card's side of one legacy authentication with `key`: it challenges
/// with E(RndB), expects the host's token in send mode, and proves RndA with
/// E(RndA rotated).
struct CardSide {
    Key key;
    Bytes rndB;

    Bytes Challenge() const { return desfire_test::Cipher(key, rndB, true); }
    Bytes Token(const Bytes& rndA) const { return SendMode(key, Concat({rndA, Rotated(rndB)})); }
    Bytes Proof(const Bytes& rndA) const { return desfire_test::Cipher(key, Rotated(rndA), true); }
};

class DesfireApdu : public ::testing::Test {
protected:
    std::shared_ptr<test::ScriptedPcsc> fake = std::make_shared<test::ScriptedPcsc>();
    CError record;
    command::Channel channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1};
    Session session;
    Context ctx{channel, record, session};

    std::string Record() const { return test::RecordText(record); }

    /// A fresh script, "command > answer; command > answer" in hex with "??"
    /// for any byte sent, and a session with `keyNumber` in `application` ("" = none).
    void Play(const std::string& script, const std::string& application = kApp, std::int32_t keyNumber = 0,
              const Key& key = kSession) {
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        for (std::size_t at = 0; at < script.size();) {
            const std::size_t end = std::min(script.find(';', at), script.size());
            const std::size_t arrow = script.find('>', at);
            fake->Expect(script.substr(at, arrow - at)).Reply(script.substr(arrow + 1, end - arrow - 1));
            at = end + 1;
        }
        session.Reset();
        if (application.empty()) return;
        // A session as an authentication would leave it.
        std::copy(key.begin(), key.end(), session.sessionKey.data());
        session.authenticatedKeyNumber = keyNumber;
        session.selectedApplicationId = application;
    }
    std::string SessionKeyNow() const { return ToHex({session.sessionKey.data(), 16}); }
};

}  // namespace elatectwn4::desfire
