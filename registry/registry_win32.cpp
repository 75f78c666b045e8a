// MRegistry over the Windows registry (advapi32). Keys are opened in the
// 32-bit view whatever the build, so the 32-bit and 64-bit component share
// the card-type table of the 32-bit host.
#include "registry/registry.h"

// clang-format off
#include <windows.h>
// clang-format on

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "registry/reg_value.h"

namespace elatectwn4::registry {
namespace {

constexpr std::string_view kRemotePrefix = "\\\\";
constexpr REGSAM kView = KEY_WOW64_32KEY;
constexpr REGSAM kRead = KEY_READ | kView;  // 0x20019

// The registry locks nothing between a caller's read and write; writers that
// decide from what they read hold this across both, between processes too.
constexpr const char* kWriterMutex = "Local\\ElatecTWN4.Registry";

HKEY RootKey(Root root) {
    return reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<std::uint32_t>(root)));
}

// A key closed when it goes out of scope.
struct KeyCloser {
    void operator()(HKEY key) const noexcept { RegCloseKey(key); }
};
using Key = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

// The root of `handle`: the predefined one, or the remote computer's.
HKEY Base(const RegHandle& handle) {
    return handle.native != 0 ? reinterpret_cast<HKEY>(handle.native) : RootKey(handle.root);
}

// Connects and opens `key` with `access`; records `openText` on failure.
Key Open(Root root, std::string_view key, std::string_view computer, REGSAM access, std::string_view openText) {
    RegHandle handle;
    if (!ConnectRoot(root, computer, handle)) return nullptr;
    HKEY opened = nullptr;
    const LONG rc = RegOpenKeyExA(Base(handle), std::string(key).c_str(), 0, access, &opened);
    CloseRegKey(handle);
    if (rc != ERROR_SUCCESS) {
        RecordRegistryError(static_cast<std::uint32_t>(rc), openText);
        return nullptr;
    }
    return Key(opened);
}

// Connects and creates (or opens) `key` for writing.
Key Create(Root root, std::string_view key, std::string_view computer) {
    RegHandle handle;
    if (!ConnectRoot(root, computer, handle)) return nullptr;
    HKEY created = nullptr;
    const LONG rc = RegCreateKeyExA(Base(handle), std::string(key).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                    KEY_READ | KEY_WRITE | kView, nullptr, &created, nullptr);
    CloseRegKey(handle);
    if (rc != ERROR_SUCCESS) {
        RecordRegistryError(static_cast<std::uint32_t>(rc), kTextOpenKey);
        return nullptr;
    }
    return Key(created);
}

// A value as a read returns it; nullopt for kinds that are neither text nor a 32-bit number.
std::optional<RegValue> Readable(DWORD type, const std::vector<char>& data) {
    if (type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ) {
        const std::string text(data.begin(), data.end());
        return RegValue{text.substr(0, text.find('\0'))};
    }
    if (type == REG_DWORD && data.size() == 4) {
        DWORD number = 0;
        std::memcpy(&number, data.data(), sizeof number);
        return RegValue{static_cast<std::uint32_t>(number)};
    }
    return std::nullopt;
}

// Reads one value: its type and its bytes (size first, then the data).
LONG Query(HKEY key, const std::string& name, DWORD& type, std::vector<char>& data) {
    DWORD size = 0;
    LONG rc = RegQueryValueExA(key, name.c_str(), nullptr, &type, nullptr, &size);
    if (rc != ERROR_SUCCESS) return rc;
    data.assign(size, '\0');
    rc = RegQueryValueExA(key, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
    data.resize(std::min<std::size_t>(size, data.size()));
    return rc;
}

LONG Set(HKEY key, const std::string& name, const StorableData& data) {
    if (const auto* number = std::get_if<std::uint32_t>(&data)) {
        const DWORD dword = *number;
        return RegSetValueExA(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dword), sizeof dword);
    }
    const auto& text = std::get<std::string>(data);
    return RegSetValueExA(key, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          static_cast<DWORD>(text.size() + 1));
}

// Names from RegEnumValueA or RegEnumKeyExA, index 0 upward.
template <typename Enumerate>
std::int32_t EnumNames(HKEY key, std::vector<std::string>& names, std::string_view failText, Enumerate enumerate) {
    std::vector<char> buffer(kEnumNameBuffer);
    for (DWORD index = 0;; ++index) {
        DWORD length = static_cast<DWORD>(buffer.size());
        const LONG rc = enumerate(key, index, buffer.data(), &length);
        if (rc == ERROR_NO_MORE_ITEMS) break;
        if (rc != ERROR_SUCCESS) {
            RecordRegistryError(static_cast<std::uint32_t>(rc), failText);
            break;
        }
        const std::string name(buffer.data(), length);
        names.push_back(name.substr(0, name.find('\0')));
    }
    return static_cast<std::int32_t>(names.size());
}

std::int32_t ValueNames(HKEY key, std::vector<std::string>& names) {
    return EnumNames(key, names, kTextEnumValues, [](HKEY k, DWORD i, char* name, DWORD* length) {
        return RegEnumValueA(k, i, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

class NamedMutex {
public:
    NamedMutex() : handle_(CreateMutexA(nullptr, FALSE, kWriterMutex)) {
        if (handle_ != nullptr) WaitForSingleObject(handle_, INFINITE);
    }
    ~NamedMutex() {
        if (handle_ != nullptr) {
            ReleaseMutex(handle_);
            CloseHandle(handle_);
        }
    }
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;

private:
    HANDLE handle_;
};

}  // namespace

bool ConnectRoot(Root root, std::string_view computer, RegHandle& handle) noexcept {
    ClearRegistryError();
    handle = RegHandle{};
    handle.root = root;
    if (computer.empty()) {
        handle.open = true;
        return true;
    }
    std::string_view name = computer;
    if (name.starts_with(kRemotePrefix)) name.remove_prefix(kRemotePrefix.size());
    try {
        const std::string machine = std::string(kRemotePrefix) + std::string(name);
        HKEY remote = nullptr;
        const LONG rc = RegConnectRegistryA(machine.c_str(), RootKey(root), &remote);
        if (rc == ERROR_SUCCESS) {
            handle.native = reinterpret_cast<std::uintptr_t>(remote);
            handle.open = true;
            return true;
        }
        RecordRegistryError(static_cast<std::uint32_t>(rc), std::string(kTextCannotConnect) + std::string(name));
    } catch (...) {
        RecordRegistryError(ERROR_NOT_ENOUGH_MEMORY, kTextCannotConnect);
    }
    return false;
}

void CloseRegKey(RegHandle& handle) noexcept {
    if (handle.native != 0) RegCloseKey(reinterpret_cast<HKEY>(handle.native));
    handle = RegHandle{};
}

RegValue ReadRegValue(Root root, std::string_view key, std::string_view name, const RegValue& fallback,
                      std::string_view computer) noexcept {
    return ReadRegValueWith(fallback, [&](std::uint32_t& failure) -> std::optional<RegValue> {
        const Key opened = Open(root, key, computer, kRead, kTextOpenKey);
        if (!opened) return std::nullopt;
        DWORD type = 0;
        std::vector<char> data;
        const LONG rc = Query(opened.get(), std::string(name), type, data);
        if (rc == ERROR_FILE_NOT_FOUND) return std::nullopt;
        auto readable = rc == ERROR_SUCCESS ? Readable(type, data) : std::nullopt;
        if (!readable) failure = rc == ERROR_SUCCESS ? result::kUnsupportedType : static_cast<std::uint32_t>(rc);
        return readable;
    });
}

bool WriteRegValue(Root root, std::string_view key, std::string_view name, const RegData& value,
                   std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextWriteData,
        [&] {
            const Key created = Create(root, key, computer);
            if (!created) return false;
            const auto data = ToStorable(value);
            if (!data) {
                RecordRegistryError(ERROR_INVALID_DATA, kTextTypeRefused);
                return false;
            }
            const LONG rc = Set(created.get(), std::string(name), *data);
            if (rc != ERROR_SUCCESS) RecordRegistryError(static_cast<std::uint32_t>(rc), kTextWriteData);
            return rc == ERROR_SUCCESS;
        },
        kFailed);
}

bool WriteRegValueIf(Root root, std::string_view key, const LockedDecision& decide,
                     std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextWriteData,
        [&] {
            const NamedMutex lock;
            std::vector<NamedText> values;
            if (const Key opened = Open(root, key, computer, kRead, kTextOpenKey)) {
                std::vector<std::string> names;
                ValueNames(opened.get(), names);
                for (auto& name : names) {
                    DWORD type = 0;
                    std::vector<char> data;
                    std::string text;
                    if (Query(opened.get(), name, type, data) == ERROR_SUCCESS) {
                        if (const auto readable = Readable(type, data)) {
                            const auto* number = std::get_if<std::uint32_t>(&*readable);
                            text = number != nullptr ? std::to_string(*number) : std::get<std::string>(*readable);
                        }
                    }
                    values.push_back(NamedText{std::move(name), std::move(text)});
                }
            }
            ClearRegistryError();  // a key that does not exist yet is no failure here
            const auto decision = decide(values);
            if (!decision) return true;
            return WriteRegValue(root, key, decision->name, RegData{decision->text}, computer);
        },
        kFailed);
}

std::int32_t EnumRegValueNames(Root root, std::string_view key, std::vector<std::string>& names,
                               std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextEnumValues,
        [&]() -> std::int32_t {
            names.clear();
            const Key opened = Open(root, key, computer, kRead, kTextOpenKey);
            return opened ? ValueNames(opened.get(), names) : 0;
        },
        [&] { return static_cast<std::int32_t>(names.size()); });
}

std::int32_t EnumRegKeyNames(Root root, std::string_view key, std::vector<std::string>& names,
                             std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextEnumKeys,
        [&]() -> std::int32_t {
            names.clear();
            const Key opened = Open(root, key, computer, kRead, kTextOpenPath);
            if (!opened) return 0;
            return EnumNames(opened.get(), names, kTextEnumKeys, [](HKEY k, DWORD i, char* name, DWORD* length) {
                return RegEnumKeyExA(k, i, name, length, nullptr, nullptr, nullptr, nullptr);
            });
        },
        [&] { return static_cast<std::int32_t>(names.size()); });
}

bool DeleteRegKey(Root root, std::string_view key, std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextDeleteKey,
        [&] {
            if (key.empty() || key == "\\") {
                RecordRegistryError(ERROR_INVALID_PARAMETER, kTextDeleteRoot);
                return false;
            }
            if (key.back() == '\\') {
                RecordRegistryError(ERROR_INVALID_PARAMETER, kTextDeleteUnnamed);
                return false;
            }
            const auto split = key.rfind('\\');
            if (split == std::string_view::npos) {
                RecordRegistryError(ERROR_INVALID_PARAMETER, kTextDeleteMainKey);
                return false;
            }
            const Key parent = Open(root, key.substr(0, split), computer, KEY_READ | KEY_WRITE | kView, kTextOpenPath);
            if (!parent) return false;
            std::vector<std::string> children;
            if (const Key target = Open(root, key, computer, kRead, kTextDeleteKey)) {
                EnumRegKeyNames(root, key, children, computer);
                if (!children.empty()) {
                    RecordRegistryError(ERROR_ACCESS_DENIED, kTextDeleteSubtree);
                    return false;
                }
            } else {
                return false;
            }
            const LONG rc = RegDeleteKeyExA(parent.get(), std::string(key.substr(split + 1)).c_str(), kView, 0);
            if (rc != ERROR_SUCCESS) RecordRegistryError(static_cast<std::uint32_t>(rc), kTextDeleteKey);
            return rc == ERROR_SUCCESS;
        },
        kFailed);
}

bool DeleteRegValue(Root root, std::string_view key, std::string_view name, std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextDeleteValue,
        [&] {
            const Key opened = Open(root, key, computer, KEY_READ | KEY_WRITE | kView, kTextOpenPath);
            if (!opened) return false;
            const LONG rc = RegDeleteValueA(opened.get(), std::string(name).c_str());
            if (rc != ERROR_SUCCESS) RecordRegistryError(static_cast<std::uint32_t>(rc), kTextDeleteValue);
            return rc == ERROR_SUCCESS;
        },
        kFailed);
}

}  // namespace elatectwn4::registry
