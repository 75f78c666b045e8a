#include "sim/bridge/options.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <optional>
#include <string_view>

namespace elatectwn4::sim::bridge {
namespace {

constexpr std::array<std::string_view, 3> CardKinds{"desfire", "mifare1k", "mifare4k"};

std::optional<std::uint16_t> ParsePort(std::string_view text) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value == 0 || value > 0xFFFF) return std::nullopt;
    return static_cast<std::uint16_t>(value);
}

// Whole milliseconds up to a minute.
std::optional<std::chrono::milliseconds> ParseDelay(std::string_view text) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || text.empty() || value > 60000) return std::nullopt;
    return std::chrono::milliseconds(value);
}

// Accepts "04A1B2C3", "04 A1 B2 C3" and "04:a1:b2:c3".
std::optional<std::vector<std::uint8_t>> ParseUid(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if (c == ' ' || c == ':') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
        digits.push_back(c);
    }
    if (digits.empty() || digits.size() % 2 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        unsigned value = 0;
        std::from_chars(digits.data() + i, digits.data() + i + 2, value, 16);
        bytes.push_back(static_cast<std::uint8_t>(value));
    }
    return bytes;
}

}  // namespace

ParseResult ParseVcardOptions(const std::vector<std::string>& arguments) {
    VcardOptions options;
    bool portGiven = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string name = arguments[i];
        std::optional<std::string> inlineValue;
        if (const auto equals = name.find('='); name.starts_with("--") && equals != std::string::npos) {
            inlineValue = name.substr(equals + 1);
            name.resize(equals);
        }
        const auto value = [&]() -> std::optional<std::string> {
            if (inlineValue) return inlineValue;
            if (i + 1 < arguments.size()) return arguments[++i];
            return std::nullopt;
        };
        const auto flag = [&](bool& target) -> std::optional<std::string> {
            if (inlineValue) return name + " takes no value";
            target = true;
            return std::nullopt;
        };

        std::optional<std::string> problem;
        if (name == "--help" || name == "-h") {
            problem = flag(options.help);
        } else if (name == "--list-readers") {
            problem = flag(options.listReaders);
        } else if (name == "--removed") {
            problem = flag(options.startRemoved);
        } else if (name == "--port" || name == "--host" || name == "--card" || name == "--state" || name == "--uid" ||
                   name == "--control" || name == "--delay") {
            const auto text = value();
            if (!text) return name + " needs a value";
            if (name == "--port") {
                const auto port = ParsePort(*text);
                if (!port) return "--port needs a number from 1 to 65535, not \"" + *text + "\"";
                options.port = *port;
                portGiven = true;
            } else if (name == "--host") {
                if (text->empty()) return "--host needs an address";
                options.host = *text;
            } else if (name == "--card") {
                if (std::find(CardKinds.begin(), CardKinds.end(), *text) == CardKinds.end())
                    return "--card must be desfire, mifare1k or mifare4k, not \"" + *text + "\"";
                options.cardKind = *text;
            } else if (name == "--state") {
                if (text->empty()) return "--state needs a file name";
                options.statePath = *text;
            } else if (name == "--delay") {
                const auto delay = ParseDelay(*text);
                if (!delay) return "--delay needs milliseconds from 0 to 60000, not \"" + *text + "\"";
                options.answerDelay = *delay;
            } else if (name == "--uid") {
                const auto uid = ParseUid(*text);
                if (!uid) return "--uid needs an even number of hex digits, not \"" + *text + "\"";
                options.uid = *uid;
            } else {
                if (text->empty()) return "--control needs a socket path";
                options.controlPath = *text;
            }
        } else {
            return "unknown argument \"" + arguments[i] + "\"";
        }
        if (problem) return *problem;
    }

    if (options.help || options.listReaders) return options;
    if (!portGiven) return std::string("--port is required");
    if (options.cardKind.empty()) return std::string("--card is required");
    return options;
}

std::string VcardUsage(const std::string& program) {
    return "usage: " + program +
           " --port N --card desfire|mifare1k|mifare4k [--state FILE] [--uid HEX]\n"
           "       [--control SOCKET] [--host ADDR] [--delay MS] [--removed]\n"
           "       " +
           program +
           " --list-readers\n"
           "\n"
           "Connects a simulated card to the vpcd slot listening on ADDR:N (default\n"
           "127.0.0.1) and answers its APDUs until SIGTERM or SIGINT.\n"
           "  --state FILE     load the card from FILE and keep it there after every change\n"
           "  --uid HEX        the card's UID when FILE does not exist yet\n"
           "  --control SOCKET a Unix socket accepting the lines remove, insert, status, quit\n"
           "  --delay MS       wait MS milliseconds before every answer, as a reader's radio does\n"
           "  --removed        start with the card out of the field\n"
           "SIGUSR1 removes the card, SIGUSR2 puts it back.\n"
           "--list-readers prints the readers the PC/SC service knows, one per line.\n";
}

}  // namespace elatectwn4::sim::bridge
