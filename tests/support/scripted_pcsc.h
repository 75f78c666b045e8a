// A PC/SC boundary that plays a script instead of talking to a reader.
//
// Transmissions are checked against a queue of expected exchanges; every
// other SCard call answers from its own queue of scripted results and, once
// that queue is empty, from `defaults`. Every call is recorded.
//
//   auto fake = std::make_shared<elatectwn4::test::ScriptedPcsc>();
//   fake->Expect("FF B0 00 04 00").Reply("00112233445566778899AABBCCDDEEFF 9000");
//   fake->Expect("FF B0 00 05 00").Fail(elatectwn4::pcsc_code::RemovedCard);
//   fake->Expect("AF ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ??").Reply("00 9100");
//   fake->WillConnect(elatectwn4::pcsc_code::NoSmartcard);   // next Connect only
//
// A command that differs from the script, or a transmission after the script
// ran out, is a GoogleTest failure that shows both commands in hex and the
// answer the script held; unconsumed exchanges are reported when the
// fake is destroyed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "elatectwn4/pcsc.h"

namespace elatectwn4::test {

/// Bytes of a hex text; blanks are ignored. Malformed text (odd digit count,
/// non-hex characters) is a test failure and yields no bytes.
std::vector<std::uint8_t> Bytes(std::string_view hex);

/// "FF B0 00 04 00": upper-case hex, one blank between bytes.
std::string Hex(std::span<const std::uint8_t> bytes);

class ScriptedPcsc : public PcscApi {
public:
    /// One expected transmission and what the "card" does about it.
    class Exchange {
    public:
        /// The answer (data then status word), as hex text.
        Exchange& Reply(std::string_view hex);
        Exchange& Reply(std::vector<std::uint8_t> answer);
        /// The transmission fails with a PC/SC code; nothing is received.
        Exchange& Fail(std::uint32_t code);
        /// Reports `length` received bytes whatever the buffer holds (only
        /// min(length, capacity) bytes of the answer are copied), to play a
        /// driver that claims more than it was given room for.
        Exchange& ReportLength(std::size_t length);
        /// The same exchange expected `count` times in a row (default 1).
        Exchange& Times(std::size_t count);

    private:
        friend class ScriptedPcsc;
        std::vector<std::optional<std::uint8_t>> pattern_;  // nullopt = "??", any byte
        std::string patternText_;
        std::vector<std::uint8_t> answer_;
        std::uint32_t code_ = 0;
        std::optional<std::size_t> reportedLength_;
        std::size_t remaining_ = 1;
    };

    /// One recorded call: `function` is the SCard name without the prefix
    /// ("Connect", "Transmit", ...); `detail` its arguments as text, e.g.
    /// "Transmit" / "card=0x2001 protocol=2 FF B0 00 04 00".
    struct Call {
        std::string function;
        std::string detail;
    };

    /// What the non-transmit calls answer when their queue is empty.
    struct Defaults {
        PcscHandle context = 0x1001;
        PcscHandle card = 0x2001;
        std::uint32_t protocol = pcsc_const::ProtocolT1;
        std::vector<std::string> readers{"Virtual PCD 00 00"};
        /// The PC/SC storage-card ATR of a MIFARE Classic 1K.
        std::vector<std::uint8_t> atr = Bytes("3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A");
        std::uint32_t state = 0x34;  ///< SCARD_PRESENT | SCARD_POWERED | SCARD_NEGOTIABLE as pcsc-lite reports it
        /// GetAttrib values; the ATR attribute falls back to `atr`, any other
        /// absent attribute answers pcsc_code::UnsupportedFeature.
        std::map<std::uint32_t, std::vector<std::uint8_t>> attributes;
    };

    ScriptedPcsc() = default;
    ~ScriptedPcsc() override;
    ScriptedPcsc(const ScriptedPcsc&) = delete;
    ScriptedPcsc& operator=(const ScriptedPcsc&) = delete;

    /// Appends an expected command (hex text; "??" matches any byte).
    Exchange& Expect(std::string_view commandHex);

    /// One-shot results of the next call of each function, queued in order.
    ScriptedPcsc& WillEstablishContext(std::uint32_t code, PcscHandle context = 0x1001);
    ScriptedPcsc& WillReleaseContext(std::uint32_t code);
    ScriptedPcsc& WillListReaders(std::uint32_t code, std::vector<std::string> readers = {});
    ScriptedPcsc& WillConnect(std::uint32_t code, PcscHandle card = 0x2001,
                              std::uint32_t protocol = pcsc_const::ProtocolT1);
    ScriptedPcsc& WillDisconnect(std::uint32_t code);
    ScriptedPcsc& WillReportStatus(std::uint32_t code, PcscStatus status = {});
    /// `value` is hex text; it is returned for whichever attribute is asked.
    ScriptedPcsc& WillGetAttrib(std::uint32_t code, std::string_view valueHex = {});

    Defaults defaults;

    /// Exchanges still expected.
    std::size_t Pending() const;

    /// Every call in order; only the transmitted commands.
    std::vector<Call> Calls() const;
    std::vector<std::string> Transmitted() const;
    /// Attributes asked for through GetAttrib, in order.
    std::vector<std::uint32_t> AttributesAsked() const;

    // PcscApi
    std::uint32_t EstablishContext(std::uint32_t scope, PcscHandle& context) override;
    std::uint32_t ReleaseContext(PcscHandle context) override;
    std::uint32_t ListReaders(PcscHandle context, std::vector<std::string>& readers) override;
    std::uint32_t Connect(PcscHandle context, const std::string& reader, std::uint32_t shareMode,
                          std::uint32_t preferredProtocols, PcscHandle& card, std::uint32_t& activeProtocol) override;
    std::uint32_t Disconnect(PcscHandle card, std::uint32_t disposition) override;
    std::uint32_t Status(PcscHandle card, PcscStatus& status) override;
    std::uint32_t GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) override;
    std::uint32_t Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                           std::span<std::uint8_t> answer, std::size_t& received) override;

    /// What a transmission answers when it does not match or the script ran out.
    static constexpr std::uint32_t kOffScript = 0x80100016;  // SCARD_E_NOT_TRANSACTED

private:
    struct Result {
        std::uint32_t code = 0;
        PcscHandle handle = 0;
        std::uint32_t protocol = 0;
        std::vector<std::string> names{};
        std::vector<std::uint8_t> bytes{};
        PcscStatus status{};
    };

    ScriptedPcsc& Queue(const char* function, Result result);
    /// Records the call and takes the next scripted result of its function, if any.
    std::optional<Result> Next(std::string function, std::string detail);

    mutable std::mutex mutex_;
    std::deque<Exchange> script_;
    std::size_t transmissions_ = 0;
    std::map<std::string, std::deque<Result>> queued_;  ///< by function name
    std::vector<Call> calls_;
    std::vector<std::uint32_t> attributes_;
};

}  // namespace elatectwn4::test
