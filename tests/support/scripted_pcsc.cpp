#include "support/scripted_pcsc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace elatectwn4::test {

namespace {

int Nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Digits without blanks; "??" pairs kept as they are.
std::string Compact(std::string_view hex) {
    std::string out;
    for (char c : hex) {
        if (c != ' ') out.push_back(c);
    }
    return out;
}

std::string HexCode(std::uint64_t value) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "0x%llX", static_cast<unsigned long long>(value));
    return buffer;
}

struct StatusReading {
    std::uint16_t sw;
    std::string_view meaning;
};

// Enough to make a failed expectation explain itself; not a full table.
constexpr std::array kStatusReadings{
    StatusReading{0x9000, "success"},
    StatusReading{0x9100, "DESFire success"},
    StatusReading{0x91AF, "DESFire: more frames"},
    StatusReading{0x91AE, "DESFire: authentication error"},
    StatusReading{0x919D, "DESFire: permission denied"},
    StatusReading{0x91A0, "DESFire: application not found"},
    StatusReading{0x91F0, "DESFire: file not found"},
    StatusReading{0x91BE, "DESFire: boundary error"},
    StatusReading{0x917E, "DESFire: length error"},
    StatusReading{0x911E, "DESFire: integrity error"},
    StatusReading{0x6300, "authentication failed"},
    StatusReading{0x6700, "wrong length"},
    StatusReading{0x6982, "security status not satisfied"},
    StatusReading{0x6A81, "function not supported"},
    StatusReading{0x6A82, "file or block not found"},
    StatusReading{0x6B00, "wrong P1-P2"},
    StatusReading{0x6D00, "instruction not supported"},
    StatusReading{0x6E00, "class not supported"},
};

}  // namespace

std::vector<std::uint8_t> Bytes(std::string_view hex) {
    const std::string digits = Compact(hex);
    std::vector<std::uint8_t> out;
    if (digits.size() % 2 != 0) {
        ADD_FAILURE() << "odd number of hex digits in script text \"" << hex << "\"";
        return out;
    }
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const int high = Nibble(digits[i]);
        const int low = Nibble(digits[i + 1]);
        if (high < 0 || low < 0) {
            ADD_FAILURE() << "not hex in script text \"" << hex << "\"";
            return {};
        }
        out.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
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

std::string DescribeAnswer(std::span<const std::uint8_t> answer) {
    if (answer.size() < 2) return answer.empty() ? "no answer" : "one byte " + Hex(answer);
    const auto sw = static_cast<std::uint16_t>(answer[answer.size() - 2] << 8 | answer[answer.size() - 1]);
    std::string text = "status " + Hex(answer.subspan(answer.size() - 2));
    for (const auto& reading : kStatusReadings) {
        if (reading.sw == sw) return text + " (" + std::string(reading.meaning) + ")";
    }
    return text;
}

// ---- Exchange ----------------------------------------------------------------

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::Reply(std::string_view hex) {
    return Reply(Bytes(hex));
}

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::Reply(std::vector<std::uint8_t> answer) {
    answer_ = std::move(answer);
    responder_ = nullptr;
    code_ = 0;
    return *this;
}

ScriptedPcsc::Exchange& ScriptedPcsc::Exchange::ReplyWith(Responder responder) {
    responder_ = std::move(responder);
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

// ---- ScriptedPcsc --------------------------------------------------------------

ScriptedPcsc::~ScriptedPcsc() {
    if (allowUnconsumed_ || script_.empty()) return;
    std::string list;
    for (const auto& exchange : script_)
        list += "\n  " + exchange.patternText_;
    ADD_FAILURE() << script_.size() << " scripted exchange(s) never sent, after " << transmissions_
                  << " transmission(s):" << list;
}

ScriptedPcsc::Exchange& ScriptedPcsc::Expect(std::string_view commandHex) {
    Exchange exchange;
    const std::string digits = Compact(commandHex);
    if (digits.size() % 2 != 0)
        ADD_FAILURE() << "odd number of hex digits in expected command \"" << commandHex << "\"";
    std::string text;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        if (!text.empty()) text.push_back(' ');
        if (digits[i] == '?' && digits[i + 1] == '?') {
            exchange.pattern_.emplace_back(std::nullopt);
            text += "??";
            continue;
        }
        const int high = Nibble(digits[i]);
        const int low = Nibble(digits[i + 1]);
        if (high < 0 || low < 0) ADD_FAILURE() << "not hex in expected command \"" << commandHex << "\"";
        const auto value = static_cast<std::uint8_t>(std::max(high, 0) * 16 + std::max(low, 0));
        exchange.pattern_.emplace_back(value);
        text += Hex(std::span(&value, 1));
    }
    exchange.patternText_ = std::move(text);
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(exchange));
    return script_.back();
}

ScriptedPcsc& ScriptedPcsc::WillEstablishContext(std::uint32_t code, PcscHandle context) {
    std::lock_guard lock(mutex_);
    establish_.push_back({.code = code, .handle = context});
    return *this;
}

ScriptedPcsc& ScriptedPcsc::WillReleaseContext(std::uint32_t code) {
    std::lock_guard lock(mutex_);
    release_.push_back({.code = code});
    return *this;
}

ScriptedPcsc& ScriptedPcsc::WillListReaders(std::uint32_t code, std::vector<std::string> readers) {
    std::lock_guard lock(mutex_);
    list_.push_back({.code = code, .names = std::move(readers)});
    return *this;
}

ScriptedPcsc& ScriptedPcsc::WillConnect(std::uint32_t code, PcscHandle card, std::uint32_t protocol) {
    std::lock_guard lock(mutex_);
    connect_.push_back({.code = code, .handle = card, .protocol = protocol});
    return *this;
}

ScriptedPcsc& ScriptedPcsc::WillDisconnect(std::uint32_t code) {
    std::lock_guard lock(mutex_);
    disconnect_.push_back({.code = code});
    return *this;
}

ScriptedPcsc& ScriptedPcsc::WillReportStatus(std::uint32_t code, PcscStatus status) {
    std::lock_guard lock(mutex_);
    status_.push_back({.code = code, .status = std::move(status)});
    return *this;
}

ScriptedPcsc& ScriptedPcsc::WillGetAttrib(std::uint32_t code, std::string_view valueHex) {
    auto value = Bytes(valueHex);
    std::lock_guard lock(mutex_);
    attrib_.push_back({.code = code, .bytes = std::move(value)});
    return *this;
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

std::vector<std::string> ScriptedPcsc::CallNames() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& call : calls_)
        names.push_back(call.function);
    return names;
}

std::vector<std::string> ScriptedPcsc::Transmitted() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> sent;
    for (const auto& call : calls_) {
        if (call.function != "Transmit") continue;
        // The detail ends with the command bytes, after "protocol=N ".
        const auto at = call.detail.find(' ', call.detail.find("protocol="));
        sent.push_back(at == std::string::npos ? std::string{} : call.detail.substr(at + 1));
    }
    return sent;
}

std::vector<std::uint32_t> ScriptedPcsc::AttributesAsked() const {
    std::lock_guard lock(mutex_);
    return attributes_;
}

std::optional<ScriptedPcsc::Result> ScriptedPcsc::Next(std::deque<Result>& queue) {
    if (queue.empty()) return std::nullopt;
    Result result = std::move(queue.front());
    queue.pop_front();
    return result;
}

void ScriptedPcsc::Record(std::string function, std::string detail) {
    calls_.push_back({std::move(function), std::move(detail)});
}

std::uint32_t ScriptedPcsc::EstablishContext(std::uint32_t scope, PcscHandle& context) {
    std::lock_guard lock(mutex_);
    Record("EstablishContext", "scope=" + std::to_string(scope));
    const auto result = Next(establish_);
    const std::uint32_t code = result ? result->code : 0;
    if (code == 0) context = result ? result->handle : defaults.context;
    return code;
}

std::uint32_t ScriptedPcsc::ReleaseContext(PcscHandle context) {
    std::lock_guard lock(mutex_);
    Record("ReleaseContext", "context=" + HexCode(static_cast<std::uint64_t>(context)));
    const auto result = Next(release_);
    return result ? result->code : 0;
}

std::uint32_t ScriptedPcsc::ListReaders(PcscHandle context, std::vector<std::string>& readers) {
    std::lock_guard lock(mutex_);
    Record("ListReaders", "context=" + HexCode(static_cast<std::uint64_t>(context)));
    const auto result = Next(list_);
    const std::uint32_t code = result ? result->code : 0;
    readers.clear();
    if (code == 0) readers = result ? result->names : defaults.readers;
    return code;
}

std::uint32_t ScriptedPcsc::Connect(PcscHandle context, const std::string& reader, std::uint32_t shareMode,
                                    std::uint32_t preferredProtocols, PcscHandle& card, std::uint32_t& activeProtocol) {
    std::lock_guard lock(mutex_);
    Record("Connect", "context=" + HexCode(static_cast<std::uint64_t>(context)) + " reader=\"" + reader +
                          "\" share=" + std::to_string(shareMode) + " protocols=" + std::to_string(preferredProtocols));
    const auto result = Next(connect_);
    const std::uint32_t code = result ? result->code : 0;
    if (code == 0) {
        card = result ? result->handle : defaults.card;
        activeProtocol = result ? result->protocol : defaults.protocol;
    }
    return code;
}

std::uint32_t ScriptedPcsc::Disconnect(PcscHandle card, std::uint32_t disposition) {
    std::lock_guard lock(mutex_);
    Record("Disconnect",
           "card=" + HexCode(static_cast<std::uint64_t>(card)) + " disposition=" + std::to_string(disposition));
    const auto result = Next(disconnect_);
    return result ? result->code : 0;
}

std::uint32_t ScriptedPcsc::Status(PcscHandle card, PcscStatus& status) {
    std::lock_guard lock(mutex_);
    Record("Status", "card=" + HexCode(static_cast<std::uint64_t>(card)));
    const auto result = Next(status_);
    const std::uint32_t code = result ? result->code : 0;
    if (code != 0) return code;
    if (result) {
        status = result->status;
    } else {
        status.readerName = defaults.readers.empty() ? std::string{} : defaults.readers.front();
        status.state = defaults.state;
        status.protocol = defaults.protocol;
        status.atr = defaults.atr;
    }
    return 0;
}

std::uint32_t ScriptedPcsc::GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) {
    std::lock_guard lock(mutex_);
    Record("GetAttrib", "card=" + HexCode(static_cast<std::uint64_t>(card)) + " attribute=" + HexCode(attribute));
    attributes_.push_back(attribute);
    if (const auto result = Next(attrib_)) {
        if (result->code == 0) value = result->bytes;
        return result->code;
    }
    if (const auto it = defaults.attributes.find(attribute); it != defaults.attributes.end()) {
        value = it->second;
        return 0;
    }
    if (attribute == pcsc_const::AttrAtrString) {
        value = defaults.atr;
        return 0;
    }
    return pcsc_code::UnsupportedFeature;
}

std::uint32_t ScriptedPcsc::Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                                     std::span<std::uint8_t> answer, std::size_t& received) {
    std::lock_guard lock(mutex_);
    const std::string sent = Hex(command);
    Record("Transmit",
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

    std::vector<std::uint8_t> reply;
    if (exchange.responder_ && exchange.code_ == 0) {
        reply = exchange.responder_(command);
    } else {
        reply = exchange.answer_;
    }
    const std::uint32_t code = exchange.code_;
    const auto reported = exchange.reportedLength_;
    if (!matches) {
        ADD_FAILURE() << "transmission #" << number << " differs from the script:\n  expected " << exchange.patternText_
                      << "\n  sent     " << sent << "\n  scripted answer: "
                      << (code != 0 ? "PC/SC failure " + HexCode(code) : Hex(reply) + ", " + DescribeAnswer(reply));
    }
    if (--exchange.remaining_ == 0) script_.pop_front();

    if (code != 0) return code;
    const std::size_t copied = std::min(reply.size(), std::min(capacity, answer.size()));
    std::copy_n(reply.begin(), copied, answer.begin());
    received = reported ? *reported : copied;
    if (!reported && reply.size() > capacity) {
        ADD_FAILURE() << "scripted answer of " << reply.size() << " bytes exceeds the receive buffer of " << capacity;
        return pcsc_code::InsufficientBuffer;
    }
    return 0;
}

}  // namespace elatectwn4::test
