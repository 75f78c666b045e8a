// The reader session: context, card connection, ATR and card identity.
#include <algorithm>
#include <string>
#include <vector>

#include "cipher/bytes.h"
#include "command/encoder_command.h"
#include "command/error_record.h"
#include "command/pcsc_error_text.h"
#include "command/trace.h"
#include "encoder/encoder_impl.h"
#include "registry/card_types.h"

namespace elatectwn4 {

namespace {

// Stands in when no PC/SC boundary could be had: every call answers as a
// machine without a resource manager would, so the encoder simply never opens.
class UnavailablePcsc final : public PcscApi {
public:
    std::uint32_t EstablishContext(std::uint32_t, PcscHandle&) override { return pcsc_code::NoService; }
    std::uint32_t ReleaseContext(PcscHandle) override { return pcsc_code::NoService; }
    std::uint32_t ListReaders(PcscHandle, std::vector<std::string>&) override { return pcsc_code::NoService; }
    std::uint32_t Connect(PcscHandle, const std::string&, std::uint32_t, std::uint32_t, PcscHandle&,
                          std::uint32_t&) override {
        return pcsc_code::NoService;
    }
    std::uint32_t Disconnect(PcscHandle, std::uint32_t) override { return pcsc_code::NoService; }
    std::uint32_t Status(PcscHandle, PcscStatus&) override { return pcsc_code::NoService; }
    std::uint32_t GetAttrib(PcscHandle, std::uint32_t, std::vector<std::uint8_t>&) override {
        return pcsc_code::NoService;
    }
    std::uint32_t Transmit(PcscHandle, std::uint32_t, std::span<const std::uint8_t>, std::span<std::uint8_t>,
                           std::size_t& received) override {
        received = 0;
        return pcsc_code::NoService;
    }
};

std::string CodeHex(std::uint32_t code) {
    std::string text = "0x";
    for (int shift = 28; shift >= 0; shift -= 4)
        text.push_back(cipher::HexDigit(code >> shift));
    return text;
}

// After the reader switched protocols its slot list is asked afresh: the
// configured reader when it is still listed, otherwise the first one listed
// (a TWN4 may come back under another slot name).
std::string ChooseReader(const std::vector<std::string>& readers, const std::string& configured) {
    if (readers.empty() || std::find(readers.begin(), readers.end(), configured) != readers.end()) return configured;
    return readers.front();
}

}  // namespace

bool IsNoCardCode(std::uint32_t code) noexcept {
    return code == pcsc_code::NoSmartcard || code == pcsc_code::UnknownCard || code == pcsc_code::UnsupportedCard ||
           code == pcsc_code::RemovedCard;
}

bool IsContextLostCode(std::uint32_t code) noexcept {
    // A restarted pcscd no longer knows the handles of the previous one.
    return code == pcsc_code::NoService || code == pcsc_code::ServiceStopped || code == pcsc_code::InvalidHandle;
}

std::string VersionText(const std::vector<std::uint8_t>& value) {
    if (value.empty()) return {};
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < std::min<std::size_t>(value.size(), 4); ++i)
        number |= std::uint32_t{value[i]} << (8 * i);
    return std::to_string(number >> 24) + '.' + std::to_string((number >> 16) & 0xFF) + '.' +
           std::to_string((number >> 8) & 0xFF) + '.' + std::to_string(number & 0xFF);
}

Encoder::Impl::Impl(std::shared_ptr<PcscApi> api) : pcsc(api ? std::move(api) : std::make_shared<UnavailablePcsc>()) {
    channel.pcsc = pcsc.get();
}

mifare::Context Encoder::Impl::mifareContext() {
    return mifare::Context{channel, error, accessConditions, [this] { return SelectCardInRange(); }, CardConformance()};
}

desfire::Context Encoder::Impl::desfireContext() {
    return desfire::Context{channel, error, desfire, CardConformance()};
}

void Encoder::Impl::IdentifyCardType(std::string_view atr) {
    registry::CardIdentity identity = registry::IdentifyCardType(atr);
    atrText = std::move(identity.atr);
    cardType = static_cast<sceCardTypes>(identity.cardType);
    if (identity.serialLength) serialLength = *identity.serialLength;
}

std::optional<std::string> Encoder::Impl::GetAttribValue(std::uint32_t attribute, AttribMode mode) {
    if (channel.card == 0) return std::nullopt;
    std::vector<std::uint8_t> value;
    if (pcsc->GetAttrib(channel.card, attribute, value) != pcsc_code::Success) return std::nullopt;
    switch (mode) {
        case AttribMode::Version:
            return VersionText(value);
        case AttribMode::Text: {
            const auto end = std::find(value.begin(), value.end(), std::uint8_t{0});
            return std::string(value.begin(), end);
        }
        case AttribMode::Raw:
            break;
    }
    return std::string(value.begin(), value.end());
}

std::string Encoder::Impl::GetAttribText(std::string_view format, std::uint32_t attribute, AttribMode mode) {
    const std::string value = GetAttribValue(attribute, mode).value_or(std::string{});
    std::string text(format);
    for (std::size_t at = text.find("%1"); at != std::string::npos; at = text.find("%1", at + value.size())) {
        text.replace(at, 2, value);
    }
    return text;
}

std::string Encoder::Impl::ReadAtrText() {
    std::optional<std::string> raw = GetAttribValue(pcsc_const::AttrAtrString, AttribMode::Raw);
    if (!raw || raw->empty()) {
        // Some drivers (vpcd among them) do not offer the ATR attribute;
        // SCardStatus reports the same bytes.
        PcscStatus status;
        raw.reset();
        if (pcsc->Status(channel.card, status) == pcsc_code::Success) raw.emplace(status.atr.begin(), status.atr.end());
    }
    return raw ? cipher::ToHex(cipher::AsBytes(*raw), ' ') : std::string{};
}

std::uint32_t Encoder::Impl::Connect(const std::string& reader) {
    PcscHandle card = 0;
    std::uint32_t protocol = 0;
    const std::uint32_t code =
        pcsc->Connect(channel.context, reader, pcsc_const::ShareExclusive, pcsc_const::ProtocolT1, card, protocol);
    if (code == pcsc_code::Success) {
        channel.card = card;
        channel.activeProtocol = protocol;
    }
    return code;
}

void Encoder::Impl::DropCard() noexcept {
    try {
        desfire.Reset();
        if (channel.card != 0) pcsc->Disconnect(channel.card, pcsc_const::LeaveCard);
        channel.card = 0;
        IdentifyCardType("");
    } catch (...) {
        channel.card = 0;
    }
}

bool Encoder::Impl::AfterConnect(const std::string& comFunction) {
    const std::string atr = ReadAtrText();
    IdentifyCardType(atr);
    if (atr != kReaderModeAtr) return true;

    // The TWN4 answers with this ATR of its own while it runs a protocol that
    // hides the card behind it. SetSimpleProtocol switches it to the simple
    // protocol, in which the card itself is exposed; the reader then shows up
    // again, with the card's own ATR, on a fresh connection.
    // Whether the switch took is told by the reconnection below.
    command::EncoderCommand(channel, command::cmd::SetSimpleProtocol);

    command::Trace("Disconnecting card");
    pcsc->Disconnect(channel.card, pcsc_const::LeaveCard);
    channel.card = 0;

    command::Trace("Enumarating slots");
    std::vector<std::string> readers;
    if (pcsc->ListReaders(channel.context, readers) != pcsc_code::Success) readers.clear();
    const std::string reader = ChooseReader(readers, deviceName);
    command::Trace(std::to_string(readers.size()) + " slots found, using \"" + reader + "\"");

    const std::uint32_t code = Connect(reader);
    if (code != pcsc_code::Success) {
        const std::string text = command::PCSCErrorText(code);
        command::Trace("Error " + CodeHex(code) + ": " + text);
        CloseComm();
        command::Fail(error, ErrorNumber::CannotOpenReader, comFunction, "SCardConnect", text, code);
        return false;
    }
    command::Trace("Connection successful");
    IdentifyCardType(ReadAtrText());
    command::Trace("New ATR is " + atrText);
    return true;
}

sceReturnCode Encoder::Impl::OpenComm(bool closeOnFailure) {
    static const std::string kName = "OpenEncoder";
    command::ClearError(error, kName);
    IdentifyCardType("");

    const auto establish = [&] {
        PcscHandle context = 0;
        const std::uint32_t code = pcsc->EstablishContext(pcsc_const::ScopeSystem, context);
        if (code != pcsc_code::Success) {
            CloseComm();
            command::Fail(error, ErrorNumber::CannotOpenContext, kName, "SCardEstablishContext",
                          command::PCSCErrorText(code), code);
            return false;
        }
        channel.context = context;
        return true;
    };
    const bool earlierContext = channel.context != 0;
    if (!earlierContext && !establish()) return sceError;

    // Opening again while connected: the exclusive connection must be handed
    // back first, or the reader would refuse the new one as a sharing violation.
    if (channel.card != 0) DropCard();

    std::uint32_t code = Connect(deviceName);
    if (earlierContext && IsContextLostCode(code)) {
        // The resource manager was restarted since the context was made and
        // no longer knows it: the host opens again, so open on a new one.
        CloseComm();
        if (!establish()) return sceError;
        code = Connect(deviceName);
    }
    if (code == pcsc_code::Success) return AfterConnect(kName) ? sceSuccess : sceError;

    const std::string text = command::PCSCErrorText(code);
    if (IsNoCardCode(code)) {
        // An empty reader is an open encoder; the record only tells the host.
        command::Fail(error, ErrorNumber::NoCard, kName, "SCardConnect", text, code);
        return sceSuccess;
    }
    if (closeOnFailure || IsContextLostCode(code)) CloseComm();
    command::Fail(error, ErrorNumber::CannotOpenReader, kName, "SCardConnect", text, code);
    return closeOnFailure ? sceError : sceSuccess;
}

void Encoder::Impl::CloseComm() noexcept {
    try {
        desfire.Reset();
        if (channel.card != 0) pcsc->Disconnect(channel.card, pcsc_const::LeaveCard);
        IdentifyCardType("");
    } catch (...) {
    }
    channel.card = 0;
    if (channel.context != 0) pcsc->ReleaseContext(channel.context);
    channel.context = 0;
}

sceReturnCode Encoder::Impl::SelectCardInRange() {
    static const std::string kName = "SelectCardInRange";
    if (channel.context == 0) {
        command::Fail(error, ErrorNumber::EncoderClosed, kName);
        return sceError;
    }
    if (channel.card != 0) {
        PcscStatus status;
        if (pcsc->Status(channel.card, status) == pcsc_code::Success) return sceSuccess;
        // The card left (or was reset, or pcscd went away): whatever it was,
        // this handle is spent. A card now in the field is a new card.
        DropCard();
    }

    const std::uint32_t code = Connect(deviceName);
    if (code == pcsc_code::Success) return AfterConnect(kName) ? sceSuccess : sceError;

    const std::string text = command::PCSCErrorText(code);
    if (IsNoCardCode(code)) {
        command::Fail(error, ErrorNumber::NoCard, kName, "SCardConnect", text, code);
        return sceError;
    }
    if (IsContextLostCode(code)) CloseComm();  // the next OpenEncoder starts afresh
    command::Fail(error, ErrorNumber::CannotOpenReader, kName, "SCardConnect", text, code);
    return sceError;
}

}  // namespace elatectwn4
