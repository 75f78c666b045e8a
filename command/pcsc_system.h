// Helpers of the production PC/SC boundary that do not need a reader.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::command {

/// The names of a PC/SC multi-string ("A\0B\0\0"): NUL-separated, ended by an
/// empty name or the end of the buffer, whichever comes first.
std::vector<std::string> SplitMultiString(std::string_view multi);

}  // namespace elatectwn4::command
