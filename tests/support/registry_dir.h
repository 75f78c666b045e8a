// A private card-type registry for one test: a fresh directory named by
// ELATECTWN4_REGISTRY_DIR, removed again when the test ends.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace elatectwn4::test {

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

    /// Writes HKEY_LOCAL_MACHINE.reg with the card-types key holding `values`
    /// (lines such as "\"DESFire\"=\"31;3B8180;7\"").
    void WriteCardTypes(const std::string& values) const {
        std::ofstream file(path_ / "HKEY_LOCAL_MACHINE.reg", std::ios::binary);
        file << "Windows Registry Editor Version 5.00\r\n\r\n"
             << "[HKEY_LOCAL_MACHINE\\Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types]\r\n"
             << values;
    }

    /// The whole HKEY_LOCAL_MACHINE store as text ("" when absent).
    std::string MachineStore() const {
        std::ifstream file(path_ / "HKEY_LOCAL_MACHINE.reg", std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// How often `needle` occurs in `haystack`.
inline std::size_t Occurrences(const std::string& haystack, const std::string& needle) {
    std::size_t count = 0;
    for (auto at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1))
        ++count;
    return count;
}

}  // namespace elatectwn4::test
