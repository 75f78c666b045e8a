// A private registry store for one test: a fresh directory named by
// ELATECTWN4_REGISTRY_DIR, removed again (and the variable unset) when the
// test ends.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

namespace elatectwn4::test {

/// A regedit file of HKEY_LOCAL_MACHINE whose card-type key holds `valueLines`
/// (lines such as "\"DESFire\"=\"31;3B8180;7\"\r\n").
inline std::string CardTypesFile(std::string_view valueLines) {
    return "Windows Registry Editor Version 5.00\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types]\r\n" +
           std::string(valueLines);
}

/// Sets (or, with nullptr, unsets) an environment variable and puts the old value back.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) previous_ = old;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { previous_ ? ::setenv(name_.c_str(), previous_->c_str(), 1) : ::unsetenv(name_.c_str()); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

class RegistryDir {
public:
    RegistryDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "elatectwn4-registry-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "cannot create a temporary registry directory";
        path_ = pattern;
        ::setenv("ELATECTWN4_REGISTRY_DIR", path_.c_str(), 1);
    }
    ~RegistryDir() {
        ::unsetenv("ELATECTWN4_REGISTRY_DIR");
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    RegistryDir(const RegistryDir&) = delete;
    RegistryDir& operator=(const RegistryDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path File(std::string_view root = "HKEY_LOCAL_MACHINE") const {
        return path_ / (std::string(root) + ".reg");
    }

    /// Writes a root's file, bytes exactly.
    void Put(std::string_view contents, std::string_view root = "HKEY_LOCAL_MACHINE") const {
        std::ofstream(File(root), std::ios::binary) << contents;
    }
    /// A root's file, bytes exactly ("" when absent).
    std::string Contents(std::string_view root = "HKEY_LOCAL_MACHINE") const {
        std::ifstream file(File(root), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    void WriteCardTypes(const std::string& valueLines) const { Put(CardTypesFile(valueLines)); }

    /// Files in the directory that are neither a root's file nor its lock.
    std::size_t StrayFiles() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            const auto ext = entry.path().extension();
            if (entry.is_regular_file() && ext != ".reg" && ext != ".lock") ++count;
        }
        return count;
    }

private:
    std::filesystem::path path_;
};

}  // namespace elatectwn4::test
