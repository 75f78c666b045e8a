// The line protocol between Encoder::Configure and its dialog program.
//
// The component never links a toolkit: Configure starts the dialog program
// (twn4-configure) as a child whose standard input and output are one end of
// a socket pair, and the two talk in lines of UTF-8 text, each ended by "\n",
// fields separated by one tab. A field never holds a tab, CR or LF (Line()
// turns them into blanks). Every card exchange stays in the host's process:
// the program only shows what the component sends and says what the person
// chose.
//
// The component opens the conversation, in this order:
//   language <fr|en>     French for Language "francais", English otherwise
//   reader <name>        one line per reader PC/SC lists, in its order
//   notice <text>        why no reader could be listed (a PC/SC text); only then
//   current <name>       the reader named in Parameters ("Device=")
//   show                 end of the setup: the configuration dialog opens
//
// While its test dialog is open, the program asks about once a second:
//   test <reader>        the component opens the encoder on that reader and answers
//   probe <state> <atr> <card type> <serial> <message>
//       state      ready (a card answered), nocard (the reader is there, no
//                  card), unavailable (no such reader, or no resource manager)
//       atr        hex bytes separated by blanks; "" without a card
//       card type  the sceCardTypes number in decimal (0 without a card)
//       serial     the card's UID in hex digits; "" when it could not be read
//       message    the component's English text of what went wrong, or ""
//
// The program ends the conversation with one line, then exits:
//   ok <reader>          OK (or Return): the chosen reader; "" when none is chosen
//   cancel               Cancel, Escape or the window closed
//   error <text>         it cannot show the dialog (no display); exits non-zero
//
// The program also exits when its input ends (the component went away). A
// line whose first field one side does not know is ignored by that side.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace elatectwn4::dialog {

// First fields from the component.
inline constexpr std::string_view kLanguage = "language";
inline constexpr std::string_view kReader = "reader";
inline constexpr std::string_view kNotice = "notice";
inline constexpr std::string_view kCurrent = "current";
inline constexpr std::string_view kShow = "show";
inline constexpr std::string_view kProbe = "probe";
// First fields from the program.
inline constexpr std::string_view kTest = "test";
inline constexpr std::string_view kOk = "ok";
inline constexpr std::string_view kCancel = "cancel";
inline constexpr std::string_view kError = "error";

inline constexpr std::string_view kFrench = "fr";
inline constexpr std::string_view kEnglish = "en";

inline constexpr std::string_view kReady = "ready";
inline constexpr std::string_view kNoCard = "nocard";
inline constexpr std::string_view kUnavailable = "unavailable";

/// One line: the fields joined by tabs, ended by "\n"; a tab, CR or LF
/// inside a field becomes a blank.
inline std::string Line(std::initializer_list<std::string_view> fields) {
    std::string line;
    bool first = true;
    for (std::string_view field : fields) {
        if (!first) line += '\t';
        first = false;
        for (char c : field)
            line += (c == '\t' || c == '\r' || c == '\n') ? ' ' : c;
    }
    return line + '\n';
}

/// The fields of a line (its "\n", and a CR before it, already gone or not).
inline std::vector<std::string> Fields(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    std::vector<std::string> fields;
    for (std::size_t start = 0;;) {
        const std::size_t tab = line.find('\t', start);
        fields.emplace_back(line.substr(start, tab - start));
        if (tab == std::string_view::npos) return fields;
        start = tab + 1;
    }
}

/// The next line of a stream that arrives in pieces, without its "\n":
/// taken from `pending`, which `read(buffer, size)` tops up (it returns how
/// many bytes it put there, 0 or less at the end of the stream). A last line
/// without "\n" is still a line; nullopt once nothing is left.
template <typename Read>
std::optional<std::string> NextLine(std::string& pending, Read read) {
    for (;;) {
        if (const std::size_t end = pending.find('\n'); end != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            return line;
        }
        char chunk[512];
        const auto got = read(chunk, sizeof chunk);
        if (got <= 0) {
            if (pending.empty()) return std::nullopt;
            return std::exchange(pending, {});
        }
        pending.append(chunk, static_cast<std::size_t>(got));
    }
}

}  // namespace elatectwn4::dialog
