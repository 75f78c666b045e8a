// What MRegistry's implementations share: the failure texts hosts see, what
// a caller's value becomes in the registry, and the wrappers that validate a root.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "registry/registry.h"

namespace elatectwn4::registry {

inline constexpr std::string_view kTextCannotConnect = "Cannot open Registry for computer ";
inline constexpr std::string_view kTextOpenKey = "Unable to open registry key";
inline constexpr std::string_view kTextReadValue = "Error while reading value";
inline constexpr std::string_view kTextWriteData = "Error while writing data in the Registry";
inline constexpr std::string_view kTextTypeRefused = "Unable to save this type of data in the Registry";
inline constexpr std::string_view kTextEnumValues = "Unable to read the value names for the Registry";
inline constexpr std::string_view kTextEnumKeys = "Unable to read the key names for the Registry";
inline constexpr std::string_view kTextOpenPath = "Error while opening the specified path";
inline constexpr std::string_view kTextDeleteRoot = "Can't delete a registry root!";
inline constexpr std::string_view kTextDeleteUnnamed = "Can't delete unnamed key";
inline constexpr std::string_view kTextDeleteSubtree = "Can't delete a sub-tree";
inline constexpr std::string_view kTextDeleteMainKey = "Can't delete a main key just below the root";
inline constexpr std::string_view kTextDeleteKey = "Unable to delete specified key";
inline constexpr std::string_view kTextDeleteValue = "Unable to delete specified value";

/// A value as the registry keeps it: text or a 32-bit number.
using StorableData = std::variant<std::string, std::uint32_t>;

/// What a caller's value becomes in the registry; nullopt for kinds it cannot hold.
std::optional<StorableData> ToStorable(const RegData& value);

/// The shell of every public registry member on every platform: the record
/// is cleared, `body` runs, and anything it throws becomes "not enough
/// memory" under the member's own text, with `onThrow()` as the result.
template <typename Body, typename OnThrow>
auto GuardRegistryCall(std::string_view failText, Body&& body, OnThrow&& onThrow) noexcept -> decltype(body()) {
    ClearRegistryError();
    try {
        return body();
    } catch (...) {
        RecordRegistryError(result::kNotEnoughMemory, failText);
        return onThrow();
    }
}

inline constexpr auto kFailed = [] { return false; };

/// ReadRegValue on every platform around `lookup(failure)`, which opens the
/// key and reads the value: its readable form, or nullopt with `failure` the
/// code to record (0 when the value is missing, which is no error: the
/// caller gets `fallback`, or when the key could not be opened, which
/// `lookup` recorded itself).
template <typename Lookup>
RegValue ReadRegValueWith(const RegValue& fallback, Lookup&& lookup) noexcept {
    return GuardRegistryCall(
        kTextReadValue,
        [&]() -> RegValue {
            std::uint32_t failure = 0;
            if (auto value = lookup(failure)) return std::move(*value);
            if (failure != 0) RecordRegistryError(failure, kTextReadValue);
            return fallback;
        },
        [] { return RegValue{}; });
}

/// A root that is not one of the three becomes Root::CurrentUser.
Root NormalizeRoot(Root root) noexcept;

}  // namespace elatectwn4::registry
