// Where the registry files live, how they are read, and how they are
// replaced: under an exclusive lock on a file beside them (held from
// re-reading to the rename), through a temporary file that is flushed to disk
// and renamed over the old one, so a reader sees either version whole.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string_view>

#include "registry/reg_file.h"
#include "registry/types.h"

namespace elatectwn4::registry {

/// The environment variable that names one directory for all three files.
inline constexpr const char* kStoreDirVariable = "ELATECTWN4_REGISTRY_DIR";

/// The directory of `root`'s file on this computer.
std::filesystem::path StoreDirectory(Root root);

/// The file of `handle`'s root: <directory>/<root name>.reg.
std::filesystem::path HiveFile(const RegHandle& handle);

/// A file as read: a missing file is an empty hive; `error` is 0 or the
/// result code that made it unreadable (kRegistryCorrupt when it cannot be parsed).
struct LoadedHive {
    Hive hive;
    std::uint32_t error = result::kSuccess;
};

/// Reads `handle`'s file without locking: renames make every read see one whole version.
LoadedHive LoadHive(const RegHandle& handle);

/// How a locked update ended: `error` 0 on success; `writing` tells whether it
/// failed while saving (rather than while opening or reading the file).
struct UpdateOutcome {
    std::uint32_t error = result::kSuccess;
    bool writing = false;
};

/// Re-reads `handle`'s file under the lock and calls `edit` on it; when
/// `edit` returns true the result replaces the file. A file that cannot be
/// parsed is never handed to `edit` (kRegistryCorrupt), so never replaced.
UpdateOutcome UpdateHive(const RegHandle& handle, const std::function<bool(Hive&)>& edit);

/// A result code for an errno value.
std::uint32_t ResultFromErrno(int error) noexcept;

}  // namespace elatectwn4::registry
