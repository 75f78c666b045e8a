// Every text the dialogs show of their own, in English and in French. An
// underscore marks the key of a button (Alt + that letter).
#pragma once

#include <cstdint>
#include <string_view>

namespace elatectwn4::configure {

enum class Text {
    ConfigureTitle,
    Readers,
    NoReader,
    Test,
    Cancel,
    Ok,
    TestTitle,
    Reader,
    State,
    Atr,
    CardType,
    SerialNumber,
    Message,
    Close,
    Waiting,
    Ready,
    NoCard,
    Unavailable,
    UnknownCardType,
};

struct Label {
    Text text;
    std::string_view english;
    std::string_view french;
};

inline constexpr Label kLabels[] = {
    {Text::ConfigureTitle, "Encoder configuration", "Configuration de l'encodeur"},
    {Text::Readers, "Readers:", "Lecteurs :"},
    {Text::NoReader, "No reader found.", "Aucun lecteur trouvé."},
    {Text::Test, "_Test", "_Tester"},
    {Text::Cancel, "_Cancel", "_Annuler"},
    {Text::Ok, "_OK", "_OK"},
    {Text::TestTitle, "Encoder test", "Test de l'encodeur"},
    {Text::Reader, "Reader:", "Lecteur :"},
    {Text::State, "State:", "État :"},
    {Text::Atr, "ATR:", "ATR :"},
    {Text::CardType, "Card type:", "Type de carte :"},
    {Text::SerialNumber, "Serial number:", "Numéro de série :"},
    {Text::Message, "Message:", "Message :"},
    {Text::Close, "_Close", "_Fermer"},
    {Text::Waiting, "Looking for a card…", "Recherche d'une carte…"},
    {Text::Ready, "Card present", "Carte présente"},
    {Text::NoCard, "No card", "Pas de carte"},
    {Text::Unavailable, "Reader unavailable", "Lecteur indisponible"},
    {Text::UnknownCardType, "Unknown card type", "Type de carte inconnu"},
};

inline constexpr std::string_view Of(Text text, bool french) {
    for (const Label& label : kLabels) {
        if (label.text == text) return french ? label.french : label.english;
    }
    return {};
}

/// Card types by their number (sceCardTypes); the names are the cards' own,
/// the same in both languages.
struct CardTypeName {
    std::int32_t number;
    std::string_view name;
};

inline constexpr CardTypeName kCardTypeNames[] = {
    {0x11, "MIFARE Classic 1K"}, {0x12, "MIFARE Classic 4K"}, {0x21, "MIFARE Ultralight"},
    {0x31, "MIFARE DESFire"},    {0x41, "RFID 125 kHz"},      {0x51, "PicoPass 2KS"},
};

}  // namespace elatectwn4::configure
