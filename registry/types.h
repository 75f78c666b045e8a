// The registry's vocabulary, below everything else in registry/: the roots,
// the result codes, the calling thread's last-error pair, open handles, and
// how names compare.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace elatectwn4::registry {

/// The predefined roots, numbered as the host platform numbers them.
enum class Root : std::uint32_t {
    ClassesRoot = 0x80000000,
    CurrentUser = 0x80000001,
    LocalMachine = 0x80000002,
};

/// True for the three roots above; any other value is not a root.
bool IsKnownRoot(Root root) noexcept;

/// The root's full name ("HKEY_LOCAL_MACHINE"), empty for an unknown root.
std::string_view RootName(Root root) noexcept;

/// Result codes recorded in the last-error number, with the host platform's values.
namespace result {
inline constexpr std::uint32_t kSuccess = 0;
inline constexpr std::uint32_t kFileNotFound = 2;  ///< key or value missing
inline constexpr std::uint32_t kPathNotFound = 3;
inline constexpr std::uint32_t kAccessDenied = 5;   ///< also: deleting a key that has subkeys
inline constexpr std::uint32_t kInvalidHandle = 6;  ///< a root that is not one
inline constexpr std::uint32_t kNotEnoughMemory = 8;
inline constexpr std::uint32_t kInvalidData = 13;  ///< a value kind that cannot be stored
inline constexpr std::uint32_t kBadNetPath = 53;   ///< a remote computer that is not there
inline constexpr std::uint32_t kInvalidParameter = 87;
inline constexpr std::uint32_t kDiskFull = 112;
inline constexpr std::uint32_t kBadPathName = 161;  ///< an empty component in a key path
inline constexpr std::uint32_t kAlreadyExists = 183;
inline constexpr std::uint32_t kMoreData = 234;          ///< a name longer than the enumeration buffer
inline constexpr std::uint32_t kRegistryCorrupt = 1015;  ///< the root's file cannot be parsed
inline constexpr std::uint32_t kRegistryIoFailed = 1016;
inline constexpr std::uint32_t kUnsupportedType = 1630;  ///< a stored value that is neither text nor number
}  // namespace result

/// The calling thread's last registry failure; number 0 and "" after a success.
struct RegistryError {
    std::uint32_t number = 0;
    std::string description;
};

/// The calling thread's last-error pair.
RegistryError LastRegistryError();

/// Records a failure in the calling thread's last-error pair.
void RecordRegistryError(std::uint32_t number, std::string_view description) noexcept;

/// Empties the calling thread's last-error pair.
void ClearRegistryError() noexcept;

/// An open root: the root, and where it lives: the directory of its file
/// (regedit-format files) or the system's key handle (a remote registry).
struct RegHandle {
    Root root = Root::CurrentUser;
    std::filesystem::path directory;
    std::uintptr_t native = 0;
    bool open = false;
};

/// ASCII case-insensitive equality, as key paths and value names compare.
bool EqualsNoCase(std::string_view a, std::string_view b) noexcept;

}  // namespace elatectwn4::registry
