// One row of the member table: what hosts see of a member, and how to call it.
#pragma once

#include <vector>

#include "elatectwn4/dispatch.h"

namespace elatectwn4::com {

/// Calls one member on an encoder with arguments already converted to the
/// parameter types (and padded with defaults for absent optional ones).
using EncoderInvoker = DispatchResult (*)(Encoder& encoder, std::vector<Variant>& args);
using ErrorInvoker = Variant (*)(CError& error, std::vector<Variant>& args);

struct MemberRow {
    MemberInfo info;
    EncoderInvoker onEncoder = nullptr;  ///< members of _Encoder
    ErrorInvoker onError = nullptr;      ///< members of _CError
};

}  // namespace elatectwn4::com
