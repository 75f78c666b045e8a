// The Parameters text hosts write, and the GetInformation text they read.
#include <string>
#include <string_view>
#include <vector>

#include "encoder/encoder_impl.h"

namespace elatectwn4 {

namespace {

// Hosts pad entries with blanks ("DEVICE = Reader 2"); only blanks are
// trimmed, as hosts have always seen it.
std::string_view TrimBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(' ');
    return text.substr(first, last - first + 1);
}

std::vector<std::string_view> SplitEntries(std::string_view text) {
    // One entry per line when the host wrote lines; a ";" is then part of a value.
    const std::string_view separator = text.find("\r\n") != std::string_view::npos ? "\r\n" : ";";
    std::vector<std::string_view> entries;
    std::size_t start = 0;
    for (std::size_t at = text.find(separator); at != std::string_view::npos; at = text.find(separator, start)) {
        entries.push_back(text.substr(start, at - start));
        start = at + separator.size();
    }
    entries.push_back(text.substr(start));
    return entries;
}

// `text` equals the lower-case `word` when upper-case ASCII letters are lowered.
bool IsWord(std::string_view text, std::string_view word) {
    if (text.size() != word.size()) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i] >= 'A' && text[i] <= 'Z' ? static_cast<char>(text[i] - 'A' + 'a') : text[i];
        if (c != word[i]) return false;
    }
    return true;
}

}  // namespace

ParameterEntries ParseParameters(std::string_view text) {
    ParameterEntries entries;
    for (std::string_view entry : SplitEntries(text)) {
        const auto equals = entry.find('=');
        const std::string_view key = TrimBlanks(entry.substr(0, equals));
        const std::string_view value =
            equals == std::string_view::npos ? std::string_view() : TrimBlanks(entry.substr(equals + 1));
        if (IsWord(key, "device")) {
            entries.device = std::string(value);
        } else if (IsWord(key, "conformance")) {
            entries.cardConformance = IsWord(value, "card");
        }
    }
    return entries;
}

void Encoder::Impl::ApplyParameters(std::string_view text) {
    ParameterEntries entries = ParseParameters(text);
    if (entries.device) deviceName = std::move(*entries.device);
    if (entries.cardConformance) cardConformance = *entries.cardConformance;
}

std::string InformationText(int major, int minor, int patch, int instance) {
    return "Pellucid|Elatec TWN4|" + std::to_string(major) + '.' + std::to_string(minor) + '.' + std::to_string(patch) +
           "|1|" + std::to_string(instance) + '|' + std::string(kCapabilities);
}

}  // namespace elatectwn4
