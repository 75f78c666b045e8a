// Opening the trace file is the one platform-dependent part of the trace.
#pragma once

#include <cstdio>

namespace elatectwn4::command {

/// Opens `path` for appending, creating it readable by its owner alone: the
/// trace shows card data and the shape of every exchange, even with the keys
/// masked. nullptr when it cannot be opened.
std::FILE* OpenPrivateLog(const char* path) noexcept;

}  // namespace elatectwn4::command
