#include "desfire/exchange.h"

#include "cipher/wipe.h"
#include "command/hex.h"

namespace elatectwn4::desfire {

namespace {

constexpr std::string_view kNothingReceived = "FFFF";

}  // namespace

bool Reply::IsStatus(std::uint8_t code) const {
    // The command layer writes statuses in upper-case digits.
    std::string_view digits = status;
    if (digits.size() == 4 && digits.substr(0, 2) == "91") digits.remove_prefix(2);
    return digits == command::ByteHex(code);
}

Reply Exchange(Context& ctx, std::uint32_t code, const command::Params& params, bool gatherFrames) {
    Reply reply;
    std::string response;
    cipher::WipeOnExit wipeResponse(response);
    const sceReturnCode result =
        command::EncoderCommand(ctx.channel, code, params, response, reply.status, gatherFrames);
    reply.command = command::CommandName(code);
    // A continuation frame carries the name of the transfer it continues.
    if (reply.command.empty() && !params.empty()) {
        if (const auto* name = std::get_if<std::string>(&params.front())) reply.command = *name;
    }
    if (result == sceSuccess) {
        reply.outcome = Reply::Outcome::Answered;
        reply.data.assign(response.begin(), response.end());
    } else if (reply.status != kNothingReceived && ctx.channel.error != nullptr &&
               ctx.channel.error->RdrRetCode == reply.status) {
        // The command layer gives the refused status as its reason; every
        // other reason (too many frames, an oversized answer) is the reader's.
        reply.outcome = Reply::Outcome::Refused;
    } else {
        reply.outcome = Reply::Outcome::ReaderFailed;
    }
    return reply;
}

}  // namespace elatectwn4::desfire
