// The fields behind an Encoder. Internal: the members of every area reach
// the session through this one structure.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "command/channel.h"
#include "elatectwn4/encoder.h"
#include "mifare/mifare.h"

namespace elatectwn4 {

/// The DESFire session: which application is selected, with which key, and
/// the key that secures data frames. Wiped together.
struct DesfireSession {
    std::string selectedApplicationId;
    std::string sessionKey;  ///< 32 hex digits; wiped (not just cleared) on reset
    std::int32_t authenticatedKeyNumber = -1;
    std::vector<std::uint8_t> versionCache;  ///< empty = none

    void Reset() noexcept;
};

struct Encoder::Impl {
    explicit Impl(std::shared_ptr<PcscApi> api);

    std::shared_ptr<PcscApi> pcsc;
    CError error;
    command::Channel channel;

    std::string deviceName;       ///< from the "Device=" entry of Parameters
    std::string atrText;          ///< "3B 8F 80 ..."
    sceCardTypes cardType = sceUnhandled;
    std::int32_t serialLength = 0;

    DesfireSession desfire;
    mifare::AccessConditionTable accessConditions;
    /// Key table of (key type, key text); cleared at creation and close, read by nobody.
    std::array<std::pair<std::int32_t, std::string>, 80> mifareKeyCache;

    std::mt19937 random;  ///< GetInformation's instance number only; never for keys

    mifare::Context mifareContext();
};

}  // namespace elatectwn4
