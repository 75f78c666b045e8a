// The Encoder's frame: creation and destruction, status properties,
// parameters and information, the session and card-identity operations.
//
// Every public member catches whatever escapes from below and turns it into
// the error record: the host sees a result code, never an exception.
#include <chrono>
#include <random>
#include <string>
#include <utility>

#include "cipher/bytes.h"
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
    return impl_->error;
}

sceEncoderState Encoder::EncoderState() {
    static const std::string kName = "EncoderState";
    Impl& s = *impl_;
    sceEncoderState state = sceClosed;
    try {
        command::ClearError(s.error, kName);
        if (s.channel.context != 0) {
            // Only the definite "no card" answer makes it sceOpened: a reader
            // that answers oddly is still taken as ready.
            if (s.SelectCardInRange() == sceSuccess || s.error.Number != ErrorValue(ErrorNumber::NoCard)) {
                state = sceReady;
            } else {
                state = sceOpened;
            }
        }
    } catch (...) {
        state = s.channel.context == 0 ? sceClosed : sceReady;
    }
    command::ClearError(s.error, kName);
    return state;
}

std::string Encoder::ATRString() {
    try {
        return impl_->atrText;
    } catch (...) {
        return {};
    }
}

sceCardTypes Encoder::CardType() {
    command::ClearError(impl_->error, "CardType");
    return impl_->cardType;
}

std::int32_t Encoder::SerialNumberLength() {
    return impl_->serialLength;
}

// ---- Parameters and information ------------------------------------------------

std::string Encoder::Parameters() {
    try {
        return "Encoding capabilities=" + std::string(kCapabilities) + "\r\nDevice=" + impl_->deviceName;
    } catch (...) {
        return {};
    }
}

void Encoder::Parameters(const std::string& text) {
    try {
        command::ClearError(impl_->error, "Parameters");
        if (auto device = DeviceFromParameters(text)) impl_->deviceName = std::move(*device);
    } catch (...) {
        command::RecordRuntimeError(impl_->error, "Parameters");
    }
}

std::string Encoder::GetInformation() {
    try {
        const int instance = std::uniform_int_distribution<int>(0, 99999)(impl_->random);
        command::ClearError(impl_->error, "GetInformation");
        return InformationText(ELATECTWN4_VERSION_MAJOR, ELATECTWN4_VERSION_MINOR, ELATECTWN4_VERSION_PATCH, instance);
    } catch (...) {
        command::RecordRuntimeError(impl_->error, "GetInformation");
        return {};
    }
}

// ---- Reader session ------------------------------------------------------------

sceReturnCode Encoder::OpenEncoder(std::int32_t /*Handle*/) {
    try {
        return impl_->OpenComm(true);
    } catch (...) {
        command::RecordRuntimeError(impl_->error, "OpenEncoder");
        return sceError;
    }
}

void Encoder::ReOpenEncoder() {
    try {
        impl_->OpenComm(false);
    } catch (...) {
        command::RecordRuntimeError(impl_->error, "OpenEncoder");
    }
}

sceReturnCode Encoder::CloseEncoder() {
    command::ClearError(impl_->error, "CloseEncoder");
    impl_->CloseComm();
    return sceSuccess;
}

// ---- Card identity ---------------------------------------------------------------

sceReturnCode Encoder::ReadSerialNumber(std::string& SerialNumber) {
    static const std::string kName = "ReadSerialNumber";
    Impl& s = *impl_;
    try {
        command::ClearError(s.error, kName);
        if (s.SelectCardInRange() != sceSuccess) return sceError;
        const command::Outcome uid =
            command::EncoderCommand(s.channel, command::cmd::GetUID, {}, {.moreResponse = true});
        if (!uid.ok()) {
            command::RecordFailure(s.error, uid, kName);
            SerialNumber.clear();
            return sceError;
        }
        SerialNumber = cipher::ToHex(uid.data.view());
        return sceSuccess;
    } catch (...) {
        command::RecordRuntimeError(s.error, kName);
        return sceError;
    }
}

sceReturnCode Encoder::Escape(const std::string& sCommand, std::string& sBuffer) {
    static const std::string kName = "Escape";
    Impl& s = *impl_;
    try {
        command::ClearError(s.error, kName);
        // A command that is not whole hex bytes would reach the reader as
        // guessed bytes; it is refused before anything is sent, with the same
        // record as a command that yields no bytes at all.
        std::string digits = sCommand;
        if (!cipher::IsHexText(digits) || digits.size() % 2 != 0) {
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
    } catch (...) {
        command::RecordRuntimeError(s.error, kName);
        return sceError;
    }
}

std::string Encoder::ReaderType() {
    static const std::string kName = "ReaderType";
    Impl& s = *impl_;
    try {
        command::ClearError(s.error, kName);
        if (s.channel.context == 0) {
            command::Fail(s.error, ErrorNumber::EncoderClosed, kName);
            return {};
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
    } catch (...) {
        command::RecordRuntimeError(s.error, kName);
        return {};
    }
}

std::string Encoder::GetResponseText(const std::string& sw1sw2, const std::string& EncoderCommand) {
    // Leaves the record alone: hosts call this to explain the record.
    try {
        return command::GetResponseText(sw1sw2, EncoderCommand);
    } catch (...) {
        return {};
    }
}

}  // namespace elatectwn4
