// MRegistry: a small general-purpose registry layer. Linux has no system
// registry, so the three roots live in text files of the regedit export
// format ("HKEY_LOCAL_MACHINE.reg", ...) that an administrator can edit or
// import from other systems:
//
//   * ELATECTWN4_REGISTRY_DIR, when set, holds all three files;
//   * otherwise HKEY_LOCAL_MACHINE lives in /var/lib/elatectwn4/ and the two
//     others in $XDG_CONFIG_HOME/elatectwn4/ (or ~/.config/elatectwn4/);
//   * a remote computer "\\PC1" is the sub-directory "PC1" of that directory.
//
// Writes are atomic and serialised between threads and processes. A damaged
// file reads as empty and is never replaced. Key paths and value names
// compare case-insensitively; values enumerate in file order.
//
// No routine throws or reports to the Encoder's error record: a failure is
// kept in the calling thread's registry last-error pair (number = the
// platform's registry result code, description = the routine's text) and the
// routine returns its default. Every routine but CloseRegKey empties that
// pair on entry.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "registry/types.h"

namespace elatectwn4::registry {

/// What a read returns: text or a 32-bit number.
using RegValue = std::variant<std::string, std::uint32_t>;

/// A local date and time, stored as text in the "General date" form.
using RegDate = std::chrono::local_seconds;

/// What a caller may hand to a write. Integers (byte, 16-bit, 32-bit, and
/// booleans as 1/0) become a 32-bit number; floating-point values and dates
/// their text; text stays text (cut at the first NUL). Empty (monostate) and
/// arrays are refused, as are non-finite numbers.
using RegData = std::variant<std::monostate, bool, std::uint8_t, std::int16_t, std::int32_t, std::uint32_t, float,
                             double, std::string, RegDate, std::vector<std::uint8_t>>;

/// The length of the name buffer used by the enumerations: a name of this
/// many characters or more cannot be returned.
inline constexpr std::size_t kEnumNameBuffer = 4096;

/// Opens `root` on this computer (empty `computer`) or on a remote one
/// ("PC1" or "\\PC1", the sub-directory PC1 of the store directory).
/// @return false, with "Cannot open Registry for computer PC1", when that
///         computer's directory does not exist.
bool ConnectRoot(Root root, std::string_view computer, RegHandle& handle) noexcept;

/// Releases a handle from ConnectRoot; never fails.
void CloseRegKey(RegHandle& handle) noexcept;

/// Reads value `name` ("" = the key's default value) of `key` under `root`.
/// @return the value; `fallback` when the value does not exist (no error) or
///         on failure ("Unable to open registry key", "Error while reading value").
RegValue ReadRegValue(Root root, std::string_view key, std::string_view name, const RegValue& fallback,
                      std::string_view computer = {}) noexcept;

/// Writes value `name` of `key`, creating the key path first.
/// @return false on failure: "Unable to open registry key", "Error while
///         writing data in the Registry", "Unable to save this type of data in
///         the Registry" (the key is created even then).
/// Example: WriteRegValue(Root::LocalMachine, "Software\\Acme", "Count", std::int32_t{3});
bool WriteRegValue(Root root, std::string_view key, std::string_view name, const RegData& value,
                   std::string_view computer = {}) noexcept;

/// Replaces `names` with the value names of `key` in file order.
/// @return the number of names; on failure ("Unable to open registry key",
///         "Unable to read the value names for the Registry") the names read
///         before it.
std::int32_t EnumRegValueNames(Root root, std::string_view key, std::vector<std::string>& names,
                               std::string_view computer = {}) noexcept;

/// Replaces `names` with the names of the direct subkeys of `key`, in file order.
/// @return their number; failures: "Error while opening the specified path",
///         "Unable to read the key names for the Registry".
std::int32_t EnumRegKeyNames(Root root, std::string_view key, std::vector<std::string>& names,
                             std::string_view computer = {}) noexcept;

/// Deletes `key`, which must have no subkeys and lie at least two levels
/// below the root. Failures: "Can't delete a registry root!", "Can't delete
/// unnamed key", "Can't delete a main key just below the root", "Error while
/// opening the specified path", "Can't delete a sub-tree", "Unable to delete
/// specified key".
bool DeleteRegKey(Root root, std::string_view key, std::string_view computer = {}) noexcept;

/// Deletes value `name` of `key`. Failures: "Error while opening the
/// specified path", "Unable to delete specified value".
bool DeleteRegValue(Root root, std::string_view key, std::string_view name, std::string_view computer = {}) noexcept;

/// The wrappers hosts call: a root value that is not one of the three roots
/// is replaced by Root::CurrentUser, then the routine above runs.
RegValue ReadValue(Root root, std::string_view key, std::string_view name, const RegValue& fallback,
                   std::string_view computer = {}) noexcept;
bool WriteValue(Root root, std::string_view key, std::string_view name, const RegData& value,
                std::string_view computer = {}) noexcept;
std::int32_t EnumValueNames(Root root, std::string_view key, std::vector<std::string>& names,
                            std::string_view computer = {}) noexcept;

/// A value of a key seen as text: a number as its decimal digits, a value
/// that is neither text nor number as "".
struct NamedText {
    std::string name;
    std::string text;
};

/// A text value a locked decision asks to write.
struct NewTextValue {
    std::string name;
    std::string text;
};

/// Decides, from the freshest values of the key, what to add (or nothing).
using LockedDecision = std::function<std::optional<NewTextValue>(const std::vector<NamedText>& values)>;

/// For writers that must not record the same thing twice when several
/// processes act at once: holds the store's lock, shows `decide` the key's
/// values as they are now (empty when the key does not exist), and writes the
/// value it returns with WriteRegValue's key creation and failure texts;
/// when it returns nothing, nothing is written, not even the key.
/// @return false on failure; true also when `decide` chose to write nothing.
bool WriteRegValueIf(Root root, std::string_view key, const LockedDecision& decide,
                     std::string_view computer = {}) noexcept;

}  // namespace elatectwn4::registry
