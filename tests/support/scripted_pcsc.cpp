#include "support/scripted_pcsc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

namespace elatectwn4::test {

namespace {

// Byte values of hex text without blanks; nullopt for a "??" pair; a failure
// (and nothing) for text that is not whole hex bytes.
std::vector<std::optional<std::uint8_t>> Parse(std::string_view hex, bool wildcards) {
    std::string digits;
    for (char c : hex) {
        if (c != ' ') digits.push_back(c);
    }
    std::vector<std::optional<std::uint8_t>> out;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        const char* pair = digits.data() + i;
        unsigned value = 0;
        if (wildcards && digits.compare(i, 2, "??") == 0) {
            out.emplace_back(std::nullopt);
        } else if (std::from_chars(pair, pair + 2, value, 16).ptr == pair + 2) {
            out.emplace_back(static_cast<std::uint8_t>(value));
        } else {
            break;
        }
    }
    if (digits.size() % 2 != 0 || out.size() != digits.size() / 2) {
        ADD_FAILURE() << "not whole hex bytes in script text \"" << hex << "\"";
        return {};
    }
    return out;
}

std::string HexCode(std::uint64_t value) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "0x%llX", static_cast<unsigned long long>(value));
    return buffer;
}

}  // namespace

std::vector<std::uint8_t> Bytes(std::string_view hex) {
    std::vector<std::uint8_t> out;
    for (const auto& byte : Parse(hex, false))
        out.push_back(*byte);
    return out;
}

std::string Hex(std::span<const std::uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out.push_back(' ');
        out.push_back(kDigits[bytes[i] >> 4]);
        out.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return out;
}

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::Reply(std::string_view hex) {
    return Reply(Bytes(hex));
}

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::Reply(std::vector<std::uint8_t> answer) {
    answer_ = std::move(answer);
    code_ = 0;
    return *this;
}

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::Fail(std::uint32_t code) {
    code_ = code;
    return *this;
}

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::ReportLength(std::size_t length) {
    reportedLength_ = length;
    return *this;
}

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::Times(std::size_t count) {
    remaining_ = count;
    return *this;
}

ScriptedPcsc::~ScriptedPcsc() {
    if (script_.empty()) return;
    std::string list;
    for (const auto& exchange : script_)
        list += "\n  " + exchange.patternText_;
    ADD_FAILURE() << script_.size() << " scripted exchange(s) never sent, after " << transmissions_
                  << " transmission(s):" << list;
}

ScriptedPcsc::Exchange& ScriptedPcsc::Expect(std::string_view commandHex) {
    Exchange exchange;
    exchange.pattern_ = Parse(commandHex, true);
    for (const auto& byte : exchange.pattern_) {
        if (!exchange.patternText_.empty()) exchange.patternText_.push_back(' ');
        exchange.patternText_ += byte ? Hex(std::span(&*byte, 1)) : "??";
    }
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(exchange));
    return script_.back();
}

ScriptedPcsc& ScriptedPcsc::Queue(const char* function, Result result) {
    std::lock_guard lock(mutex_);
    queued_[function].push_back(std::move(result));
    return *this;
}

ScriptedPcsc& ScriptedPcsc::WillEstablishContext(std::uint32_t code, PcscHandle context) {
    return Queue("EstablishContext", {.code = code, .handle = context});
}
ScriptedPcsc& ScriptedPcsc::WillReleaseContext(std::uint32_t code) {
    return Queue("ReleaseContext", {.code = code});
}
ScriptedPcsc& ScriptedPcsc::WillListReaders(std::uint32_t code, std::vector<std::string> readers) {
    return Queue("ListReaders", {.code = code, .names = std::move(readers)});
}
ScriptedPcsc& ScriptedPcsc::WillConnect(std::uint32_t code, PcscHandle card, std::uint32_t protocol) {
    return Queue("Connect", {.code = code, .handle = card, .protocol = protocol});
}
ScriptedPcsc& ScriptedPcsc::WillDisconnect(std::uint32_t code) {
    return Queue("Disconnect", {.code = code});
}
ScriptedPcsc& ScriptedPcsc::WillReportStatus(std::uint32_t code, PcscStatus status) {
    return Queue("Status", {.code = code, .status = std::move(status)});
}
ScriptedPcsc& ScriptedPcsc::WillGetAttrib(std::uint32_t code, std::string_view valueHex) {
    return Queue("GetAttrib", {.code = code, .bytes = Bytes(valueHex)});
}

std::size_t ScriptedPcsc::Pending() const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    for (const auto& exchange : script_)
        count += exchange.remaining_;
    return count;
}

std::vector<ScriptedPcsc::Call> ScriptedPcsc::Calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<std::string> ScriptedPcsc::Transmitted() const {
    std::vector<std::string> sent;
    for (const auto& call : Calls()) {
        // The detail ends with the command bytes, after "protocol=N ".
        if (call.function == "Transmit")
            sent.push_back(call.detail.substr(call.detail.find(' ', call.detail.find("protocol=")) + 1));
    }
    return sent;
}

std::vector<std::uint32_t> ScriptedPcsc::AttributesAsked() const {
    std::lock_guard lock(mutex_);
    return attributes_;
}

std::optional<ScriptedPcsc::Result> ScriptedPcsc::Next(std::string function, std::string detail) {
    calls_.push_back({function, std::move(detail)});
    auto& queue = queued_[function];
    if (queue.empty()) return std::nullopt;
    Result result = std::move(queue.front());
    queue.pop_front();
    return result;
}

std::uint32_t ScriptedPcsc::EstablishContext(std::uint32_t scope, PcscHandle& context) {
    std::lock_guard lock(mutex_);
    const auto result = Next("EstablishContext", "scope=" + std::to_string(scope));
    if (!result || result->code == 0) context = result ? result->handle : defaults.context;
    return result ? result->code : 0;
}

std::uint32_t ScriptedPcsc::ReleaseContext(PcscHandle context) {
    std::lock_guard lock(mutex_);
    const auto result = Next("ReleaseContext", "context=" + HexCode(static_cast<std::uint64_t>(context)));
    return result ? result->code : 0;
}

std::uint32_t ScriptedPcsc::ListReaders(PcscHandle context, std::vector<std::string>& readers) {
    std::lock_guard lock(mutex_);
    const auto result = Next("ListReaders", "context=" + HexCode(static_cast<std::uint64_t>(context)));
    readers.clear();
    if (!result || result->code == 0) readers = result ? result->names : defaults.readers;
    return result ? result->code : 0;
}

std::uint32_t ScriptedPcsc::Connect(PcscHandle context, const std::string& reader, std::uint32_t shareMode,
                                    std::uint32_t preferredProtocols, PcscHandle& card, std::uint32_t& activeProtocol) {
    std::lock_guard lock(mutex_);
    const auto result = Next("Connect", "context=" + HexCode(static_cast<std::uint64_t>(context)) + " reader=\"" +
                                            reader + "\" share=" + std::to_string(shareMode) +
                                            " protocols=" + std::to_string(preferredProtocols));
    if (!result || result->code == 0) {
        card = result ? result->handle : defaults.card;
        activeProtocol = result ? result->protocol : defaults.protocol;
    }
    return result ? result->code : 0;
}

std::uint32_t ScriptedPcsc::Disconnect(PcscHandle card, std::uint32_t disposition) {
    std::lock_guard lock(mutex_);
    const auto result = Next("Disconnect", "card=" + HexCode(static_cast<std::uint64_t>(card)) +
                                               " disposition=" + std::to_string(disposition));
    return result ? result->code : 0;
}

std::uint32_t ScriptedPcsc::Status(PcscHandle card, PcscStatus& status) {
    std::lock_guard lock(mutex_);
    const auto result = Next("Status", "card=" + HexCode(static_cast<std::uint64_t>(card)));
    if (result) {
        if (result->code == 0) status = result->status;
        return result->code;
    }
    status = {defaults.readers.empty() ? std::string{} : defaults.readers.front(), defaults.state, defaults.protocol,
              defaults.atr};
    return 0;
}

std::uint32_t ScriptedPcsc::GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) {
    std::lock_guard lock(mutex_);
    attributes_.push_back(attribute);
    if (const auto result = Next(
            "GetAttrib", "card=" + HexCode(static_cast<std::uint64_t>(card)) + " attribute=" + HexCode(attribute))) {
        if (result->code == 0) value = result->bytes;
        return result->code;
    }
    if (const auto it = defaults.attributes.find(attribute); it != defaults.attributes.end()) {
        value = it->second;
        return 0;
    }
    if (attribute != pcsc_const::AttrAtrString) return pcsc_code::UnsupportedFeature;
    value = defaults.atr;
    return 0;
}

std::uint32_t ScriptedPcsc::Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                                     std::span<std::uint8_t> answer, std::size_t& received) {
    std::lock_guard lock(mutex_);
    const std::string sent = Hex(command);
    Next("Transmit",
         "card=" + HexCode(static_cast<std::uint64_t>(card)) + " protocol=" + std::to_string(protocol) + " " + sent);
    const std::size_t number = ++transmissions_;
    const std::size_t capacity = received;
    received = 0;
    if (script_.empty()) {
        ADD_FAILURE() << "transmission #" << number << " after the script ran out:\n  sent     " << sent;
        return kOffScript;
    }

    Exchange& exchange = script_.front();
    const bool matches =
        exchange.pattern_.size() == command.size() &&
        std::equal(command.begin(), command.end(), exchange.pattern_.begin(),
                   [](std::uint8_t byte, const std::optional<std::uint8_t>& want) { return !want || *want == byte; });
    const std::uint32_t code = exchange.code_;
    const std::vector<std::uint8_t> reply = exchange.answer_;
    const auto reported = exchange.reportedLength_;
    if (!matches) {
        ADD_FAILURE() << "transmission #" << number << " differs from the script:\n  expected " << exchange.patternText_
                      << "\n  sent     " << sent
                      << "\n  scripted answer: " << (code != 0 ? "PC/SC failure " + HexCode(code) : Hex(reply));
    }
    if (--exchange.remaining_ == 0) script_.pop_front();
    if (code != 0) return code;

    const std::size_t copied = std::min({reply.size(), capacity, answer.size()});
    std::copy_n(reply.begin(), copied, answer.begin());
    received = reported ? *reported : copied;
    if (!reported && reply.size() > capacity) {
        ADD_FAILURE() << "scripted answer of " << reply.size() << " bytes exceeds the receive buffer of " << capacity;
        return pcsc_code::InsufficientBuffer;
    }
    return 0;
}

}  // namespace elatectwn4::test
