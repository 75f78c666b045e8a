#include "desfire/exchange.h"

#include "cipher/wipe.h"

namespace elatectwn4::desfire {

namespace {

constexpr std::string_view kNothingReceived = "FFFF";

int HexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

bool Reply::IsStatus(std::uint8_t code) const noexcept {
    std::string_view digits = status;
    if (digits.size() == 4 && digits.substr(0, 2) == "91") digits.remove_prefix(2);
    if (digits.size() != 2) return false;
    const int high = HexValue(digits[0]);
    const int low = HexValue(digits[1]);
    return high >= 0 && low >= 0 && high * 16 + low == code;
}

Reply Exchange(Context& ctx, std::uint32_t code, const command::Params& params, bool gatherFrames) {
    Reply reply;
    std::string response;
    cipher::WipeOnExit wipeResponse(response);
    const sceReturnCode result =
        command::EncoderCommand(ctx.channel, code, params, response, reply.status, gatherFrames);
    reply.command = command::CommandName(code);
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
