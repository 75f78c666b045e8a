#include "registry/reg_file.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace elatectwn4::registry {
namespace {

constexpr std::string_view kHeaderVersion5 = "Windows Registry Editor Version 5.00";
constexpr std::string_view kHeaderVersion4 = "REGEDIT4";

// Limits of the platform's registry; a file beyond them did not come from it.
constexpr std::size_t kMaxKeyNameLength = 255;
constexpr std::size_t kMaxValueNameLength = 16383;

bool IsOneLine(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

// regedit wraps long hex data; this many bytes per line keeps lines short.
constexpr std::size_t kHexBytesPerLine = 24;

// Code units standing for a byte that was not UTF-8 (one per byte, as
// Python's "surrogateescape" does), so that any byte string survives UTF-16.
constexpr char16_t kEscapeBase = 0xDC00;
constexpr char16_t kEscapeFirst = 0xDC80;
constexpr char16_t kEscapeLast = 0xDCFF;

constexpr std::string_view kBlanks = " \t\r";

std::string_view Trim(std::string_view s) {
    const auto first = s.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(kBlanks);
    return s.substr(first, last - first + 1);
}

bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && EqualsNoCase(s.substr(0, prefix.size()), prefix);
}

std::optional<std::uint32_t> ParseHexNumber(std::string_view digits, std::size_t maxDigits) {
    if (digits.empty() || digits.size() > maxDigits) return std::nullopt;
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (ec != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
    return value;
}

// ---- text encodings -------------------------------------------------------

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

std::string Utf16ToUtf8(const std::vector<char16_t>& units) {
    std::string out;
    out.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        const char16_t u = units[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
            AppendUtf8(out, 0x10000 + ((char32_t{u} - 0xD800) << 10) + (char32_t{units[i + 1]} - 0xDC00));
            ++i;
        } else if (u >= kEscapeFirst && u <= kEscapeLast) {
            out += static_cast<char>(u - kEscapeBase);
        } else {
            AppendUtf8(out, u);  // other lone surrogates pass through as their 3-byte form
        }
    }
    return out;
}

// Decodes one UTF-8 sequence at `s[i]`; nullopt when it is not strict UTF-8
// (overlong, surrogate, out of range or truncated).
std::optional<std::pair<char32_t, std::size_t>> DecodeUtf8At(std::string_view s, std::size_t i) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    if (b0 < 0x80) return std::pair{char32_t{b0}, std::size_t{1}};
    std::size_t length = 0;
    char32_t cp = 0;
    char32_t minimum = 0;
    if ((b0 & 0xE0) == 0xC0) {
        length = 2, cp = b0 & 0x1F, minimum = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        length = 3, cp = b0 & 0x0F, minimum = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        length = 4, cp = b0 & 0x07, minimum = 0x10000;
    } else {
        return std::nullopt;
    }
    if (i + length > s.size()) return std::nullopt;
    for (std::size_t k = 1; k < length; ++k) {
        const auto b = static_cast<unsigned char>(s[i + k]);
        if ((b & 0xC0) != 0x80) return std::nullopt;
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
    return std::pair{cp, length};
}

std::vector<char16_t> Utf8ToUtf16(std::string_view s) {
    std::vector<char16_t> units;
    units.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        if (const auto decoded = DecodeUtf8At(s, i)) {
            const auto [cp, length] = *decoded;
            if (cp >= 0x10000) {
                units.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
                units.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
            } else {
                units.push_back(static_cast<char16_t>(cp));
            }
            i += length;
        } else {
            units.push_back(static_cast<char16_t>(kEscapeBase + static_cast<unsigned char>(s[i])));
            ++i;
        }
    }
    return units;
}

std::vector<char16_t> LittleEndianUnits(std::string_view bytes) {
    std::vector<char16_t> units(bytes.size() / 2);
    for (std::size_t k = 0; k < units.size(); ++k) {
        units[k] = static_cast<char16_t>(static_cast<unsigned char>(bytes[2 * k]) |
                                         (static_cast<unsigned char>(bytes[2 * k + 1]) << 8));
    }
    return units;
}

// ---- key paths --------------------------------------------------------------

bool IsUnder(std::string_view path, std::string_view ancestor) {
    if (ancestor.empty()) return !path.empty();
    return path.size() > ancestor.size() && path[ancestor.size()] == '\\' &&
           EqualsNoCase(path.substr(0, ancestor.size()), ancestor);
}

std::string_view ParentOf(std::string_view path) {
    const auto slash = path.rfind('\\');
    return slash == std::string_view::npos ? std::string_view{} : path.substr(0, slash);
}

std::string_view CanonicalRootName(std::string_view name) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kRoots{{
        {"HKEY_LOCAL_MACHINE", "HKEY_LOCAL_MACHINE"},
        {"HKLM", "HKEY_LOCAL_MACHINE"},
        {"HKEY_CURRENT_USER", "HKEY_CURRENT_USER"},
        {"HKCU", "HKEY_CURRENT_USER"},
        {"HKEY_CLASSES_ROOT", "HKEY_CLASSES_ROOT"},
        {"HKCR", "HKEY_CLASSES_ROOT"},
    }};
    for (const auto& [spelling, canonical] : kRoots) {
        if (EqualsNoCase(name, spelling)) return canonical;
    }
    return {};
}

// ---- line parsing -----------------------------------------------------------

// A quoted name or text starting at s[0] == '"'; returns the unescaped
// content and the index just past the closing quote.
std::optional<std::pair<std::string, std::size_t>> ParseQuoted(std::string_view s) {
    std::string content;
    for (std::size_t i = 1; i < s.size(); ++i) {
        const char c = s[i];
        if (c == '"') return std::pair{std::move(content), i + 1};
        if (c == '\\') {
            if (i + 1 >= s.size() || (s[i + 1] != '\\' && s[i + 1] != '"')) return std::nullopt;
            content += s[++i];
        } else {
            content += c;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> ParseHexBytes(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    text = Trim(text);
    if (text.empty()) return bytes;
    std::size_t start = 0;
    while (start <= text.size()) {
        const auto comma = text.find(',', start);
        const auto token =
            Trim(text.substr(start, comma == std::string_view::npos ? text.size() - start : comma - start));
        if (token.empty()) {
            // Only a comma at the very end (before a line continuation) leaves an empty token.
            if (comma != std::string_view::npos || bytes.empty()) return std::nullopt;
            break;
        }
        const auto byte = ParseHexNumber(token, 2);
        if (!byte) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(*byte));
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    return bytes;
}

class Parser {
public:
    Parser(std::vector<std::string_view> lines, std::string_view rootName)
        : lines_(std::move(lines)), root_(rootName) {}

    ParseResult Run(Hive hive) {
        hive_ = std::move(hive);
        for (line_ = 1; line_ < lines_.size(); ++line_) {
            if (!ParseLine(Trim(lines_[line_]))) return ParseResult{std::nullopt, line_ + 1};
        }
        hive_.trailingComments = std::move(pendingComments_);
        return ParseResult{std::move(hive_), 0};
    }

private:
    bool ParseLine(std::string_view t) {
        if (t.empty()) return true;
        if (t.front() == ';') {
            pendingComments_.emplace_back(t);
            return true;
        }
        if (t.front() == '[') return ParseSection(t);
        if (t.front() == '"' || t.front() == '@') return ParseValue(t);
        return false;
    }

    bool ParseSection(std::string_view t) {
        if (t.size() < 3 || t.back() != ']') return false;
        auto inner = t.substr(1, t.size() - 2);
        const bool deletion = inner.front() == '-';
        if (deletion) inner.remove_prefix(1);
        const auto slash = inner.find('\\');
        const auto rootPart = inner.substr(0, slash);
        if (!EqualsNoCase(CanonicalRootName(rootPart), root_)) return false;
        const auto components =
            SplitKeyPath(slash == std::string_view::npos ? std::string_view{} : inner.substr(slash + 1));
        if (!components) return false;
        std::string path;
        for (const auto& c : *components)
            path += (path.empty() ? "" : "\\") + c;

        afterDeletion_ = deletion;
        if (deletion) {
            hive_.RemoveTree(path);
            current_.reset();
            pendingComments_.clear();
            return true;
        }
        StoredKey* key = hive_.FindKey(path);
        if (key == nullptr) {
            hive_.keys.push_back(StoredKey{path, {}, {}});
            key = &hive_.keys.back();
        }
        key->comments.insert(key->comments.end(), pendingComments_.begin(), pendingComments_.end());
        pendingComments_.clear();
        current_ = static_cast<std::size_t>(key - hive_.keys.data());
        return true;
    }

    bool ParseValue(std::string_view t) {
        std::string name;
        std::size_t pos = 0;
        if (t.front() == '@') {
            pos = 1;
        } else {
            auto quoted = ParseQuoted(t);
            if (!quoted || quoted->first.size() > kMaxValueNameLength) return false;
            name = std::move(quoted->first);
            pos = quoted->second;
        }
        auto rest = Trim(t.substr(pos));
        if (rest.empty() || rest.front() != '=') return false;
        rest = Trim(rest.substr(1));

        std::optional<StoredData> data;
        bool deletion = false;
        if (rest == "-") {
            deletion = true;
        } else if (!rest.empty() && rest.front() == '"') {
            auto quoted = ParseQuoted(rest);
            if (!quoted || !Trim(rest.substr(quoted->second)).empty()) return false;
            data = std::move(quoted->first);
        } else if (StartsWithNoCase(rest, "dword:")) {
            const auto number = ParseHexNumber(rest.substr(6), 8);
            if (!number) return false;
            data = *number;
        } else if (StartsWithNoCase(rest, "hex")) {
            auto raw = ParseHex(rest.substr(3));
            if (!raw) return false;
            data = std::move(*raw);
        } else {
            return false;
        }

        if (!current_) {
            // Lines of a deleted section have no key to go to; regedit skips them
            // too. Before any section they are a sign of a damaged file.
            pendingComments_.clear();
            return afterDeletion_;
        }
        StoredKey& key = hive_.keys[*current_];
        if (deletion) {
            key.RemoveValue(name);
        } else {
            key.SetValue(name, std::move(*data));
            auto* value = key.FindValue(name);
            value->comments.insert(value->comments.end(), pendingComments_.begin(), pendingComments_.end());
        }
        pendingComments_.clear();
        return true;
    }

    // After "hex": either ":" (binary) or "(n):", then bytes, possibly
    // continued over following lines that end in '\'.
    std::optional<RawData> ParseHex(std::string_view rest) {
        RawData raw;
        if (!rest.empty() && rest.front() == '(') {
            const auto close = rest.find(')');
            if (close == std::string_view::npos) return std::nullopt;
            const auto type = ParseHexNumber(rest.substr(1, close - 1), 8);
            if (!type) return std::nullopt;
            raw.type = *type;
            rest.remove_prefix(close + 1);
        }
        if (rest.empty() || rest.front() != ':') return std::nullopt;
        std::string text(Trim(rest.substr(1)));
        while (!text.empty() && text.back() == '\\') {
            text.pop_back();
            if (line_ + 1 >= lines_.size()) return std::nullopt;
            text += Trim(lines_[++line_]);
        }
        auto bytes = ParseHexBytes(text);
        if (!bytes) return std::nullopt;
        raw.bytes = std::move(*bytes);
        return raw;
    }

    std::vector<std::string_view> lines_;
    std::string_view root_;
    Hive hive_;
    std::size_t line_ = 0;
    std::optional<std::size_t> current_;
    std::vector<std::string> pendingComments_;
    bool afterDeletion_ = false;
};

}  // namespace

bool IsValueName(std::string_view name) {
    return name.size() <= kMaxValueNameLength && IsOneLine(name);
}

std::optional<std::vector<std::string>> SplitKeyPath(std::string_view path) {
    std::vector<std::string> components;
    if (!path.empty() && path.back() == '\\') path.remove_suffix(1);  // one trailing '\' is harmless
    if (path.empty()) return components;
    std::size_t start = 0;
    while (true) {
        const auto slash = path.find('\\', start);
        const auto component =
            path.substr(start, slash == std::string_view::npos ? path.size() - start : slash - start);
        // A section line cannot hold a line break, and NUL would end the name early for other tools.
        if (component.empty() || component.size() > kMaxKeyNameLength || !IsOneLine(component)) return std::nullopt;
        components.emplace_back(component);
        if (slash == std::string_view::npos) return components;
        start = slash + 1;
    }
}

// ---- StoredKey / Hive -------------------------------------------------------

StoredValue* StoredKey::FindValue(std::string_view name) {
    auto it =
        std::find_if(values.begin(), values.end(), [&](const StoredValue& v) { return EqualsNoCase(v.name, name); });
    return it == values.end() ? nullptr : &*it;
}

const StoredValue* StoredKey::FindValue(std::string_view name) const {
    return const_cast<StoredKey*>(this)->FindValue(name);
}

void StoredKey::SetValue(std::string_view name, StoredData data) {
    if (auto* existing = FindValue(name)) {
        existing->data = std::move(data);
    } else {
        values.push_back(StoredValue{std::string(name), std::move(data), {}});
    }
}

bool StoredKey::RemoveValue(std::string_view name) {
    const auto before = values.size();
    std::erase_if(values, [&](const StoredValue& v) { return EqualsNoCase(v.name, name); });
    return values.size() != before;
}

StoredKey* Hive::FindKey(std::string_view path) {
    auto it = std::find_if(keys.begin(), keys.end(), [&](const StoredKey& k) { return EqualsNoCase(k.path, path); });
    return it == keys.end() ? nullptr : &*it;
}

const StoredKey* Hive::FindKey(std::string_view path) const {
    return const_cast<Hive*>(this)->FindKey(path);
}

bool Hive::KeyExists(std::string_view path) const {
    if (path.empty()) return true;
    return std::any_of(keys.begin(), keys.end(),
                       [&](const StoredKey& k) { return EqualsNoCase(k.path, path) || IsUnder(k.path, path); });
}

StoredKey& Hive::CreateKey(std::string_view path) {
    if (auto* key = FindKey(path)) return *key;
    // Sections for the ancestors first, as regedit writes them. Components
    // that exist already keep their spelling, so the file does not fill up
    // with the same key written in several cases.
    std::string spelled;
    std::size_t start = 0;
    while (true) {
        const auto end = path.find('\\', start);
        const auto prefix = path.substr(0, end);
        std::string candidate = spelled.empty() ? std::string{} : spelled + "\\";
        candidate += path.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
        if (const auto* existing = FindKey(prefix)) {
            spelled = existing->path;
        } else {
            const auto deeper =
                std::find_if(keys.begin(), keys.end(), [&](const StoredKey& k) { return IsUnder(k.path, prefix); });
            spelled = deeper != keys.end() ? deeper->path.substr(0, prefix.size()) : std::move(candidate);
            keys.push_back(StoredKey{spelled, {}, {}});
        }
        if (end == std::string_view::npos) return keys.back();  // the key itself was missing: just added
        start = end + 1;
    }
}

std::vector<std::string> Hive::SubkeyNames(std::string_view path) const {
    std::vector<std::string> names;
    for (const auto& k : keys) {
        if (!IsUnder(k.path, path)) continue;
        auto rest = std::string_view(k.path).substr(path.empty() ? 0 : path.size() + 1);
        const auto name = rest.substr(0, rest.find('\\'));
        if (std::none_of(names.begin(), names.end(), [&](const std::string& n) { return EqualsNoCase(n, name); })) {
            names.emplace_back(name);
        }
    }
    return names;
}

void Hive::RemoveKey(std::string_view path) {
    auto it = std::find_if(keys.begin(), keys.end(), [&](const StoredKey& k) { return EqualsNoCase(k.path, path); });
    if (it == keys.end()) return;
    const std::string parent(ParentOf(it->path));
    const auto index = it - keys.begin();
    keys.erase(it);
    // The parent existed through this section alone: it must outlive its child.
    if (!KeyExists(parent)) keys.insert(keys.begin() + index, StoredKey{parent, {}, {}});
}

void Hive::RemoveTree(std::string_view path) {
    const auto inTree = [&](const StoredKey& k) { return EqualsNoCase(k.path, path) || IsUnder(k.path, path); };
    const auto first = std::find_if(keys.begin(), keys.end(), inTree);
    if (first == keys.end()) return;
    const std::string parent(ParentOf(first->path).substr(0, ParentOf(path).size()));
    const auto index = first - keys.begin();
    std::erase_if(keys, inTree);
    if (!KeyExists(parent))
        keys.insert(keys.begin() + std::min<std::ptrdiff_t>(index, std::ssize(keys)), StoredKey{parent, {}, {}});
}

// ---- text encodings of raw values ---------------------------------------------

std::string DecodeRawText(const RawData& data, FileFormat format) {
    std::string text;
    if (format == FileFormat::Version5) {
        std::string_view bytes(reinterpret_cast<const char*>(data.bytes.data()), data.bytes.size());
        auto units = LittleEndianUnits(bytes);
        units.erase(std::find(units.begin(), units.end(), u'\0'), units.end());
        text = Utf16ToUtf8(units);
    } else {
        text.assign(data.bytes.begin(), std::find(data.bytes.begin(), data.bytes.end(), std::uint8_t{0}));
    }
    return text;
}

RawData EncodeRawText(std::string_view text, FileFormat format) {
    RawData raw{kTypeText, {}};
    if (format == FileFormat::Version5) {
        for (const char16_t u : Utf8ToUtf16(text)) {
            raw.bytes.push_back(static_cast<std::uint8_t>(u & 0xFF));
            raw.bytes.push_back(static_cast<std::uint8_t>(u >> 8));
        }
        raw.bytes.insert(raw.bytes.end(), {0, 0});
    } else {
        raw.bytes.assign(text.begin(), text.end());
        raw.bytes.push_back(0);
    }
    return raw;
}

// ---- whole files --------------------------------------------------------------

ParseResult ParseHive(std::string_view bytes, std::string_view rootName) {
    std::string decoded;
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        // regedit's own exports are UTF-16LE.
        if (bytes.size() % 2 != 0) return ParseResult{std::nullopt, 1};
        decoded = Utf16ToUtf8(LittleEndianUnits(bytes.substr(2)));
        bytes = decoded;
    } else if (bytes.starts_with("\xEF\xBB\xBF")) {
        bytes.remove_prefix(3);
    }
    if (bytes.find_first_not_of(" \t\r\n") == std::string_view::npos) return ParseResult{Hive{}, 0};

    std::vector<std::string_view> lines;
    bool crlf = false;
    for (std::size_t start = 0; start <= bytes.size();) {
        auto end = bytes.find('\n', start);
        if (end == std::string_view::npos) end = bytes.size();
        auto line = bytes.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
            if (lines.empty()) crlf = true;
        }
        lines.push_back(line);
        start = end + 1;
    }

    Hive hive;
    hive.crlf = crlf;
    const auto header = Trim(lines.front());
    if (header == kHeaderVersion5) {
        hive.format = FileFormat::Version5;
    } else if (header == kHeaderVersion4) {
        hive.format = FileFormat::Version4;
    } else {
        return ParseResult{std::nullopt, 1};
    }
    return Parser(std::move(lines), rootName).Run(std::move(hive));
}

namespace {

void AppendQuoted(std::string& out, std::string_view s) {
    out += '"';
    for (const char c : s) {
        if (c == '\\' || c == '"') out += '\\';
        out += c;
    }
    out += '"';
}

void AppendHex(std::string& out, const RawData& raw, std::string_view eol) {
    static constexpr char kDigits[] = "0123456789abcdef";
    if (raw.type == kTypeBinary) {
        out += "hex:";
    } else {
        std::array<char, 8> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), raw.type, 16).ptr;
        out += "hex(";
        out.append(digits.data(), end);
        out += "):";
    }
    for (std::size_t i = 0; i < raw.bytes.size(); ++i) {
        if (i != 0) {
            out += ',';
            if (i % kHexBytesPerLine == 0) {
                out += '\\';
                out += eol;
                out += "  ";
            }
        }
        out += kDigits[raw.bytes[i] >> 4];
        out += kDigits[raw.bytes[i] & 0x0F];
    }
}

void AppendData(std::string& out, const StoredData& data, FileFormat format, std::string_view eol) {
    if (const auto* text = std::get_if<std::string>(&data)) {
        // A quoted text cannot span lines, and NUL would end it early for other tools.
        if (!IsOneLine(*text)) {
            AppendHex(out, EncodeRawText(*text, format), eol);
        } else {
            AppendQuoted(out, *text);
        }
    } else if (const auto* number = std::get_if<std::uint32_t>(&data)) {
        std::array<char, 8> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), *number, 16).ptr;
        out += "dword:";
        out.append(8 - static_cast<std::size_t>(end - digits.data()), '0');
        out.append(digits.data(), end);
    } else {
        AppendHex(out, std::get<RawData>(data), eol);
    }
}

}  // namespace

std::string SerializeHive(const Hive& hive, std::string_view rootName) {
    const std::string_view eol = hive.crlf ? "\r\n" : "\n";
    std::string out(hive.format == FileFormat::Version5 ? kHeaderVersion5 : kHeaderVersion4);
    out += eol;
    for (const auto& key : hive.keys) {
        out += eol;
        for (const auto& comment : key.comments)
            (out += comment) += eol;
        out += '[';
        out += rootName;
        if (!key.path.empty()) (out += '\\') += key.path;
        out += ']';
        out += eol;
        for (const auto& value : key.values) {
            for (const auto& comment : value.comments)
                (out += comment) += eol;
            if (value.name.empty()) {
                out += '@';
            } else {
                AppendQuoted(out, value.name);
            }
            out += '=';
            AppendData(out, value.data, hive.format, eol);
            out += eol;
        }
    }
    if (!hive.keys.empty()) out += eol;
    for (const auto& comment : hive.trailingComments)
        (out += comment) += eol;
    return out;
}

}  // namespace elatectwn4::registry
