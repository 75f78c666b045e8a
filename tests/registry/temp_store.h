// A registry store of its own for each test: a fresh directory named by
// ELATECTWN4_REGISTRY_DIR while the object lives, removed afterwards.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace elatectwn4::registry::testing {

/// Saves an environment variable and puts it back on destruction.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);  ///< value nullptr unsets it
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;
    ~ScopedEnv();

private:
    std::string name_;
    std::optional<std::string> previous_;
};

class TempStore {
public:
    TempStore();
    TempStore(const TempStore&) = delete;
    TempStore& operator=(const TempStore&) = delete;
    ~TempStore();

    const std::filesystem::path& dir() const { return dir_; }
    std::filesystem::path File(std::string_view rootName = "HKEY_LOCAL_MACHINE") const;
    /// Writes a root's file as it stands, bytes exactly.
    void Put(std::string_view contents, std::string_view rootName = "HKEY_LOCAL_MACHINE") const;
    /// The root's file, bytes exactly ("" when missing).
    std::string Contents(std::string_view rootName = "HKEY_LOCAL_MACHINE") const;
    /// Names of the directory's entries that are neither .reg nor .lock files.
    std::size_t StrayFiles() const;

private:
    std::filesystem::path dir_;
    ScopedEnv env_;
};

/// The card-type section of HKEY_LOCAL_MACHINE with the given value lines.
std::string CardTypesFile(std::string_view valueLines);

}  // namespace elatectwn4::registry::testing
