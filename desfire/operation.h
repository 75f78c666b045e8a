// The shape every DESFire member shares: how it records a refused argument,
// a card that did not complete the command, and a step that failed.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "command/error_record.h"
#include "desfire/exchange.h"

namespace elatectwn4::desfire {

inline CError& Record(Context& ctx) noexcept {
    return ctx.error;
}

/// Records `number` with its own text and returns sceError.
inline sceReturnCode Refuse(Context& ctx, ErrorNumber number, const std::string& comFunction,
                            const std::string& rdrCommand = {}, const std::string& rdrRetCode = {}) noexcept {
    command::Fail(Record(ctx), number, comFunction, rdrCommand, rdrRetCode);
    return sceError;
}

/// The command did not end in "00": 0x90010E03 with the command and the
/// status as received.
inline sceReturnCode OperationFailed(Context& ctx, const std::string& comFunction, const Reply& reply) {
    return Refuse(ctx, ErrorNumber::OperationFailed, comFunction, "SCardTransmit:" + reply.command, reply.StatusText());
}

/// Sends one command, gathering its continuation frames, and, unless the
/// card completed it, records the failure. The reply on success, nullopt
/// otherwise.
inline std::optional<Reply> Run(Context& ctx, const std::string& comFunction, std::uint32_t code,
                                const command::Params& params = {}, command::CommandOptions options = {}) {
    options.moreResponse = true;
    Reply reply = Exchange(ctx, code, params, options);
    if (reply.Completed()) return reply;
    OperationFailed(ctx, comFunction, reply);
    return std::nullopt;
}

/// Puts `outer` in front of the ComFunction a failed step left, as
/// "outer:step".
inline void NameInFront(Context& ctx, const std::string& outer) {
    command::ErrorUpdate update;
    update.comFunction = outer + ":" + Record(ctx).ComFunction;
    command::SetError(Record(ctx), update);
}

/// The application id check of selection, creation and deletion: 6 hex
/// digits, blanks allowed; `id` is normalised (upper case, no blanks).
bool IsApplicationId(std::string& id);

/// A key as upper-case hex digits without blanks, or nullopt when anything
/// but hex digits and blanks is in it. Built in place, so no copy of the
/// key is left behind in memory given back.
std::optional<cipher::SecretText> KeyDigits(std::string_view text);

}  // namespace elatectwn4::desfire
