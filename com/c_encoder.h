// What an elatectwn4_encoder handle of the C interface holds.
#pragma once

#include <functional>
#include <memory>

#include "elatectwn4/elatectwn4.h"
#include "elatectwn4/encoder.h"
#include "elatectwn4/export.h"

struct elatectwn4_encoder {
    std::unique_ptr<elatectwn4::Encoder> encoder;
    std::function<void()> onDestroy;  ///< after the encoder is gone (the simulator saves its card)
};

namespace elatectwn4::c_api {

/// A text allocated with malloc, as the C interface hands texts out; nullptr when memory runs out.
ELATECTWN4_API char* Duplicate(std::string_view text) noexcept;

}  // namespace elatectwn4::c_api
