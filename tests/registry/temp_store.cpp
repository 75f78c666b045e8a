#include "temp_store.h"

#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace elatectwn4::registry::testing {
namespace {

std::filesystem::path MakeTempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "elatectwn4-registry-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

}  // namespace

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    if (value != nullptr) {
        ::setenv(name, value, 1);
    } else {
        ::unsetenv(name);
    }
}

ScopedEnv::~ScopedEnv() {
    if (previous_) {
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

TempStore::TempStore() : dir_(MakeTempDir()), env_("ELATECTWN4_REGISTRY_DIR", dir_.c_str()) {}

TempStore::~TempStore() {
    std::error_code ec;
    std::filesystem::permissions(dir_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(dir_, ec);
}

std::filesystem::path TempStore::File(std::string_view rootName) const {
    return dir_ / (std::string(rootName) + ".reg");
}

void TempStore::Put(std::string_view contents, std::string_view rootName) const {
    std::ofstream out(File(rootName), std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

std::string TempStore::Contents(std::string_view rootName) const {
    std::ifstream in(File(rootName), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::size_t TempStore::StrayFiles() const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
        const auto ext = entry.path().extension();
        if (entry.is_regular_file() && ext != ".reg" && ext != ".lock") ++count;
    }
    return count;
}

std::string CardTypesFile(std::string_view valueLines) {
    return "Windows Registry Editor Version 5.00\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types]\r\n" +
           std::string(valueLines);
}

}  // namespace elatectwn4::registry::testing
