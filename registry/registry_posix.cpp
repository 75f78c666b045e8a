// MRegistry over the regedit-format files of registry/store.h.
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "registry/reg_file.h"
#include "registry/reg_value.h"
#include "registry/registry.h"
#include "registry/store.h"

namespace elatectwn4::registry {
namespace {

constexpr std::string_view kRemotePrefix = "\\\\";

std::string JoinPath(const std::vector<std::string>& components) {
    std::string path;
    for (const auto& c : components) {
        if (!path.empty()) path += '\\';
        path += c;
    }
    return path;
}

// What a caller's value becomes in the file.
std::optional<StoredData> ToStored(const RegData& value) {
    const auto storable = ToStorable(value);
    if (!storable) return std::nullopt;
    return std::visit([](const auto& v) { return std::optional<StoredData>{std::in_place, v}; }, *storable);
}

std::uint32_t NumberFromBytes(const std::vector<std::uint8_t>& b, bool bigEndian) {
    if (bigEndian) return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) | b[3];
    return (std::uint32_t{b[3]} << 24) | (std::uint32_t{b[2]} << 16) | (std::uint32_t{b[1]} << 8) | b[0];
}

// A stored value as a read returns it; nullopt for kinds that are neither
// text nor a 32-bit number (binary, 64-bit numbers, ...).
std::optional<RegValue> Readable(const StoredValue& value, FileFormat format) {
    if (const auto* text = std::get_if<std::string>(&value.data))
        return std::optional<RegValue>{std::in_place, text->substr(0, text->find('\0'))};
    if (const auto* number = std::get_if<std::uint32_t>(&value.data))
        return std::optional<RegValue>{std::in_place, *number};
    const auto& raw = std::get<RawData>(value.data);
    switch (raw.type) {
        case kTypeText:
        case kTypeExpandText:
        case kTypeMultiText:
            return std::optional<RegValue>{std::in_place, DecodeRawText(raw, format)};
        case kTypeNumber:
        case kTypeBigEndianNumber:
            if (raw.bytes.size() == 4)
                return std::optional<RegValue>{std::in_place,
                                               NumberFromBytes(raw.bytes, raw.type == kTypeBigEndianNumber)};
            return std::nullopt;
        default:
            return std::nullopt;
    }
}

// Connects and splits the key path; records `openText` for a bad path.
std::optional<std::string> OpenPath(Root root, std::string_view key, std::string_view computer, RegHandle& handle,
                                    std::string_view openText) {
    if (!ConnectRoot(root, computer, handle)) return std::nullopt;
    const auto components = SplitKeyPath(key);
    if (!components) {
        RecordRegistryError(result::kBadPathName, openText);
        return std::nullopt;
    }
    return JoinPath(*components);
}

// Loads the hive and checks that `path` exists, recording `openText` otherwise.
std::optional<Hive> OpenExistingKey(const RegHandle& handle, const std::string& path, std::string_view openText) {
    auto loaded = LoadHive(handle);
    if (loaded.error != result::kSuccess) {
        RecordRegistryError(loaded.error, openText);
        return std::nullopt;
    }
    if (!loaded.hive.KeyExists(path)) {
        RecordRegistryError(result::kFileNotFound, openText);
        return std::nullopt;
    }
    return std::move(loaded.hive);
}

}  // namespace

bool ConnectRoot(Root root, std::string_view computer, RegHandle& handle) noexcept {
    ClearRegistryError();
    handle = RegHandle{};
    handle.root = root;
    std::string_view name = computer;
    if (name.starts_with(kRemotePrefix)) name.remove_prefix(kRemotePrefix.size());
    try {
        if (computer.empty()) {
            // An unknown root opens like a bad handle would: every use then fails.
            if (IsKnownRoot(root)) handle.directory = StoreDirectory(root);
            handle.open = true;
            return true;
        }
        // The name becomes one directory level: nothing may lead outside the store.
        const bool plainName = !name.empty() && name != "." && name != ".." &&
                               name.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
        std::error_code ec;
        if (plainName && IsKnownRoot(root)) {
            const auto directory = StoreDirectory(root) / std::string(name);
            if (!directory.parent_path().empty() && std::filesystem::is_directory(directory, ec)) {
                handle.directory = directory;
                handle.open = true;
                return true;
            }
        }
        RecordRegistryError(IsKnownRoot(root) ? result::kBadNetPath : result::kInvalidHandle,
                            std::string(kTextCannotConnect) + std::string(name));
    } catch (...) {
        RecordRegistryError(result::kNotEnoughMemory, kTextCannotConnect);
    }
    handle = RegHandle{};
    return false;
}

void CloseRegKey(RegHandle& handle) noexcept {
    handle.open = false;
}

RegValue ReadRegValue(Root root, std::string_view key, std::string_view name, const RegValue& fallback,
                      std::string_view computer) noexcept {
    return ReadRegValueWith(fallback, [&](std::uint32_t& failure) -> std::optional<RegValue> {
        RegHandle handle;
        const auto path = OpenPath(root, key, computer, handle, kTextOpenKey);
        if (!path) return std::nullopt;
        const auto hive = OpenExistingKey(handle, *path, kTextOpenKey);
        CloseRegKey(handle);
        if (!hive) return std::nullopt;
        const auto* stored = hive->FindKey(*path);
        const auto* value = stored != nullptr ? stored->FindValue(name) : nullptr;
        if (value == nullptr) return std::nullopt;
        auto readable = Readable(*value, hive->format);
        if (!readable) failure = result::kUnsupportedType;
        return readable;
    });
}

namespace {

// The shared body of the writes: asks `choose` (under the lock, with the
// freshest hive) for the value to set, creates the key path and sets it. A
// value of a kind the registry cannot hold is refused only after its key was
// created, in the order the platform's own calls take.
struct WriteChoice {
    std::string name;
    std::optional<StoredData> data;  ///< nullopt = kind refused
};

enum class WriteProblem { None, Refused, BadName };

bool WriteLocked(Root root, std::string_view key, std::string_view computer,
                 const std::function<std::optional<WriteChoice>(const Hive&, const std::string& path)>& choose) {
    RegHandle handle;
    const auto path = OpenPath(root, key, computer, handle, kTextOpenKey);
    if (!path) return false;

    WriteProblem problem = WriteProblem::None;
    bool settingValue = false;
    const auto outcome = UpdateHive(handle, [&](Hive& hive) {
        const bool keyIsNew = !hive.KeyExists(*path);
        auto choice = choose(hive, *path);
        if (!choice) return false;  // the writer found nothing left to do
        if (!choice->data) {
            problem = WriteProblem::Refused;
        } else if (!IsValueName(choice->name)) {
            problem = WriteProblem::BadName;
        }
        if (problem != WriteProblem::None) {
            if (keyIsNew) hive.CreateKey(*path);
            return keyIsNew;
        }
        StoredKey& stored = hive.CreateKey(*path);
        if (const auto* existing = stored.FindValue(choice->name);
            existing != nullptr && existing->data == *choice->data) {
            return keyIsNew;  // nothing changes: leave the file alone
        }
        settingValue = true;
        stored.SetValue(choice->name, std::move(*choice->data));
        return true;
    });
    CloseRegKey(handle);
    if (outcome.error != result::kSuccess) {
        RecordRegistryError(outcome.error, outcome.writing && settingValue ? kTextWriteData : kTextOpenKey);
        return false;
    }
    switch (problem) {
        case WriteProblem::Refused:
            RecordRegistryError(result::kInvalidData, kTextTypeRefused);
            return false;
        case WriteProblem::BadName:
            RecordRegistryError(result::kInvalidParameter, kTextWriteData);
            return false;
        case WriteProblem::None:
            break;
    }
    return true;
}

std::string TextOf(const StoredValue& value, FileFormat format) {
    const auto readable = Readable(value, format);
    if (!readable) return {};
    if (const auto* number = std::get_if<std::uint32_t>(&*readable)) return std::to_string(*number);
    return std::get<std::string>(*readable);
}

}  // namespace

bool WriteRegValue(Root root, std::string_view key, std::string_view name, const RegData& value,
                   std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextWriteData,
        [&] {
            const auto data = ToStored(value);
            return WriteLocked(root, key, computer, [&](const Hive&, const std::string&) {
                return std::optional<WriteChoice>{WriteChoice{std::string(name), data}};
            });
        },
        kFailed);
}

bool WriteRegValueIf(Root root, std::string_view key, const LockedDecision& decide,
                     std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextWriteData,
        [&] {
            return WriteLocked(root, key, computer,
                               [&](const Hive& hive, const std::string& path) -> std::optional<WriteChoice> {
                                   std::vector<NamedText> values;
                                   if (const auto* stored = hive.FindKey(path)) {
                                       for (const auto& v : stored->values) {
                                           values.push_back(NamedText{v.name, TextOf(v, hive.format)});
                                       }
                                   }
                                   auto decision = decide(values);
                                   if (!decision) return std::nullopt;
                                   return WriteChoice{std::move(decision->name), StoredData{std::move(decision->text)}};
                               });
        },
        kFailed);
}

std::int32_t EnumRegValueNames(Root root, std::string_view key, std::vector<std::string>& names,
                               std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextEnumValues,
        [&]() -> std::int32_t {
            names.clear();
            RegHandle handle;
            const auto path = OpenPath(root, key, computer, handle, kTextOpenKey);
            if (!path) return 0;
            const auto hive = OpenExistingKey(handle, *path, kTextOpenKey);
            CloseRegKey(handle);
            if (!hive) return 0;
            if (const auto* stored = hive->FindKey(*path)) {
                for (const auto& value : stored->values) {
                    auto name = value.name.substr(0, value.name.find('\0'));
                    if (name.size() >= kEnumNameBuffer) {
                        RecordRegistryError(result::kMoreData, kTextEnumValues);
                        break;
                    }
                    names.push_back(std::move(name));
                }
            }
            return static_cast<std::int32_t>(names.size());
        },
        [&] { return static_cast<std::int32_t>(names.size()); });
}

std::int32_t EnumRegKeyNames(Root root, std::string_view key, std::vector<std::string>& names,
                             std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextEnumKeys,
        [&]() -> std::int32_t {
            names.clear();
            RegHandle handle;
            const auto path = OpenPath(root, key, computer, handle, kTextOpenPath);
            if (!path) return 0;
            const auto hive = OpenExistingKey(handle, *path, kTextOpenPath);
            CloseRegKey(handle);
            if (!hive) return 0;
            for (auto& name : hive->SubkeyNames(*path)) {
                if (name.size() >= kEnumNameBuffer) {
                    RecordRegistryError(result::kMoreData, kTextEnumKeys);
                    break;
                }
                names.push_back(std::move(name));
            }
            return static_cast<std::int32_t>(names.size());
        },
        [&] { return static_cast<std::int32_t>(names.size()); });
}

bool DeleteRegKey(Root root, std::string_view key, std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextDeleteKey,
        [&] {
            if (key.empty() || key == "\\") {
                RecordRegistryError(result::kInvalidParameter, kTextDeleteRoot);
                return false;
            }
            if (key.back() == '\\') {
                RecordRegistryError(result::kInvalidParameter, kTextDeleteUnnamed);
                return false;
            }
            if (key.find('\\') == std::string_view::npos) {
                RecordRegistryError(result::kInvalidParameter, kTextDeleteMainKey);
                return false;
            }
            RegHandle handle;
            const auto path = OpenPath(root, key, computer, handle, kTextOpenPath);
            if (!path) return false;
            const std::string parent = path->substr(0, path->rfind('\\'));
            enum class Refusal { None, ParentMissing, KeyMissing, HasSubkeys } refusal = Refusal::None;
            const auto outcome = UpdateHive(handle, [&](Hive& hive) {
                if (!hive.KeyExists(parent)) {
                    refusal = Refusal::ParentMissing;
                } else if (!hive.KeyExists(*path)) {
                    refusal = Refusal::KeyMissing;
                } else if (!hive.SubkeyNames(*path).empty()) {
                    refusal = Refusal::HasSubkeys;
                } else {
                    hive.RemoveKey(*path);
                    return true;
                }
                return false;
            });
            CloseRegKey(handle);
            if (outcome.error != result::kSuccess) {
                RecordRegistryError(outcome.error, outcome.writing ? kTextDeleteKey : kTextOpenPath);
                return false;
            }
            switch (refusal) {
                case Refusal::ParentMissing:
                    RecordRegistryError(result::kFileNotFound, kTextOpenPath);
                    return false;
                case Refusal::KeyMissing:
                    RecordRegistryError(result::kFileNotFound, kTextDeleteKey);
                    return false;
                case Refusal::HasSubkeys:
                    // The platform's own answer when a key to delete still has children.
                    RecordRegistryError(result::kAccessDenied, kTextDeleteSubtree);
                    return false;
                case Refusal::None:
                    break;
            }
            return true;
        },
        kFailed);
}

bool DeleteRegValue(Root root, std::string_view key, std::string_view name, std::string_view computer) noexcept {
    return GuardRegistryCall(
        kTextDeleteValue,
        [&] {
            RegHandle handle;
            const auto path = OpenPath(root, key, computer, handle, kTextOpenPath);
            if (!path) return false;
            enum class Refusal { None, KeyMissing, ValueMissing } refusal = Refusal::None;
            const auto outcome = UpdateHive(handle, [&](Hive& hive) {
                if (!hive.KeyExists(*path)) {
                    refusal = Refusal::KeyMissing;
                    return false;
                }
                auto* stored = hive.FindKey(*path);
                if (stored == nullptr || !stored->RemoveValue(name)) {
                    refusal = Refusal::ValueMissing;
                    return false;
                }
                return true;
            });
            CloseRegKey(handle);
            if (outcome.error != result::kSuccess) {
                RecordRegistryError(outcome.error, outcome.writing ? kTextDeleteValue : kTextOpenPath);
                return false;
            }
            if (refusal == Refusal::KeyMissing) {
                RecordRegistryError(result::kFileNotFound, kTextOpenPath);
                return false;
            }
            if (refusal == Refusal::ValueMissing) {
                RecordRegistryError(result::kFileNotFound, kTextDeleteValue);
                return false;
            }
            return true;
        },
        kFailed);
}

}  // namespace elatectwn4::registry
