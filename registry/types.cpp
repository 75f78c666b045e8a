#include "registry/types.h"

#include <algorithm>

namespace elatectwn4::registry {
namespace {

// Per thread, so that two Encoders on two threads never read each other's failures.
thread_local RegistryError tLastError;

char LowerAscii(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool IsKnownRoot(Root root) noexcept {
    return root == Root::ClassesRoot || root == Root::CurrentUser || root == Root::LocalMachine;
}

std::string_view RootName(Root root) noexcept {
    switch (root) {
        case Root::ClassesRoot:
            return "HKEY_CLASSES_ROOT";
        case Root::CurrentUser:
            return "HKEY_CURRENT_USER";
        case Root::LocalMachine:
            return "HKEY_LOCAL_MACHINE";
    }
    return {};
}

RegistryError LastRegistryError() {
    return tLastError;
}

void RecordRegistryError(std::uint32_t number, std::string_view description) noexcept {
    try {
        tLastError.number = number;
        tLastError.description.assign(description);
    } catch (...) {
        tLastError.description.clear();  // out of memory: keep at least the number
    }
}

void ClearRegistryError() noexcept {
    tLastError.number = result::kSuccess;
    tLastError.description.clear();
}

bool EqualsNoCase(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return LowerAscii(x) == LowerAscii(y); });
}

}  // namespace elatectwn4::registry
