#include "desfire/exchange.h"

#include <utility>

#include "command/outcome.h"

namespace elatectwn4::desfire {

namespace {

// The failures of the command layer that are no answer of the card.
Reply::Outcome Classify(command::Result result) noexcept {
    switch (result) {
        case command::Result::Success:
            return Reply::Outcome::Answered;
        case command::Result::CardRefused:
            return Reply::Outcome::Refused;
        default:
            return Reply::Outcome::ReaderFailed;
    }
}

}  // namespace

bool Reply::IsStatus(std::uint8_t code) const noexcept {
    return status == command::StatusWord::Native(code) ||
           status == command::StatusWord::Iso(static_cast<std::uint16_t>(0x9100 | code));
}

Reply Exchange(Context& ctx, std::uint32_t code, const command::Params& params,
               const command::CommandOptions& options) {
    command::Outcome outcome = command::EncoderCommand(ctx.channel, code, params, options);
    if (!outcome.ok()) command::RecordFailure(ctx.error, outcome, "EncoderCommand");

    Reply reply;
    reply.outcome = Classify(outcome.result);
    // The caller's command, also where a continuation frame failed; a
    // continuation of a transfer carries the transfer's name in front.
    reply.command = command::CommandName(code);
    if (reply.command.empty() && !params.empty()) {
        if (const auto* name = std::get_if<std::string>(&params.front())) reply.command = *name;
    }
    reply.status = outcome.status;
    reply.data = std::move(outcome.data);
    return reply;
}

}  // namespace elatectwn4::desfire
