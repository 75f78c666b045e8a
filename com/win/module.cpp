// The COM server's module: its handle, the count of live objects and locks,
// and its type library.
#include "com/win/module.h"

#include <atomic>

namespace elatectwn4::com::win {
namespace {

HMODULE gModule = nullptr;
std::atomic<long> gModuleReferences{0};

}  // namespace

void SetModule(HMODULE module) noexcept {
    gModule = module;
}

bool ModuleInUse() noexcept {
    return gModuleReferences.load() != 0;
}

HMODULE Module() noexcept {
    return gModule;
}

std::wstring ModulePath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD n = GetModuleFileNameW(gModule, path.data(), static_cast<DWORD>(path.size()));
        if (n < path.size()) {
            path.resize(n);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

void AddModuleRef() noexcept {
    ++gModuleReferences;
}

void ReleaseModuleRef() noexcept {
    --gModuleReferences;
}

ITypeLib* TypeLibrary() noexcept {
    static ITypeLib* library = [] {
        ITypeLib* loaded = nullptr;
        try {
            if (FAILED(LoadTypeLibEx(ModulePath().c_str(), REGKIND_NONE, &loaded))) loaded = nullptr;
        } catch (...) {
            loaded = nullptr;
        }
        return loaded;
    }();
    if (library != nullptr) library->AddRef();
    return library;
}

}  // namespace elatectwn4::com::win
