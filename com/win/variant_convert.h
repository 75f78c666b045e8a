// Automation VARIANTs to and from the component's own Variant.
#pragma once

// clang-format off
#include <windows.h>
#include <oleauto.h>
// clang-format on

#include <optional>
#include <string>

#include "elatectwn4/variant.h"

namespace elatectwn4::com::win {

/// Text of a BSTR in the system's ANSI code page, as the component's texts are.
std::string FromBstr(BSTR text);
/// A new BSTR (nullptr when out of memory).
BSTR ToBstr(const std::string& text);

/// The value a VARIANT holds (references followed): Empty, Booleans,
/// numbers, text and byte arrays; nullopt for anything else (objects, Null,
/// other arrays).
std::optional<Variant> FromVariant(const VARIANT& value);

/// Fills `out` (left empty by the caller) with `value`; byte arrays become
/// SAFEARRAYs of VT_UI1. Returns false when out of memory.
bool ToVariant(const Variant& value, VARIANT& out);

}  // namespace elatectwn4::com::win
