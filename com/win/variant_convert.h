// Automation VARIANTs to and from the component's own Variant.
#pragma once

// clang-format off
#include <windows.h>
#include <oleauto.h>
// clang-format on

#include <optional>
#include <string>

#include "elatectwn4/dispatch.h"
#include "elatectwn4/variant.h"

namespace elatectwn4::com::win {

/// The VARIANT type of an automation type (VT_EMPTY for no value).
constexpr VARTYPE VarTypeOf(ValueType type) {
    switch (type) {
        case ValueType::String:
            return VT_BSTR;
        case ValueType::Long:
            return VT_I4;
        case ValueType::Byte:
            return VT_UI1;
        case ValueType::Boolean:
            return VT_BOOL;
        case ValueType::Variant:
            return VT_VARIANT;
        case ValueType::Object:
            return VT_DISPATCH;
        case ValueType::Void:
            break;
    }
    return VT_EMPTY;
}

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
