// The registry store's file format: the text that regedit exports and
// imports ("Windows Registry Editor Version 5.00" or "REGEDIT4", then
// [HKEY_...\path] sections of "name"=data lines). One file holds one root.
//
// Parsing is tolerant of what real exports contain (UTF-8 or UTF-16LE with
// BOM, CRLF or LF, ";" comments, @= default values, hex: values split over
// lines, duplicate sections, [-key] and "name"=- deletions) and strict about
// everything else: a file that cannot be read exactly is reported as damaged
// so that nobody rewrites it with less than it holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "registry/types.h"

namespace elatectwn4::registry {

/// Value types as the registry numbers them (the n of "hex(n):").
inline constexpr std::uint32_t kTypeNone = 0;
inline constexpr std::uint32_t kTypeText = 1;
inline constexpr std::uint32_t kTypeExpandText = 2;
inline constexpr std::uint32_t kTypeBinary = 3;
inline constexpr std::uint32_t kTypeNumber = 4;
inline constexpr std::uint32_t kTypeBigEndianNumber = 5;
inline constexpr std::uint32_t kTypeMultiText = 7;

/// A value kept as bytes: "hex:" (binary) or "hex(n):" with its type.
struct RawData {
    std::uint32_t type = kTypeBinary;
    std::vector<std::uint8_t> bytes;
    bool operator==(const RawData&) const = default;
};

/// What a value holds: text, a 32-bit number ("dword:") or raw bytes.
using StoredData = std::variant<std::string, std::uint32_t, RawData>;

struct StoredValue {
    std::string name;  ///< "" is the key's default value (@)
    StoredData data;
    std::vector<std::string> comments;  ///< ";" lines just above it, kept on rewrite
    bool operator==(const StoredValue&) const = default;
};

struct StoredKey {
    std::string path;  ///< below the root, components joined by '\'; "" is the root itself
    std::vector<StoredValue> values;
    std::vector<std::string> comments;
    bool operator==(const StoredKey&) const = default;

    StoredValue* FindValue(std::string_view name);
    const StoredValue* FindValue(std::string_view name) const;
    /// Replaces the data of an existing value (keeping its place) or appends one.
    void SetValue(std::string_view name, StoredData data);
    /// @return false when there was no such value.
    bool RemoveValue(std::string_view name);
};

/// The header line, which also decides how hex(1)/hex(2)/hex(7) text is
/// encoded: UTF-16LE after the version 5 header, single bytes after REGEDIT4.
enum class FileFormat { Version5, Version4 };

/// The contents of one root's file.
struct Hive {
    FileFormat format = FileFormat::Version5;
    bool crlf = false;  ///< line ends to write back, as the file had them
    std::vector<StoredKey> keys;
    std::vector<std::string> trailingComments;
    bool operator==(const Hive&) const = default;

    /// The key's own section, if the file has one.
    StoredKey* FindKey(std::string_view path);
    const StoredKey* FindKey(std::string_view path) const;
    /// A key exists when it has a section, is an ancestor of one, or is the root.
    bool KeyExists(std::string_view path) const;
    /// The key's section, created (with sections for missing ancestors) if needed.
    StoredKey& CreateKey(std::string_view path);
    /// Names of the direct subkeys, in order of first appearance.
    std::vector<std::string> SubkeyNames(std::string_view path) const;
    /// Removes the key's section, keeping its parent's existence explicit.
    void RemoveKey(std::string_view path);
    /// Removes the key and everything below it.
    void RemoveTree(std::string_view path);
};

/// A parsed file, or the 1-based line where it stopped making sense.
struct ParseResult {
    std::optional<Hive> hive;
    std::size_t badLine = 0;
};

/// Parses a file's bytes; sections must name `rootName` (or its short form,
/// such as HKLM). An empty or blank file is an empty hive.
ParseResult ParseHive(std::string_view bytes, std::string_view rootName);

/// The file text for `hive`, in UTF-8. ParseHive reads it back to an equal hive
/// (except that text containing line breaks comes back as hex(1) raw data).
std::string SerializeHive(const Hive& hive, std::string_view rootName);

/// The text of a hex(1), hex(2) or hex(7) value, cut at the first NUL.
std::string DecodeRawText(const RawData& data, FileFormat format);

/// Text as hex(1) bytes, NUL-terminated, in the file's encoding. Bytes that
/// are not UTF-8 survive the trip through UTF-16 and back unchanged.
RawData EncodeRawText(std::string_view text, FileFormat format);

/// A key path's components; "" (and "\") is the root. nullopt when a component
/// is empty (leading or doubled '\'), longer than the platform allows, or
/// holds a line break or NUL, which no file line can hold.
std::optional<std::vector<std::string>> SplitKeyPath(std::string_view path);

/// True for a value name a file can hold: not too long, no line break, no NUL.
bool IsValueName(std::string_view name);

}  // namespace elatectwn4::registry
