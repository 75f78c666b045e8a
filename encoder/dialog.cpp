// The conversation of encoder/dialog_protocol.h with the dialog program.
#include "encoder/dialog.h"

#include "encoder/dialog_protocol.h"

namespace elatectwn4::dialog {

Verdict Converse(ChildProcess& child, const Setup& setup, const std::function<Probe(const std::string&)>& probe) {
    std::string opening = Line({kLanguage, setup.french ? kFrench : kEnglish});
    for (const std::string& reader : setup.readers)
        opening += Line({kReader, reader});
    if (!setup.notice.empty()) opening += Line({kNotice, setup.notice});
    opening += Line({kCurrent, setup.current}) + Line({kShow});
    child.Send(opening);

    Verdict verdict;
    while (const std::optional<std::string> line = child.Receive()) {
        const std::vector<std::string> fields = Fields(*line);
        const std::string& word = fields.front();
        const std::string argument = fields.size() > 1 ? fields[1] : std::string();
        if (word == kTest) {
            const Probe found = probe(argument);
            child.Send(
                Line({kProbe, found.state, found.atr, std::to_string(found.cardType), found.serial, found.message}));
        } else if (word == kOk) {
            return {Verdict::Kind::Ok, argument, {}};
        } else if (word == kCancel) {
            return {Verdict::Kind::Cancel, {}, {}};
        } else if (word == kError) {
            verdict.error = argument;
        }
    }
    return verdict;
}

}  // namespace elatectwn4::dialog
