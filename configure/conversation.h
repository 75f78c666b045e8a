// The dialog program's side of the line protocol (encoder/dialog_protocol.h),
// shared by its front ends (GTK, Win32): what the component's setup says,
// and the texts a "probe" line puts in the test dialog.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "configure/labels.h"
#include "encoder/dialog_protocol.h"

namespace elatectwn4::configure {

/// What the component sends before "show".
struct Setup {
    bool french = false;
    std::vector<std::string> readers;
    std::string notice;
    std::string current;
};

/// Takes one line of the setup; true at "show", its end. Lines the program
/// does not know are passed over.
inline bool TakeSetupLine(Setup& setup, std::string_view line) {
    const std::vector<std::string> fields = dialog::Fields(line);
    const std::string& word = fields.front();
    const std::string argument = fields.size() > 1 ? fields[1] : std::string();
    if (word == dialog::kLanguage) {
        setup.french = argument == dialog::kFrench;
    } else if (word == dialog::kReader) {
        setup.readers.push_back(argument);
    } else if (word == dialog::kNotice) {
        setup.notice = argument;
    } else if (word == dialog::kCurrent) {
        setup.current = argument;
    }
    return word == dialog::kShow;
}

/// The text under an empty reader list: that there is none, and why.
inline std::string NoReaderText(const Setup& setup) {
    const std::string none(Of(Text::NoReader, setup.french));
    return setup.notice.empty() ? none : none + "\n" + setup.notice;
}

/// The rows of the test dialog, top to bottom: a key label and its value.
enum Value { kReaderValue, kStateValue, kAtrValue, kCardTypeValue, kSerialValue, kMessageValue, kValueCount };
inline constexpr Text kValueKeys[kValueCount] = {Text::Reader,   Text::State,        Text::Atr,
                                                 Text::CardType, Text::SerialNumber, Text::Message};

/// A card type by its number, "name (number)".
inline std::string CardTypeText(bool french, const std::string& number) {
    const std::int32_t type = std::atoi(number.c_str());
    for (const CardTypeName& known : kCardTypeNames) {
        if (known.number == type) return std::string(known.name) + " (" + number + ")";
    }
    return std::string(Of(Text::UnknownCardType, french)) + " (" + number + ")";
}

/// What the value rows below the reader show for the fields of a "probe"
/// line, indexed by Value (kReaderValue stays as it is).
inline std::vector<std::string> ProbeTexts(bool french, const std::vector<std::string>& fields) {
    const auto field = [&](std::size_t i) { return i < fields.size() ? fields[i] : std::string(); };
    const std::string state = field(1);
    const bool ready = state == dialog::kReady;
    const Text stateText = ready ? Text::Ready : state == dialog::kNoCard ? Text::NoCard : Text::Unavailable;
    std::vector<std::string> texts(kValueCount);
    texts[kStateValue] = Of(stateText, french);
    texts[kAtrValue] = field(2);
    texts[kCardTypeValue] = ready ? CardTypeText(french, field(3)) : std::string();
    texts[kSerialValue] = field(4);
    texts[kMessageValue] = field(5);
    return texts;
}

}  // namespace elatectwn4::configure
