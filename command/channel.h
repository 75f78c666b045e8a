// The state one transmission needs: the PC/SC boundary and the context and
// card handles of the session.
#pragma once

#include <cstdint>

#include "elatectwn4/pcsc.h"

namespace elatectwn4::command {

struct Channel {
    PcscApi* pcsc = nullptr;           ///< never null while an Encoder lives
    PcscHandle context = 0;            ///< 0 = encoder closed
    PcscHandle card = 0;               ///< 0 = no card connected
    std::uint32_t activeProtocol = 0;  ///< written by Connect
};

}  // namespace elatectwn4::command
