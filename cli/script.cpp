#include "cli/script.h"

#include <algorithm>
#include <cctype>

namespace elatectwn4::cli {

bool SameName(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
}

namespace {

bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// A property given a value is set (Parameters "Device=..."), else read.
const MemberInfo* Resolve(std::string_view name, bool withValue) {
    if (const auto* m = FindMember("_Encoder", name, MemberKind::Method)) return m;
    if (const auto* m = FindMember("_Encoder", name, MemberKind::PropertyPut); m && withValue) return m;
    return FindMember("_Encoder", name, MemberKind::PropertyGet);
}

// Text as typed on a command line, converted to what the parameter takes.
Variant FromText(const std::string& text, const ParamInfo& p) {
    switch (p.type) {
        case ValueType::String:
            return text;
        case ValueType::Variant: {
            try {
                return ConvertArgument(Variant{text}, ValueType::Long);
            } catch (const DispatchError&) {
                return text;
            }
        }
        default:
            return ConvertArgument(Variant{text}, p.type);
    }
}

std::string Expected(const ParamInfo& p) {
    switch (p.type) {
        case ValueType::Long:
            return "a whole number (Long, -2147483648..2147483647)";
        case ValueType::Byte:
            return "a whole number from 0 to 255 (Byte)";
        case ValueType::Boolean:
            return "true, false, 1 or 0 (Boolean)";
        default:
            return std::string(p.typeName);
    }
}

}  // namespace

Call MakeCall(const std::vector<std::string>& words, const std::string& where) {
    Call call;
    call.where = where;
    if (words.empty()) throw UsageError(where + ": no member named");
    const MemberInfo* m = Resolve(words[0], words.size() > 1);
    if (m == nullptr) {
        throw UsageError(where + ": unknown member \"" + Abbreviated(words[0]) + "\" (twn4 members lists them)");
    }
    call.member = m;
    const std::size_t given = words.size() - 1;
    if (given > m->params.size()) {
        throw UsageError(where + ": " + std::string(m->name) + " takes at most " + std::to_string(m->params.size()) +
                         " argument(s), " + std::to_string(given) + " given; write it as " + Signature(*m));
    }
    for (std::size_t i = 0; i < m->params.size(); ++i) {
        const auto& p = m->params[i];
        if (i < given) {
            try {
                call.args.push_back(FromText(words[i + 1], p));
            } catch (const DispatchError&) {
                throw UsageError(where + ", argument " + std::to_string(i + 1) + " (" + std::string(p.name) +
                                 "): expected " + Expected(p) + ", got \"" + Abbreviated(words[i + 1]) + "\"");
            }
        } else if (p.optional) {
            break;  // the dispatcher knows what an absent optional argument means
        } else if (p.inOut && std::all_of(m->params.begin() + static_cast<long>(i), m->params.end(),
                                          [](const ParamInfo& q) { return q.inOut || q.optional; })) {
            call.args.push_back(DefaultOf(p.type));
        } else {
            throw UsageError(where + ": missing argument " + std::to_string(i + 1) + " (" + std::string(p.name) +
                             " As " + std::string(p.typeName) + "); write it as " + Signature(*m));
        }
    }
    return call;
}

std::vector<std::string> SplitLine(std::string_view line) {
    std::vector<std::string> words;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && IsSpace(line[i]))
            ++i;
        if (i >= line.size()) break;
        std::string word;
        bool quotedWord = false;
        while (i < line.size() && !IsSpace(line[i])) {
            const char c = line[i];
            if (c == '"' || c == '\'') {
                quotedWord = true;
                const char quote = c;
                ++i;
                bool closed = false;
                while (i < line.size()) {
                    if (line[i] == quote) {
                        closed = true;
                        ++i;
                        break;
                    }
                    if (quote == '"' && line[i] == '\\' && i + 1 < line.size()) ++i;
                    word += line[i++];
                }
                if (!closed) throw UsageError(std::string("unterminated ") + quote + " quote");
            } else {
                word += c;
                ++i;
            }
        }
        if (!word.empty() || quotedWord) words.push_back(std::move(word));
    }
    return words;
}

std::vector<Call> ParseWords(const std::vector<std::string>& words) {
    std::vector<Call> calls;
    std::vector<std::string> current;
    auto flush = [&]() {
        if (current.empty()) throw UsageError("call " + std::to_string(calls.size() + 1) + ": no member before \"--\"");
        calls.push_back(MakeCall(current, "call " + std::to_string(calls.size() + 1)));
        current.clear();
    };
    for (const auto& w : words) {
        if (w == "--") {
            flush();
        } else {
            current.push_back(w);
        }
    }
    flush();
    return calls;
}

std::vector<Call> ParseScript(std::string_view text) {
    // Editors on some systems start a UTF-8 file with a byte-order mark; it
    // is no part of the first member's name.
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
    std::vector<Call> calls;
    std::size_t lineNumber = 0;
    while (!text.empty()) {
        const auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        ++lineNumber;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        // Any white space separates words, vertical tab and form feed included,
        // so a line of nothing else is blank.
        const auto first = std::find_if(line.begin(), line.end(), [](char c) { return !IsSpace(c); });
        if (first == line.end() || *first == '#') continue;
        line.remove_prefix(static_cast<std::size_t>(first - line.begin()));
        const std::string where = "line " + std::to_string(lineNumber);
        if (line == "echo" || line.starts_with("echo ") || line.starts_with("echo\t")) {
            Call narration;
            narration.where = where;
            narration.narration = std::string(line.size() > 5 ? line.substr(5) : std::string_view());
            calls.push_back(std::move(narration));
            continue;
        }
        std::vector<std::string> words;
        try {
            words = SplitLine(line);
        } catch (const UsageError& e) {
            throw UsageError(where + ": " + e.what());
        }
        calls.push_back(MakeCall(words, where));
    }
    return calls;
}

}  // namespace elatectwn4::cli
