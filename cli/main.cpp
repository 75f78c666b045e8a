// twn4: calls the component's members from a shell, one session per run.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/script.h"
#include "elatectwn4/dispatch.h"
#include "elatectwn4/encoder.h"
#include "elatectwn4/version.h"
#include "sim/simulation/simulation.h"

namespace {

using namespace elatectwn4;
using cli::Call;
using cli::UsageError;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

const char* const kHelp = R"(NAME
    twn4 - read and write contactless cards through a TWN4 reader/encoder

SYNOPSIS
    twn4 [OPTIONS] MEMBER [ARG...] [-- MEMBER [ARG...]]...
    twn4 [OPTIONS] --script FILE
    twn4 [--simulate KIND] readers
    twn4 members [MEMBER]
    twn4 --help | --version

DESCRIPTION
    twn4 names the reader in the encoder's Parameters, opens the encoder once,
    runs the calls in order in that one session (a DESFire authentication
    carries over to the next call) and closes it. Every call is a member of
    the encoder, called by name with its arguments in the member's order
    ("twn4 members" lists them). Trailing in/out and optional arguments may be
    left out. A property given a value is set: Parameters "Conformance=card"
    changes the encoder's entries without leaving the session. Every call is
    checked before the first one runs: a call that cannot be made stops the
    run with exit status 2 and nothing is sent.

OPTIONS
    --reader NAME
        The PC/SC reader to use. Default: the first reader listed.
    --simulate KIND[:STATEFILE]
        Use the built-in simulator instead of PC/SC: a reader named
        "Virtual PCD 00 00" holding a card of KIND: mifare1k, mifare4k or
        desfire. With STATEFILE the card's contents are loaded from that JSON
        file when it exists and saved to it at the end, so they persist
        between runs.
    --script FILE
        Read the calls from FILE (- for standard input), one per line:
        the member's name, then its arguments separated by blanks. Quote an
        argument holding blanks with "..." (backslash escapes \" and \\) or
        '...'. Lines starting with # are comments; a line "echo TEXT" prints
        TEXT (people's output only).
    --json
        One JSON object per call and line:
        {"member": ..., "result": 0|1|2, "resultName": ..., "value": ...,
         "out": {name: value, ...}, "error": {"Number": ..., "Description":
         ..., "LastDllError": ..., "ComFunction": ..., "RdrCommand": ...,
         "RdrRetCode": ...}}
        "value" is present for members that return something other than a
        result code. Byte arrays are arrays of numbers ([4, 161, ...]).
    --stop-on-error
        Do not run the calls after the first that returned sceError.
    --no-open
        Do not open the encoder before the first call (for OpenEncoder,
        EncoderState and the like).
    -h, --help
        This text.
    --version
        The component's version.

ARGUMENTS
    String arguments are taken as written (keys and blocks as hex digits:
    FFFFFFFFFFFF, 00112233445566778899AABBCCDDEEFF). Long and Byte arguments
    are decimal or hexadecimal with &H or 0x in front (0x60, &HFF, -1).
    Boolean arguments are true, false, 1 or 0. An optional Variant (BX) is a
    number when it reads as one, else text.

OUTPUT
    For people: each call's result name (sceSuccess, sceError), its in/out
    values (byte arrays as hex bytes: 04 A1 ...), and on failure the LastError fields with the readable text of
    RdrRetCode when that is a card status word. Members without a result code
    show their value; they count as failed when they leave an error record
    naming themselves.

EXIT STATUS
    0   every call returned sceSuccess
    1   a call returned sceError (the calls after it still run unless
        --stop-on-error), or the encoder could not be opened, or the run
        stopped for another reason (the message says which); the changes
        made before are kept in the state file
    2   usage error: unknown member, missing or surplus argument, text where
        a number is expected, a number out of range, a script line that does
        not parse; nothing was sent to the card
    Names and arguments quoted in messages are cut after 40 bytes.

FILES
    The state file of --simulate and the trace file are created readable
    and writable by their owner only (mode 0600): they hold keys.

ENVIRONMENT
    ELATECTWN4_TRACE         file (or "stderr") that receives the exchange
                             trace; keys are masked, also in raw commands
                             given to Escape
    ELATECTWN4_REGISTRY_DIR  directory of the card-type registry files

EXAMPLES
    twn4 --simulate mifare1k ReadSerialNumber -- ATRString -- CardType
    twn4 --reader "Virtual PCD 00 00" ReadDataBloc 4 FFFFFFFFFFFF 0
    twn4 --simulate mifare1k:card.json WriteDataBloc 4 FFFFFFFFFFFF 0 \
         00112233445566778899AABBCCDDEEFF
    twn4 --json --script personalise.twn4
    twn4 --simulate desfire DESFireSelectRoot 0000000000000000 \
         -- DESFireGetVersion -2 -- DESFireGetApplications
)";

struct Options {
    std::optional<std::string> reader;
    std::optional<std::string> simulateKind;
    std::string stateFile;
    std::optional<std::string> script;
    bool json = false;
    bool stopOnError = false;
    bool open = true;
    std::vector<std::string> words;  // members and arguments given on the command line
};

Options ParseOptions(int argc, char** argv) {
    Options o;
    int i = 1;
    auto value = [&](const char* name) -> std::string {
        if (i + 1 >= argc) throw UsageError(std::string(name) + " needs a value");
        return argv[++i];
    };
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--reader") {
            o.reader = value("--reader");
        } else if (arg == "--simulate") {
            const std::string spec = value("--simulate");
            const auto colon = spec.find(':');
            o.simulateKind = spec.substr(0, colon);
            if (colon != std::string::npos) o.stateFile = spec.substr(colon + 1);
        } else if (arg == "--script") {
            o.script = value("--script");
        } else if (arg == "--json") {
            o.json = true;
        } else if (arg == "--stop-on-error") {
            o.stopOnError = true;
        } else if (arg == "--no-open") {
            o.open = false;
        } else if (arg.starts_with("--") && arg != "--") {
            throw UsageError("unknown option " + Abbreviated(arg) + " (see twn4 --help)");
        } else {
            break;
        }
    }
    for (; i < argc; ++i)
        o.words.emplace_back(argv[i]);
    if (o.reader && o.simulateKind) throw UsageError("--reader and --simulate exclude each other");
    if (o.script && !o.words.empty()) {
        throw UsageError("give the calls either on the command line or with --script, not both");
    }
    return o;
}

std::string ResultName(std::int32_t code) {
    switch (code) {
        case sceSuccess:
            return "sceSuccess";
        case sceCanceled:
            return "sceCanceled";
        case sceError:
            return "sceError";
    }
    return std::to_string(code);
}

// Enumerated values shown with their names, for people.
std::string Named(std::string_view typeName, const Variant& value) {
    const auto* n = std::get_if<std::int32_t>(&value);
    if (n == nullptr) return ToText(value);
    const char* name = nullptr;
    if (typeName == "sceEncoderState") {
        static const char* const states[] = {"sceUnknown", "sceClosed", "sceOpened", "sceReady"};
        if (*n >= 0 && *n <= 3) name = states[*n];
    } else if (typeName == "sceCardTypes") {
        switch (*n) {
            case sceUnhandled:
                name = "sceUnhandled";
                break;
            case sceUnknownType:
                name = "sceUnknownType";
                break;
            case sceMifare1K:
                name = "sceMifare1K";
                break;
            case sceMifare4K:
                name = "sceMifare4K";
                break;
            case sceMifareUltralight:
                name = "sceMifareUltralight";
                break;
            case sceDESFire:
                name = "sceDESFire";
                break;
            case sceRfid125KHz:
                name = "sceRfid125KHz";
                break;
            case scePicoPass2KS:
                name = "scePicoPass2KS";
                break;
        }
    }
    return name ? std::to_string(*n) + " (" + name + ")" : std::to_string(*n);
}

bool IsStatusWord(const std::string& text) {
    if (text.size() != 2 && text.size() != 4) return false;
    return text.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
}

// Byte arrays become arrays of numbers, for scripts; people see them as hex bytes.
nlohmann::json JsonValue(const Variant& value) {
    return std::visit(
        [](const auto& x) -> nlohmann::json {
            if constexpr (std::is_same_v<std::decay_t<decltype(x)>, std::monostate>)
                return nullptr;
            else
                return x;
        },
        value);
}

// Texts a card or a script hands back need not be UTF-8, which JSON requires:
// a byte that is not is shown as U+FFFD rather than ending the run.
std::string Dump(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

class Reporter {
public:
    Reporter(bool json, Encoder& encoder) : json_(json), encoder_(encoder) {}

    void Narrate(const std::string& text) {
        if (!json_) std::cout << text << '\n';
    }

    // Prints one call; returns true when it failed.
    bool Report(const Call& call, const DispatchResult& result, const std::vector<Variant>& args) {
        const MemberInfo& m = *call.member;
        const CError& e = encoder_.LastError();
        const bool hasCode = m.resultTypeName == "sceReturnCode";
        std::int32_t code = sceSuccess;
        if (hasCode) {
            code = std::get<std::int32_t>(result.value);
        } else if (e.Number != 0 && e.ComFunction == m.name) {
            code = sceError;
        }
        if (json_) {
            nlohmann::json line{{"member", std::string(m.name)}, {"result", code}, {"resultName", ResultName(code)}};
            if (!hasCode && m.result != ValueType::Void && m.result != ValueType::Object) {
                line["value"] = JsonValue(result.value);
            }
            nlohmann::json out = nlohmann::json::object();
            for (std::size_t i = 0; i < args.size(); ++i) {
                if (m.params[i].inOut) out[std::string(m.params[i].name)] = JsonValue(args[i]);
            }
            if (result.object != nullptr) out = ErrorJson(*result.object);
            line["out"] = out;
            line["error"] = ErrorJson(e);
            std::cout << Dump(line) << std::endl;
        } else {
            if (hasCode || m.result == ValueType::Void || m.result == ValueType::Object) {
                std::cout << m.name << ": " << ResultName(code) << '\n';
            } else {
                std::cout << m.name << " = " << Indent(Named(m.resultTypeName, result.value)) << '\n';
            }
            for (std::size_t i = 0; i < args.size(); ++i) {
                if (m.params[i].inOut) std::cout << "    " << m.params[i].name << " = " << ToText(args[i]) << '\n';
            }
            if (result.object != nullptr) PrintError(*result.object, "    ");
            if (code == sceError) PrintError(e, "    error: ");
            std::cout.flush();
        }
        return code == sceError;
    }

    void ReportOpenFailure() {
        const CError& e = encoder_.LastError();
        if (json_) {
            nlohmann::json line{{"member", "OpenEncoder"},
                                {"result", sceError},
                                {"resultName", "sceError"},
                                {"out", nlohmann::json::object()},
                                {"error", ErrorJson(e)}};
            std::cout << Dump(line) << std::endl;
        } else {
            std::cout << "OpenEncoder: sceError\n";
            PrintError(e, "    error: ");
        }
    }

private:
    static std::string Indent(std::string text) {
        for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 5)) {
            text.insert(at + 1, "    ");
        }
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
            text.pop_back();
        return text;
    }

    nlohmann::json ErrorJson(const CError& e) {
        return {{"Number", e.Number},           {"Description", e.Description}, {"LastDllError", e.LastDllError},
                {"ComFunction", e.ComFunction}, {"RdrCommand", e.RdrCommand},   {"RdrRetCode", e.RdrRetCode}};
    }

    void PrintError(const CError& e, const std::string& lead) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%08X", static_cast<unsigned>(e.Number));
        const std::string pad(lead.size(), ' ');
        std::cout << lead << "Number       = 0x" << hex << " (" << e.Number << ")\n";
        std::cout << pad << "Description  = " << e.Description << '\n';
        std::cout << pad << "LastDllError = " << e.LastDllError << '\n';
        std::cout << pad << "ComFunction  = " << e.ComFunction << '\n';
        std::cout << pad << "RdrCommand   = " << e.RdrCommand << '\n';
        std::cout << pad << "RdrRetCode   = " << e.RdrRetCode;
        if (IsStatusWord(e.RdrRetCode)) std::cout << "  " << encoder_.GetResponseText(e.RdrRetCode, e.RdrCommand);
        std::cout << '\n';
    }

    bool json_;
    Encoder& encoder_;
};

class Progress {
public:
    explicit Progress(std::size_t total) : total_(total), shown_(total >= 10 && isatty(STDERR_FILENO)) {}
    ~Progress() {
        if (shown_) std::fputs("\r\033[K", stderr);
    }
    void Step(std::size_t done, std::string_view member) {
        if (!shown_) return;
        constexpr int width = 30;
        const int filled = static_cast<int>(done * width / total_);
        std::fprintf(stderr, "\r[%.*s%*s] %zu/%zu %.*s\033[K", filled, "##############################", width - filled,
                     "", done, total_, static_cast<int>(member.size()), member.data());
        std::fflush(stderr);
    }

private:
    std::size_t total_;
    bool shown_;
};

int ListReaders(const Options& o) {
    std::unique_ptr<sim::Simulation> simulation;
    std::shared_ptr<PcscApi> pcsc;
    if (o.simulateKind) {
        simulation = std::make_unique<sim::Simulation>(*o.simulateKind, o.stateFile);
        pcsc = simulation->pcsc();
    } else {
        pcsc = SystemPcsc();
    }
    PcscHandle context = 0;
    std::uint32_t rc = pcsc->EstablishContext(pcsc_const::ScopeSystem, context);
    std::vector<std::string> readers;
    if (rc == pcsc_code::Success) {
        rc = pcsc->ListReaders(context, readers);
        pcsc->ReleaseContext(context);
    }
    if (rc == pcsc_code::NoReadersAvailable) rc = pcsc_code::Success;
    if (rc != pcsc_code::Success) {
        std::cerr << "twn4: cannot list the readers: " << PCSCErrorText(rc) << '\n';
        return kExitFailure;
    }
    if (o.json) {
        std::cout << Dump(nlohmann::json(readers)) << '\n';
    } else {
        for (const auto& r : readers)
            std::cout << r << '\n';
    }
    return kExitOk;
}

int ListMembers(const Options& o) {
    if (o.words.size() > 2) throw UsageError("members takes at most one member name");
    const std::string only = o.words.size() > 1 ? o.words[1] : std::string();
    bool listed = false;
    for (const auto& m : Members()) {
        if (m.interfaceName != "_Encoder") continue;
        if (!only.empty() && !cli::SameName(m.name, only)) continue;
        std::cout << Signature(m) << '\n';
        if (!m.help.empty()) std::cout << "    " << m.help << '\n';
        listed = true;
    }
    if (!listed) throw UsageError("unknown member \"" + Abbreviated(only) + "\" (twn4 members lists them)");
    return kExitOk;
}

std::string FirstReader(PcscApi& pcsc) {
    PcscHandle context = 0;
    std::vector<std::string> readers;
    if (pcsc.EstablishContext(pcsc_const::ScopeSystem, context) == pcsc_code::Success) {
        pcsc.ListReaders(context, readers);
        pcsc.ReleaseContext(context);
    }
    return readers.empty() ? std::string() : readers.front();
}

int RunCalls(const Options& o, const std::shared_ptr<PcscApi>& pcsc, const std::string& reader,
             std::vector<Call>& calls) {
    int status = kExitOk;
    Encoder encoder(pcsc);
    encoder.Parameters("Device=" + reader);
    Reporter reporter(o.json, encoder);
    if (o.open && encoder.OpenEncoder() != sceSuccess) {
        reporter.ReportOpenFailure();
        return kExitFailure;
    }
    std::size_t total = 0;
    for (const auto& c : calls)
        total += c.member != nullptr;
    Progress progress(total);
    std::size_t done = 0;
    for (auto& call : calls) {
        if (call.member == nullptr) {
            reporter.Narrate(call.narration);
            continue;
        }
        progress.Step(done, call.member->name);
        std::vector<Variant> args = call.args;
        DispatchResult result = Invoke(encoder, call.member->name, call.member->kind, args);
        progress.Step(++done, call.member->name);
        if (reporter.Report(call, result, args)) {
            status = kExitFailure;
            if (o.stopOnError) break;
        }
    }
    if (o.open) encoder.CloseEncoder();
    return status;
}

int Run(const Options& o) {
    std::vector<Call> calls;
    if (o.script) {
        std::string text;
        if (*o.script == "-") {
            std::ostringstream all;
            all << std::cin.rdbuf();
            text = all.str();
        } else {
            std::ifstream in(*o.script, std::ios::binary);
            if (!in) throw UsageError("cannot read the script " + *o.script);
            std::ostringstream all;
            all << in.rdbuf();
            text = all.str();
        }
        calls = cli::ParseScript(text);
    } else {
        calls = cli::ParseWords(o.words);
    }
    if (std::none_of(calls.begin(), calls.end(), [](const Call& c) { return c.member != nullptr; })) {
        throw UsageError("no member to call (see twn4 members)");
    }

    std::unique_ptr<sim::Simulation> simulation;
    std::shared_ptr<PcscApi> pcsc;
    std::string reader;
    if (o.simulateKind) {
        try {
            simulation = std::make_unique<sim::Simulation>(*o.simulateKind, o.stateFile);
        } catch (const std::invalid_argument& e) {
            throw UsageError(e.what());
        }
        pcsc = simulation->pcsc();
        reader = sim::kSimulatedReader;
    } else {
        pcsc = SystemPcsc();
        reader = o.reader ? *o.reader : FirstReader(*pcsc);
    }

    // Whatever ends the run, the card keeps every change made before.
    try {
        const int status = RunCalls(o, pcsc, reader, calls);
        if (simulation) simulation->Save();
        return status;
    } catch (...) {
        if (simulation) simulation->Save();
        throw;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
            std::cout << kHelp;
            return kExitOk;
        }
        if (argc >= 2 && std::strcmp(argv[1], "--version") == 0) {
            std::cout << "twn4 " << ELATECTWN4_VERSION_STRING << '\n';
            return kExitOk;
        }
        const Options o = ParseOptions(argc, argv);
        if (!o.words.empty() && o.words[0] == "readers") return ListReaders(o);
        if (!o.words.empty() && o.words[0] == "members") return ListMembers(o);
        if (o.words.empty() && !o.script) throw UsageError("nothing to do (see twn4 --help)");
        return Run(o);
    } catch (const UsageError& e) {
        std::cerr << "twn4: " << e.what() << '\n';
        return kExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "twn4: " << e.what() << '\n';
        return kExitFailure;
    }
}
