// The fields behind an Encoder. Internal: the members of every area reach
// the session through this one structure.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "command/channel.h"
#include "command/error_record.h"
#include "desfire/desfire.h"
#include "elatectwn4/encoder.h"
#include "mifare/mifare.h"

namespace elatectwn4 {

/// How GetAttribText shows an attribute's value.
enum class AttribMode : std::uint32_t {
    Version = 0,  ///< 4-byte little-endian number shown as "a.b.c.d", most significant first
    Text = 1,     ///< NUL-terminated text
    Raw = 3,      ///< the bytes as they stand (a byte string)
};

/// How a public member treats the error record around its work.
enum class RecordRule {
    Clear,      ///< emptied on entry, naming the member; what escapes is recorded (most members)
    Keep,       ///< left as the previous member left it; what escapes is recorded
    Untouched,  ///< never written: reading a field, explaining the record
};

/// What a member answers when its work was cut short by an exception.
template <typename Result>
constexpr Result FailedResult() noexcept {
    if constexpr (std::is_same_v<Result, sceReturnCode>) {
        return sceError;
    } else if constexpr (!std::is_void_v<Result>) {
        return Result{};
    }
}

struct Encoder::Impl {
    explicit Impl(std::shared_ptr<PcscApi> api);

    /// The one edge of every public member: applies `rule` to the record,
    /// runs `work` and turns whatever it throws into the record (naming
    /// `member`) and FailedResult: sceError, "" or nothing. Never throws.
    ///   return impl_->Guard("DESFireFormat", [&] { return desfire::Format(...); });
    template <typename Work>
    std::invoke_result_t<Work&> Guard(const char* member, Work&& work, RecordRule rule = RecordRule::Clear) noexcept {
        try {
            if (rule == RecordRule::Clear) command::ClearError(error, member);
            return work();
        } catch (...) {
            if (rule != RecordRule::Untouched) RecordEscape(member);
            return FailedResult<std::invoke_result_t<Work&>>();
        }
    }

    /// Guard for a card family's member: `work` gets the family's context of
    /// this session, which `makeContext` (mifareContext, desfireContext) builds.
    ///   return impl_->GuardIn(&Impl::desfireContext, "DESFireFormat", [&](desfire::Context& ctx) { ... });
    template <typename MakeContext, typename Work>
    auto GuardIn(MakeContext makeContext, const char* member, Work&& work,
                 RecordRule rule = RecordRule::Clear) noexcept {
        return Guard(
            member,
            [&] {
                auto ctx = (this->*makeContext)();
                return work(ctx);
            },
            rule);
    }

    std::shared_ptr<PcscApi> pcsc;
    CError error;
    command::Channel channel;

    std::string deviceName;        ///< from the "Device=" entry of Parameters
    bool cardConformance = false;  ///< from the "Conformance=" entry of Parameters
    std::string atrText;           ///< "3B 8F 80 ..."
    sceCardTypes cardType = sceUnhandled;
    std::int32_t serialLength = 0;

    desfire::Session desfire;
    mifare::AccessConditionTable accessConditions;
    // No MIFARE key table is kept: no member ever read or filled the one the
    // object was once described with.

    std::mt19937 random;  ///< GetInformation's instance number only; never for keys

    mifare::Context mifareContext();
    desfire::Context desfireContext();

    /// Takes the entries of a Parameters text that it holds; the others keep
    /// their values, and an open session stays open.
    void ApplyParameters(std::string_view text);
    /// True when Parameters holds "Conformance=card": where the component's
    /// own frame or layout differs from what the cards document, the card
    /// families use the cards' one. False (the component's own) by default.
    bool CardConformance() const noexcept { return cardConformance; }

    // ---- The reader session (session.cpp) --------------------------------

    /// Establishes the context when there is none and connects to the card in
    /// the configured reader. A reader without a card is still an open
    /// encoder (sceSuccess, record 0x90010F06). On any other connection
    /// failure the session is closed again when closeOnFailure is set.
    sceReturnCode OpenComm(bool closeOnFailure);
    /// Drops the DESFire session, the card and the context; never fails.
    void CloseComm() noexcept;
    /// Makes sure a card is connected: checks the card handle, reconnects
    /// when the card went away or there was none. Fails with 0x90010F01 when
    /// the encoder is closed, 0x90010F06 when there is no card, 0x90010F03
    /// for any other connection failure.
    sceReturnCode SelectCardInRange();

    /// Sets the ATR, card type and serial length from an ATR text.
    void IdentifyCardType(std::string_view atr);
    /// Reads attribute `attribute` of the connected card and shows it per
    /// `mode`; nullopt when there is no card or the driver refuses it.
    std::optional<std::string> GetAttribValue(std::uint32_t attribute, AttribMode mode);
    /// `format` with every "%1" replaced by the shown value ("" when unreadable).
    std::string GetAttribText(std::string_view format, std::uint32_t attribute, AttribMode mode);

private:
    /// Records the exception being handled as the run-time error of `member`.
    void RecordEscape(const char* member) noexcept;

    /// Connects to `reader` into the card handle; returns the PC/SC code.
    std::uint32_t Connect(const std::string& reader);
    /// After a successful connection: read the ATR, identify the card, and
    /// handle the reader answer that needs a fresh connection. Returns false
    /// when that fresh connection failed (the record says why and the session
    /// is closed).
    bool AfterConnect(const std::string& comFunction);
    /// The ATR of the connected card as blank-separated hex ("" if unreadable).
    std::string ReadAtrText();
    /// Forgets the card handle (disconnecting it when there is one) and
    /// everything learnt from the card.
    void DropCard() noexcept;
};

/// The card families the component encodes, as Parameters and GetInformation name them.
inline constexpr std::string_view kCapabilities = "Mifare Classic, Mifare Ultralight, Mifare DESFire";

/// The entries of a Parameters text the component reads; nullopt for an
/// entry the text does not hold. Keys are trimmed and compared in lower case,
/// values trimmed; the last entry of a key wins.
struct ParameterEntries {
    std::optional<std::string> device;    ///< "Device": the reader's name
    std::optional<bool> cardConformance;  ///< "Conformance": true for "card" (any case), false for any other value
};
ParameterEntries ParseParameters(std::string_view text);

/// The GetInformation text for a version and an instance number.
std::string InformationText(int major, int minor, int patch, int instance);

/// The ATR of a reader answering in a mode that hides the card: it needs the
/// simple protocol and a fresh connection.
inline constexpr std::string_view kReaderModeAtr = "3B 86 81 11 FE 81 43 69 6E 64 79 30";

/// The dotted form of a version attribute: 4 bytes little-endian, shown most
/// significant first ("1.2.3.4" for 04 03 02 01); "" without bytes.
std::string VersionText(const std::vector<std::uint8_t>& value);

/// PC/SC codes that mean "no card to talk to": the encoder stays open.
bool IsNoCardCode(std::uint32_t code) noexcept;
/// PC/SC codes after which the context is useless (pcscd gone or restarted).
bool IsContextLostCode(std::uint32_t code) noexcept;

}  // namespace elatectwn4
