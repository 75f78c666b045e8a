// The vtable face of the dual interfaces _Encoder and _CError, for hosts
// that bind early (C++, `Dim e As New Encoder`): IDispatch's seven slots,
// then one slot per member row of the interface in type-library order, each
// with the parameters the type library declares. Every slot packs its
// arguments into VARIANTs (in/out ones by reference) and calls the object's
// IDispatch::Invoke, so both bindings run the same conversions and checks.
#pragma once

// clang-format off
#include <windows.h>
#include <oleauto.h>
// clang-format on

#include <string_view>

namespace elatectwn4::com::win {

using VtableEntry = void (*)();

/// An interface pointer of a dual interface: a vtable and the object whose
/// IDispatch it forwards to.
struct DualFace {
    const VtableEntry* vtable;
    IDispatch* object;
};

/// The vtable of "_Encoder" or "_CError".
const VtableEntry* DualVtable(std::string_view interfaceName);

}  // namespace elatectwn4::com::win
