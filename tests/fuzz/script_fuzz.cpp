// The twn4 script parser: any text gives calls or a usage error (never
// another exception), each call fits its member, messages stay short, and a
// line's words, quoted again, split back to themselves.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/script.h"
#include "fuzz_support.h"

namespace {

using namespace elatectwn4;
using elatectwn4::fuzz::Check;

std::string Quoted(const std::string& word) {
    std::string out = "\"";
    for (char c : word) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

// A message names the line and the member's signature at most; the caller's
// own text is cut.
constexpr std::size_t kLongestMessage = 600;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        for (const cli::Call& call : cli::ParseScript(text)) {
            Check(call.where.starts_with("line "), "a call knows its line");
            if (call.member == nullptr) continue;
            Check(call.args.size() <= call.member->params.size(), "a call has no more arguments than its member");
        }
    } catch (const cli::UsageError& e) {
        Check(std::string_view(e.what()).size() < kLongestMessage, "a usage message stays short");
    }

    const std::string_view line = text.substr(0, text.find('\n'));
    try {
        const std::vector<std::string> words = cli::SplitLine(line);
        std::string again;
        for (const auto& word : words)
            again += (again.empty() ? "" : " ") + Quoted(word);
        Check(cli::SplitLine(again) == words, "quoted words split back to themselves");
    } catch (const cli::UsageError&) {
        // an unterminated quote
    }
    return 0;
}
