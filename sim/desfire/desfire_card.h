// A simulated MIFARE DESFire EV1 card with legacy (DES / two-key Triple-DES)
// authentication and secure messaging.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "sim/card.h"

namespace elatectwn4::sim {

/// A factory-fresh card: only the card level (application 000000) with the
/// all-zero single-DES master key, key settings 0x0F, no applications.
std::unique_ptr<Card> MakeDesfireCard(std::vector<std::uint8_t> uid);

}  // namespace elatectwn4::sim
