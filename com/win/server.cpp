// The in-process server: the DLL's exports, the class factory of Encoder,
// and its registration for the whole machine.
#include "com/win/module.h"

// clang-format off
#include <windows.h>
#include <olectl.h>
// clang-format on

#include <array>
#include <atomic>
#include <mutex>
#include <new>
#include <string>

#include "com/typelib_ids.h"
#include "com/win/guid.h"
#include "com/win/objects.h"

namespace elatectwn4::com::win {
namespace {

// The registry view of this DLL's bitness: a 32-bit server registers in the
// 32-bit view, where 32-bit hosts look, also when a 64-bit process installs it.
constexpr REGSAM kView = sizeof(void*) == 8 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY;
constexpr SYSKIND kSystem = sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32;

class ClassFactory final : public IClassFactory {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (object == nullptr) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
            *object = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    // The factory is static: its references are the module's.
    ULONG STDMETHODCALLTYPE AddRef() override {
        AddModuleRef();
        return 2;
    }
    ULONG STDMETHODCALLTYPE Release() override {
        ReleaseModuleRef();
        return 1;
    }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** object) override {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        if (outer != nullptr) return CLASS_E_NOAGGREGATION;
        auto* encoder = new (std::nothrow) EncoderObject();
        if (encoder == nullptr) return E_OUTOFMEMORY;
        const HRESULT hr = encoder->QueryInterface(riid, object);
        encoder->Release();
        return hr;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
        if (lock) {
            AddModuleRef();
        } else {
            ReleaseModuleRef();
        }
        return S_OK;
    }
};

ClassFactory gFactory;

std::wstring Wide(std::string_view text) {
    return std::wstring(text.begin(), text.end());
}

const std::wstring kClasses = L"Software\\Classes\\";
const std::wstring kClassKey = kClasses + L"CLSID\\" + Wide(kEncoderClassId);
const std::wstring kProgIdKey = kClasses + Wide(kProgId);

struct RegistryValue {
    std::wstring key;  // below HKEY_LOCAL_MACHINE
    std::wstring name;
    std::wstring data;
};

bool SetValue(const RegistryValue& v) {
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, v.key.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE | kView,
                        nullptr, &key, nullptr) != ERROR_SUCCESS) {
        return false;
    }
    const LONG rc = RegSetValueExW(key, v.name.empty() ? nullptr : v.name.c_str(), 0, REG_SZ,
                                   reinterpret_cast<const BYTE*>(v.data.c_str()),
                                   static_cast<DWORD>((v.data.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(key);
    return rc == ERROR_SUCCESS;
}

void DeleteTree(const std::wstring& path) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_ALL_ACCESS | kView, &key) == ERROR_SUCCESS) {
        RegDeleteTreeW(key, nullptr);
        RegCloseKey(key);
    }
    const auto split = path.rfind(L'\\');
    HKEY parent = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.substr(0, split).c_str(), 0, KEY_ALL_ACCESS | kView, &parent) ==
        ERROR_SUCCESS) {
        RegDeleteKeyExW(parent, path.substr(split + 1).c_str(), kView, 0);
        RegCloseKey(parent);
    }
}

}  // namespace

}  // namespace elatectwn4::com::win

using namespace elatectwn4::com::win;
using elatectwn4::com::kLibraryMajor;
using elatectwn4::com::kLibraryMinor;

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        SetModule(instance);
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!IsEqualCLSID(rclsid, kEncoderClassGuid)) return CLASS_E_CLASSNOTAVAILABLE;
    return gFactory.QueryInterface(riid, object);
}

STDAPI DllCanUnloadNow() {
    return ModuleInUse() ? S_FALSE : S_OK;
}

STDAPI DllRegisterServer() {
    try {
        std::wstring path = ModulePath();
        const std::wstring progId = Wide(elatectwn4::com::kProgId);
        const std::wstring version = std::to_wstring(kLibraryMajor) + L"." + std::to_wstring(kLibraryMinor);
        const std::array<RegistryValue, 8> values{{
            {kClassKey, L"", L"ElatecTWN4 Encoder"},
            {kClassKey + L"\\InprocServer32", L"", path},
            {kClassKey + L"\\InprocServer32", L"ThreadingModel", L"Apartment"},
            {kClassKey + L"\\ProgID", L"", progId},
            {kClassKey + L"\\TypeLib", L"", Wide(elatectwn4::com::kLibraryId)},
            {kClassKey + L"\\Version", L"", version},
            {kProgIdKey, L"", L"ElatecTWN4 Encoder"},
            {kProgIdKey + L"\\CLSID", L"", Wide(elatectwn4::com::kEncoderClassId)},
        }};
        for (const auto& v : values) {
            if (!SetValue(v)) return SELFREG_E_CLASS;
        }
        ITypeLib* library = nullptr;
        if (FAILED(LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library))) return SELFREG_E_TYPELIB;
        const HRESULT hr = RegisterTypeLib(library, path.data(), nullptr);
        library->Release();
        return SUCCEEDED(hr) ? S_OK : SELFREG_E_TYPELIB;
    } catch (...) {
        return E_OUTOFMEMORY;
    }
}

STDAPI DllUnregisterServer() {
    try {
        UnRegisterTypeLib(kLibraryGuid, static_cast<WORD>(kLibraryMajor), static_cast<WORD>(kLibraryMinor),
                          LOCALE_NEUTRAL, kSystem);
        DeleteTree(kClassKey);
        DeleteTree(kProgIdKey);
        return S_OK;
    } catch (...) {
        return E_OUTOFMEMORY;
    }
}

}  // extern "C"
