// A DESFire context over the scripted PC/SC fake, the card's side of the
// legacy protocol computed with OpenSSL, and the error record as one line.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../sim_desfire/host.h"
#include "command/channel.h"
#include "desfire/desfire.h"
#include "elatectwn4/error.h"
#include "support/record_text.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::desfire {

using desfire_test::Bytes;
using desfire_test::Key;
using desfire_test::ToHex;

/// The record line of a component error with its own text.
inline std::string Line(ErrorNumber number, const std::string& comFunction, const std::string& rdrCommand = {},
                        const std::string& rdrRetCode = {}) {
    return test::RecordText(static_cast<std::uint32_t>(number), std::string(ErrorDescription(number)), 0, comFunction,
                            rdrCommand, rdrRetCode);
}

/// The record after a success of `comFunction`.
inline std::string Cleared(const std::string& comFunction) {
    return test::RecordText(0, "", 0, comFunction, "", "");
}

/// A block rotated left by one byte.
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
    Bytes Token(const Bytes& rndA) const {
        return desfire_test::SendMode(key, desfire_test::Concat({rndA, Rotated(rndB)}));
    }
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

    /// The authentication draws exactly these bytes for RndA.
    void FixRndA(const Bytes& rndA) {
        session.random = [rndA](std::span<std::uint8_t> out) {
            ASSERT_EQ(out.size(), rndA.size());
            std::copy(rndA.begin(), rndA.end(), out.begin());
        };
    }

    /// A session as an authentication with `key` would leave it.
    void OpenSession(const Key& sessionKey, std::int32_t keyNumber = 0, std::string application = "A1B2C3") {
        std::copy(sessionKey.begin(), sessionKey.end(), session.sessionKey.data());
        session.authenticatedKeyNumber = keyNumber;
        session.selectedApplicationId = std::move(application);
    }

    /// A fresh script: each command (hex text, "??" for any byte) answered as given.
    void ScriptExchanges(const std::vector<std::pair<std::string, std::string>>& exchanges) {
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        for (const auto& [command, answer] : exchanges)
            fake->Expect(command).Reply(answer);
    }

    Key SessionKeyNow() const {
        Key key{};
        std::copy(session.sessionKey.data(), session.sessionKey.data() + 16, key.begin());
        return key;
    }
};

}  // namespace elatectwn4::desfire
