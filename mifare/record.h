// How the MIFARE members write the error record after a failed step.
#pragma once

#include <string>

#include "command/error_record.h"
#include "mifare/mifare.h"

namespace elatectwn4::mifare {

inline CError& Record(Context& ctx) noexcept {
    return ctx.error;
}

/// The step that failed has filled the record; the member only puts its own
/// name into ComFunction.
inline void NameFailure(Context& ctx, const std::string& comFunction) noexcept {
    command::ErrorUpdate update;
    try {
        update.comFunction = comFunction;
    } catch (...) {
        return;
    }
    command::SetError(Record(ctx), update);
}

/// Records `number` unless a failed step already left a number of its own,
/// which is then kept; either way the member names itself.
inline void FailUnlessNumbered(Context& ctx, ErrorNumber number, const std::string& comFunction) noexcept {
    if (Record(ctx).Number == 0) {
        command::Fail(Record(ctx), number, comFunction);
    } else {
        NameFailure(ctx, comFunction);
    }
}

}  // namespace elatectwn4::mifare
