// The Encoder's frame: creation and destruction, status properties,
// parameters and information, the session and card-identity operations.
//
// Every public member runs its work through Impl::Guard: whatever escapes from
// below ends in the error record, the host sees a result code, never an exception.
#include <chrono>
#include <random>
#include <string>
#include <utility>

#include "cipher/bytes.h"
#include "cipher/wipe.h"
#include "command/encoder_command.h"
#include "command/error_record.h"
#include "command/pcsc_error_text.h"
#include "command/response_text.h"
#include "elatectwn4/version.h"
#include "encoder/encoder_impl.h"

namespace elatectwn4 {

namespace {

const std::string kDefaultParameters =
    "Encoding capabilities=" + std::string(kCapabilities) + "\r\nDevice=<unknown>\r\nProtocol=1";

std::shared_ptr<PcscApi> SystemOrNothing() noexcept {
    try {
        return SystemPcsc();
    } catch (...) {
        return nullptr;  // the session then reports the resource manager as missing
    }
}

std::uint32_t Seed() noexcept {
    auto seed = static_cast<std::uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    try {
        seed ^= std::random_device{}();
    } catch (...) {
        // The timer alone is enough for an instance number.
    }
    return seed;
}

}  // namespace

Encoder::Encoder() : Encoder(SystemOrNothing()) {}

Encoder::Encoder(std::shared_ptr<PcscApi> pcsc) : impl_(std::make_unique<Impl>(std::move(pcsc))) {
    try {
        Parameters(kDefaultParameters);
        impl_->channel.context = 0;
        impl_->channel.card = 0;
        impl_->IdentifyCardType("");
        impl_->random.seed(Seed());
    } catch (...) {
        // A new encoder is usable even if a step of its set-up failed.
    }
    command::ClearError(impl_->error);
}

Encoder::~Encoder() {
    if (impl_) impl_->CloseComm();
}

// ---- State and error reporting ----------------------------------------------

CError& Encoder::LastError() {
    return impl_->error;  // nothing to guard: the record itself, untouched
}

sceEncoderState Encoder::EncoderState() {
    constexpr const char* kName = "EncoderState";
    Impl& s = *impl_;
    const sceEncoderState state = s.Guard(kName, [&] {
        if (s.channel.context == 0) return sceClosed;
        // Only the definite "no card" answer makes it sceOpened: a reader
        // that answers oddly is still taken as ready.
        const bool noCard = s.SelectCardInRange() != sceSuccess && s.error.Number == ErrorValue(ErrorNumber::NoCard);
        return noCard ? sceOpened : sceReady;
    });
    // Reading the state never leaves an error behind, whatever the probe met.
    s.Guard(kName, [] {});
    if (state != sceUnknown) return state;
    return s.channel.context == 0 ? sceClosed : sceReady;  // the probe was cut short
}

std::string Encoder::ATRString() {
    return impl_->Guard(
        "ATRString", [&] { return impl_->atrText; }, RecordRule::Untouched);
}

sceCardTypes Encoder::CardType() {
    return impl_->Guard("CardType", [&] { return impl_->cardType; });
}

std::int32_t Encoder::SerialNumberLength() {
    return impl_->Guard(
        "SerialNumberLength", [&] { return impl_->serialLength; }, RecordRule::Untouched);
}

// ---- Parameters and information ------------------------------------------------

std::string Encoder::Parameters() {
    return impl_->Guard(
        "Parameters",
        [&] { return "Encoding capabilities=" + std::string(kCapabilities) + "\r\nDevice=" + impl_->deviceName; },
        RecordRule::Untouched);
}

void Encoder::Parameters(const std::string& text) {
    // Only the entries change: an open session stays open on its reader.
    impl_->Guard("Parameters", [&] { impl_->ApplyParameters(text); });
}

std::string Encoder::GetInformation() {
    return impl_->Guard("GetInformation", [&] {
        const int instance = std::uniform_int_distribution<int>(0, 99999)(impl_->random);
        return InformationText(ELATECTWN4_VERSION_MAJOR, ELATECTWN4_VERSION_MINOR, ELATECTWN4_VERSION_PATCH, instance);
    });
}

// ---- Reader session ------------------------------------------------------------
// The open routine names itself "OpenEncoder", for ReOpenEncoder as well.

sceReturnCode Encoder::OpenEncoder(std::int32_t /*Handle*/) {
    return impl_->Guard("OpenEncoder", [&] { return impl_->OpenComm(true); });
}

void Encoder::ReOpenEncoder() {
    impl_->Guard("OpenEncoder", [&] { impl_->OpenComm(false); });
}

sceReturnCode Encoder::CloseEncoder() {
    return impl_->Guard("CloseEncoder", [&] {
        impl_->CloseComm();
        return sceSuccess;
    });
}

// ---- Card identity ---------------------------------------------------------------

sceReturnCode Encoder::ReadSerialNumber(std::string& SerialNumber) {
    constexpr const char* kName = "ReadSerialNumber";
    Impl& s = *impl_;
    return s.Guard(kName, [&] {
        if (s.SelectCardInRange() != sceSuccess) return sceError;
        const command::Outcome uid =
            command::EncoderCommand(s.channel, command::cmd::GetUID, {}, {.moreResponse = true});
        if (!uid.ok()) {
            command::RecordFailure(s.error, uid, kName);
            SerialNumber.clear();
            return sceError;
        }
        // A UID has 4, 7 or 10 bytes (single, double, triple size): anything
        // else is no serial number a host could file.
        if (!command::CheckDataLength(s.error, uid, {4, 7, 10}, kName)) {
            SerialNumber.clear();
            return sceError;
        }
        SerialNumber = cipher::ToHex(uid.data.view());
        return sceSuccess;
    });
}

sceReturnCode Encoder::Escape(const std::string& sCommand, std::string& sBuffer) {
    constexpr const char* kName = "Escape";
    Impl& s = *impl_;
    return s.Guard(kName, [&] {
        // A command that is not whole hex bytes would reach the reader as
        // guessed bytes; it is refused before anything is sent, with the same
        // record as a command that yields no bytes at all.
        std::string digits = sCommand;
        const bool wholeBytes = cipher::IsHexText(digits) && digits.size() % 2 == 0;
        cipher::SecureWipe(digits.data(), digits.size());  // a LOAD KEYS carries a key
        if (!wholeBytes) {
            command::Fail(s.error, ErrorNumber::CommandFailed, kName,
                          "SCardTransmit:" + std::string(command::CommandName(command::cmd::Escape)),
                          command::PCSCErrorText(pcsc_code::InvalidParameter));
            return sceError;
        }
        if (s.SelectCardInRange() != sceSuccess) return sceError;
        const command::Outcome answer = command::EncoderCommand(s.channel, command::cmd::Escape, {sCommand});
        if (!answer.ok()) {
            command::RecordFailure(s.error, answer, kName);
            return sceError;
        }
        sBuffer = cipher::ToHex(answer.data.view());
        return sceSuccess;
    });
}

std::string Encoder::ReaderType() {
    constexpr const char* kName = "ReaderType";
    Impl& s = *impl_;
    return s.Guard(kName, [&] {
        if (s.channel.context == 0) {
            command::Fail(s.error, ErrorNumber::EncoderClosed, kName);
            return std::string();
        }
        struct Line {
            std::string_view format;
            std::uint32_t attribute;
            AttribMode mode;
        };
        static constexpr Line kLines[] = {
            {"Device name: %1", pcsc_const::AttrDeviceFriendlyName, AttribMode::Text},
            {"Vendor name: %1", pcsc_const::AttrVendorName, AttribMode::Text},
            {"Type: %1", pcsc_const::AttrVendorIfdType, AttribMode::Text},
            {"Version: %1", pcsc_const::AttrVendorIfdVersion, AttribMode::Version},
            {"Serial number: %1", pcsc_const::AttrVendorIfdSerialNo, AttribMode::Text},
        };
        std::string text;
        for (const Line& line : kLines)
            text += s.GetAttribText(line.format, line.attribute, line.mode) + "\r\n";
        return text;
    });
}

std::string Encoder::GetResponseText(const std::string& sw1sw2, const std::string& EncoderCommand) {
    // Hosts call this to explain the record: it must leave the record alone.
    return impl_->Guard(
        "GetResponseText", [&] { return command::GetResponseText(sw1sw2, EncoderCommand); }, RecordRule::Untouched);
}

// ---- The guard's record ------------------------------------------------------------

void Encoder::Impl::RecordEscape(const char* member) noexcept {
    try {
        command::RecordRuntimeError(error, member);
    } catch (...) {
        // Not even the member's name could be had: the record keeps what it holds.
    }
}

}  // namespace elatectwn4
