// The trace sink. Lines are discarded unless ELATECTWN4_TRACE names a file
// (appended to) or "stderr". Key material never reaches it in clear: callers
// describe which bytes are secret and the sink masks them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace elatectwn4::command {

/// True when lines are written somewhere; lets callers skip building them.
bool TraceEnabled() noexcept;

/// Writes one line (a newline is added).
void Trace(std::string_view line) noexcept;

/// Bytes [secretFrom, secretFrom + secretCount) of an exchange that must not
/// appear in a log (keys, authentication tokens). Count 0 = nothing secret.
struct SecretRange {
    std::size_t from = 0;
    std::size_t count = 0;
};

/// Writes "<prefix><HEX> (<d>,<d>,...)" with the secret bytes shown as "**"
/// in the hex part and "*" in the decimal list.
void TraceBytes(std::string_view prefix, std::span<const std::uint8_t> bytes, SecretRange secret = {}) noexcept;

}  // namespace elatectwn4::command
