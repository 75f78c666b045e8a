// Turning command-line words and script lines into checked member calls.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "elatectwn4/dispatch.h"

namespace elatectwn4::cli {

/// A call that cannot be made as written; the message names where and why.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One member call, arguments already converted to the parameter types and
/// completed with defaults for omitted trailing in/out arguments. A call
/// without a member is a narration line ("echo ...").
struct Call {
    const MemberInfo* member = nullptr;
    std::vector<Variant> args;
    std::string narration;
    std::string where;  ///< "line 3" or "call 2", for messages
};

/// Calls separated by "--" on the command line.
std::vector<Call> ParseWords(const std::vector<std::string>& words);
/// One call per line; "#" comments, "echo TEXT", quoting with "..." or '...'.
std::vector<Call> ParseScript(std::string_view text);
/// Splits one line into words; throws UsageError on an unterminated quote.
std::vector<std::string> SplitLine(std::string_view line);
/// Resolves and checks one call: words[0] is the member, the rest its arguments.
Call MakeCall(const std::vector<std::string>& words, const std::string& where);

bool SameName(std::string_view a, std::string_view b);

}  // namespace elatectwn4::cli
