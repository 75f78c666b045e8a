// Helpers of the production PC/SC boundary that do not need a reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::command {

/// The names of a PC/SC multi-string ("A\0B\0\0"): NUL-separated, ended by an
/// empty name or the end of the buffer, whichever comes first.
std::vector<std::string> SplitMultiString(std::string_view multi);

/// SCardListReaders' two calls as one: `list(buffer, length)` behaves as
/// SCardListReaders does (a null buffer asks for the length). A reader that
/// arrives between the two calls makes the second one ask for more room
/// (`insufficientBuffer`); the pair is then repeated, at most `attempts` times.
/// Returns the last code; `readers` holds the names on success.
std::uint32_t ListReadersRetrying(const std::function<std::uint32_t(char* buffer, std::size_t& length)>& list,
                                  std::uint32_t insufficientBuffer, std::vector<std::string>& readers,
                                  int attempts = 5);

}  // namespace elatectwn4::command
