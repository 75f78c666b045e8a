// Configure: the configuration and test dialogs. The window is a program of
// its own (twn4-configure) so that no host is tied to a toolkit; the card
// exchanges of its test dialog run here, on the host's thread, through this
// encoder's own PC/SC boundary.
#include <string>
#include <system_error>
#include <vector>

#include "command/error_record.h"
#include "command/pcsc_error_text.h"
#include "encoder/dialog.h"
#include "encoder/dialog_protocol.h"
#include "encoder/encoder_impl.h"

namespace elatectwn4 {

namespace {

constexpr const char* kName = "Configure";

// The record as one readable sentence: its description and the reader's answer.
std::string Explain(const CError& record) {
    return record.RdrRetCode.empty() ? record.Description : record.Description + ": " + record.RdrRetCode;
}

// One tick of the test dialog: the encoder opened on `reader` afresh, so a
// card that came, went or changed shows at once.
dialog::Probe ProbeReader(Encoder& encoder, Encoder::Impl& s, const std::string& reader) {
    s.deviceName = reader;
    dialog::Probe found;
    if (s.OpenComm(false) != sceSuccess || s.channel.card == 0) {
        found.state = s.error.Number == ErrorValue(ErrorNumber::NoCard) ? dialog::kNoCard : dialog::kUnavailable;
        found.message = Explain(s.error);
        return found;
    }
    found.state = dialog::kReady;
    found.atr = s.atrText;
    found.cardType = s.cardType;
    if (encoder.ReadSerialNumber(found.serial) != sceSuccess) found.message = Explain(s.error);
    return found;
}

dialog::Setup MakeSetup(Encoder::Impl& s, const std::string& language) {
    dialog::Setup setup;
    setup.french = language == "francais";
    setup.current = s.deviceName;
    const std::uint32_t code = s.pcsc->ListReaders(s.channel.context, setup.readers);
    if (code != pcsc_code::Success) {
        setup.readers.clear();
        setup.notice = command::PCSCErrorText(code);
    }
    return setup;
}

}  // namespace

sceReturnCode Encoder::Configure(const std::string& Language) {
    Impl& s = *impl_;
    return s.Guard(kName, [&] {
        if (s.OpenComm(false) != sceSuccess) {
            command::SetError(s.error, {.comFunction = kName});
            return sceError;
        }
        const std::string program = dialog::ProgramPath();
        if (const std::string why = dialog::WhyNoDialog(program); !why.empty()) {
            command::Fail(s.error, ErrorNumber::DialogUnavailable, kName, program, why);
            return sceError;
        }
        const dialog::Setup setup = MakeSetup(s, Language);
        const std::string configured = s.deviceName;

        dialog::Verdict verdict;
        std::string ending;
        bool probed = false;
        try {
            dialog::ChildProcess child(program);
            verdict = dialog::Converse(child, setup, [&](const std::string& reader) {
                probed = true;
                return ProbeReader(*this, s, reader);
            });
            ending = child.Wait();
        } catch (const std::system_error& e) {
            ending = std::string("Cannot run the dialog program: ") + e.code().message();
        }

        const bool chosen = verdict.kind == dialog::Verdict::Kind::Ok && !verdict.reader.empty();
        s.deviceName = chosen ? verdict.reader : configured;
        // The test dialog left the session on the reader it tried last.
        if (probed) s.OpenComm(false);

        if (verdict.kind == dialog::Verdict::Kind::Ended) {
            if (!verdict.error.empty()) ending = verdict.error;
            if (ending.empty()) ending = "The dialog program ended without an answer";
            command::Fail(s.error, ErrorNumber::DialogUnavailable, kName, program, ending);
            return sceError;
        }
        command::ClearError(s.error, kName);
        return verdict.kind == dialog::Verdict::Kind::Ok ? sceSuccess : sceCanceled;
    });
}

}  // namespace elatectwn4
