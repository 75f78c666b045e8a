// The one way the DESFire members talk to the card: a command of the table,
// and what came of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cipher/secret.h"
#include "command/encoder_command.h"
#include "desfire/desfire.h"

namespace elatectwn4::desfire {

struct Reply {
    enum class Outcome {
        Answered,      ///< the card answered with a status the command layer accepts
        Refused,       ///< the card answered with any other status
        ReaderFailed,  ///< nothing usable came back (no card, closed encoder, PC/SC failure, a limit broken)
    };
    Outcome outcome = Outcome::ReaderFailed;
    std::string command;                        ///< the command's name, as RdrCommand shows it after "SCardTransmit:"
    std::optional<command::StatusWord> status;  ///< the card's last status; none when nothing was received
    cipher::SecretBuffer data;                  ///< the answer's data, continuation frames included

    /// The status as received ("00", "AF", "91AE"), "FFFF" when there is none.
    std::string StatusText() const { return status ? status->Text() : "FFFF"; }
    /// The card reports the end of a successful command: "00", or "9100" in
    /// the wrapped form.
    bool Completed() const { return outcome == Outcome::Answered && IsStatus(0x00); }
    /// The status is `code`, answered natively ("AF") or wrapped ("91AF").
    bool IsStatus(std::uint8_t code) const noexcept;
};

/// Sends command `code` with `params`; `options` fetch the continuation
/// frames and mark what of the frames is key material. A reply that is not
/// Answered leaves the command layer's record (0x90010F04, 0x90010F01,
/// 0x90010F06, ComFunction "EncoderCommand") in ctx.error; callers that
/// report something else overwrite it.
Reply Exchange(Context& ctx, std::uint32_t code, const command::Params& params,
               const command::CommandOptions& options = {});

}  // namespace elatectwn4::desfire
