// The one way the DESFire members talk to the card: a command of the table,
// and what came of it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "command/encoder_command.h"
#include "desfire/desfire.h"

namespace elatectwn4::desfire {

struct Reply {
    enum class Outcome {
        Answered,      ///< the card answered with a status the command layer accepts
        Refused,       ///< the card answered with any other status
        ReaderFailed,  ///< nothing usable came back (no card, closed encoder, PC/SC failure)
    };
    Outcome outcome = Outcome::ReaderFailed;
    std::string command;             ///< the command's name, as RdrCommand shows it after "SCardTransmit:"
    std::string status;              ///< as received ("00", "AF", "AE"); "FFFF" when nothing was received
    std::vector<std::uint8_t> data;  ///< the answer's data, continuation frames included

    /// The card reports the end of a successful command: "00", or "9100" in
    /// the wrapped form.
    bool Completed() const { return outcome == Outcome::Answered && IsStatus(0x00); }
    /// The status is `code`, answered natively ("AF") or wrapped ("91AF").
    bool IsStatus(std::uint8_t code) const;
};

/// Sends command `code` with `params`; with `gatherFrames` the continuation
/// frames ("AF") are fetched and their data appended. A reply that is not
/// Answered leaves the command layer's record (0x90010F04, 0x90010F01,
/// 0x90010F06) in the error record; callers that report something else
/// overwrite it.
Reply Exchange(Context& ctx, std::uint32_t code, const command::Params& params, bool gatherFrames);

}  // namespace elatectwn4::desfire
