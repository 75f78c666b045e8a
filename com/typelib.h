// The one table of every automation member: its description and how to call it.
#pragma once

#include <span>
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

std::span<const MemberRow> MemberRows();

}  // namespace elatectwn4::com
