// For libraries built together with the component, such as the simulator's
// libelatectwn4-sim; not for hosts, which use elatectwn4.h alone. Such a
// library makes an Encoder of its own and asks the component for the C handle
// over it, so that the handle's layout stays inside libelatectwn4.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "elatectwn4/elatectwn4.h"
#include "elatectwn4/encoder.h"
#include "elatectwn4/export.h"

namespace elatectwn4::c_api {

/// A handle owning `encoder`, released with elatectwn4_destroy, which runs
/// `onDestroy` (if any) once the encoder is gone. nullptr for a null encoder
/// or when memory runs out.
ELATECTWN4_API elatectwn4_encoder* WrapEncoder(std::unique_ptr<Encoder> encoder,
                                               std::function<void()> onDestroy = {}) noexcept;

/// `text` in memory from malloc, as the C interface hands texts out (released
/// with elatectwn4_free); nullptr when memory runs out.
ELATECTWN4_API char* Duplicate(std::string_view text) noexcept;

}  // namespace elatectwn4::c_api
