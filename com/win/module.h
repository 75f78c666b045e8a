// What the parts of the COM server share: the module, its count of live
// objects and locks, its type library, and the reader boundary it gives
// every Encoder.
#pragma once

// clang-format off
#include <windows.h>
#include <oleauto.h>
// clang-format on

#include <memory>
#include <string>

#include "elatectwn4/pcsc.h"

namespace elatectwn4::com::win {

/// The DLL's own module handle, set when the DLL is loaded.
HMODULE Module() noexcept;
void SetModule(HMODULE module) noexcept;

/// The DLL's full path.
std::wstring ModulePath();

/// Objects and server locks alive: the DLL unloads only at zero.
void AddModuleRef() noexcept;
void ReleaseModuleRef() noexcept;
bool ModuleInUse() noexcept;

/// The type library carried as the DLL's resource (AddRef'd; nullptr if it cannot be loaded).
ITypeLib* TypeLibrary() noexcept;

/// The PC/SC boundary of every Encoder the server creates. The server
/// gives the system's (winscard); its test build a simulated reader.
std::shared_ptr<PcscApi> ServerPcsc();

}  // namespace elatectwn4::com::win
