#include "command/command_table.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <utility>

#include "cipher/bytes.h"

namespace elatectwn4::command {

namespace {

using F = SlotFormat;

// Sorted by code (checked below) for the binary search.
constexpr std::array kCommands{
    CommandRow{cmd::Escape, "Escape", "", {}, {}, false, TextSource::Param0},
    CommandRow{cmd::SetSimpleProtocol, "SetSimpleProtocol", "FF 9B 00 00 0A 05 02 FF FF FF FF FF FF FF FF"},
    CommandRow{cmd::GetUID, "GetUID", "FF CA 00 00 00"},
    // Its template is empty: the key is prepared and then goes nowhere, so the
    // command always fails as an empty one. A "9000" would have marked the
    // reader authenticated; as none can come, no such flag is kept.
    CommandRow{cmd::ReaderAuthenticate,
               "ReaderAuthenticate",
               "",
               {{{"[KEY_LENGTH]", 0, F::ReaderKeyLength}, {"[KEY]", 0, F::ReaderKey}}},
               "[KEY]"},
    CommandRow{cmd::MoreResponseIso, "MoreResponse", "90 AF 00 00 00"},
    CommandRow{cmd::MoreResponseNative, "MoreResponse", "AF"},
    // [KEY_TYPE] belongs to the key but the reader's LOAD KEYS has no place for it.
    CommandRow{cmd::LoadKey,
               "LoadKey",
               "FF 82 00 [KEY_NUMBER] [KEY_LENGTH] [KEY]",
               {{{"[KEY_TYPE]", 0, F::KeyType},
                 {"[KEY_NUMBER]", 1, F::HexByte},
                 {"[KEY_LENGTH]", 2, F::KeyLength},
                 {"[KEY]", 2, F::Text}}},
               "[KEY]"},
    CommandRow{cmd::GeneralAuthenticate,
               "GeneralAuthenticate",
               "FF 86 00 00 05 01 [BLOC_NUMBER] [KEY_TYPE] [KEY_NUMBER]",
               {{{"[BLOC_NUMBER]", 0, F::Block}, {"[KEY_TYPE]", 1, F::KeyType}, {"[KEY_NUMBER]", 2, F::HexByte}}}},
    // A block holds keys only when it is a sector trailer: the caller says so.
    CommandRow{cmd::ReadBinary, "ReadBinary", "FF B0 [BLOC_NUMBER] 00", {{{"[BLOC_NUMBER]", 0, F::Block}}}},
    CommandRow{cmd::WriteBinary,
               "WriteBinary",
               "FF D6 [BLOC_NUMBER] 10 [DATA]",
               {{{"[BLOC_NUMBER]", 0, F::Block}, {"[DATA]", 1, F::Text}}}},
    CommandRow{cmd::SelectApplication, "SelectApplication", "5A [APPID]", {{{"[APPID]", 0, F::Text}}}},
    // The one-step authentication never worked through this reader; its
    // template is empty and the three-step one (0x403, 0x404) is used.
    CommandRow{cmd::DesfireAuthenticate,
               "DesfireAuthenticate",
               "",
               {{{"[KEY_NUMBER_PCD]", 1, F::PcdKeyNumber},
                 {"[KEY_NUMBER_PICC]", 0, F::Text},
                 {"[APP_ID]", 1, F::Text},
                 {"[KEY_1]", 2, F::Text},
                 {"[KEY_2]", 3, F::Text},
                 {"[KEY_3]", 4, F::Text}}},
               "[KEY_1]"},
    CommandRow{cmd::DesfireAuthenticateStart,
               "DesfireAuthenticate",
               "0A [KEY_NUMBER]",
               {{{"[KEY_NUMBER]", 0, F::HexByte}}},
               {},
               true},
    CommandRow{cmd::DesfireAuthenticateToken,
               "DesfireAuthenticate",
               "AF [TOKEN]",
               {{{"[TOKEN]", 0, F::Text}}},
               "[TOKEN]",
               true},
    CommandRow{cmd::DesfireGetVersion, "DesfireGetVersion", "60"},
    CommandRow{cmd::DesfireFormat, "DesfireFormat", "FC"},
    CommandRow{cmd::DesfireGetApplications, "DesfireGetApplications", "6A"},
    CommandRow{cmd::DesfireCreateApplication,
               "DesfireCreateApplication",
               "CA [APP_ID] [KEY_SETTINGS] [KEYS_COUNT]",
               {{{"[APP_ID]", 0, F::Text}, {"[KEY_SETTINGS]", 1, F::PaddedHex}, {"[KEYS_COUNT]", 2, F::PaddedHex}}}},
    CommandRow{cmd::DesfireDeleteApplication, "DesfireDeleteApplication", "DA [APP_ID]", {{{"[APP_ID]", 0, F::Text}}}},
    CommandRow{cmd::DesfireGetKeyVersion, "DesfireGetKeyVersion", "64 [KEY_NUMBER]", {{{"[KEY_NUMBER]", 0, F::Text}}}},
    CommandRow{cmd::DesfireGetKeySettings, "DesfireGetKeySettings", "45"},
    CommandRow{cmd::DesfireChangeKey,
               "DesfireChangeKey",
               "C4 [KEY_NUMBER] [KEY_DATA]",
               {{{"[KEY_NUMBER]", 0, F::Text}, {"[KEY_DATA]", 1, F::Text}}},
               "[KEY_DATA]"},
    CommandRow{cmd::DesfireChangeKeySettings,
               "DesfireChangeKeySettings",
               "54 [KEY_SETTINGS]",
               {{{"[KEY_SETTINGS]", 0, F::Text}}}},
    CommandRow{cmd::DesfireGetFileIDs, "DesfireGetFileIDs", "6F"},
    CommandRow{
        cmd::DesfireGetFileSettings, "DesfireGetFileSettings", "F5 [FILE_NUMBER]", {{{"[FILE_NUMBER]", 0, F::Text}}}},
    CommandRow{cmd::DesfireChangeFileSettingsPlain,
               "DesfireChangeFileSettings",
               "5F [FILE_NUMBER] [COMM_SET] [ACCESS_RIGHTS]",
               {{{"[FILE_NUMBER]", 0, F::Text}, {"[COMM_SET]", 1, F::Text}, {"[ACCESS_RIGHTS]", 2, F::Text}}}},
    CommandRow{cmd::DesfireChangeFileSettingsCiphered,
               "DesfireChangeFileSettings",
               "5F [FILE_NUMBER] [FILE_SETTINGS]",
               {{{"[FILE_NUMBER]", 0, F::Text}, {"[FILE_SETTINGS]", 1, F::Text}}}},
    CommandRow{cmd::DesfireCreateStdDataFile,
               "DesfireCreateStdDataFile",
               "CD [FILE_NUMBER] [COMM_SET] [ACCESS_RIGHTS] [SIZE]",
               {{{"[FILE_NUMBER]", 0, F::Text},
                 {"[COMM_SET]", 1, F::Text},
                 {"[ACCESS_RIGHTS]", 2, F::Text},
                 {"[SIZE]", 3, F::Text}}}},
    CommandRow{cmd::DesfireCreateBackupDataFile,
               "DesfireCreateBackupDataFile",
               "CB [FILE_NUMBER] [COMM_SET] [ACCESS_RIGHTS] [SIZE]",
               {{{"[FILE_NUMBER]", 0, F::Text},
                 {"[COMM_SET]", 1, F::Text},
                 {"[ACCESS_RIGHTS]", 2, F::Text},
                 {"[SIZE]", 3, F::Text}}}},
    CommandRow{cmd::DesfireCreateValueFile,
               "DesfireCreateValueFile",
               "CC [FILE_NUMBER] [COMM_SET] [ACCESS_RIGHTS] [LIMIT_LOW] [LIMIT_UP] [VALUE] [LIMITED_CREDIT]",
               {{{"[FILE_NUMBER]", 0, F::Text},
                 {"[COMM_SET]", 1, F::Text},
                 {"[ACCESS_RIGHTS]", 2, F::Text},
                 {"[LIMIT_LOW]", 3, F::Text},
                 {"[LIMIT_UP]", 4, F::Text},
                 {"[VALUE]", 5, F::Text},
                 {"[LIMITED_CREDIT]", 6, F::Text}}}},
    CommandRow{cmd::DesfireCreateLinearRecordFile,
               "DesfireCreateLinearRecordFile",
               "C1 [FILE_NUMBER] [COMM_SET] [ACCESS_RIGHTS] [REC_SIZE] [REC_COUNT]",
               {{{"[FILE_NUMBER]", 0, F::Text},
                 {"[COMM_SET]", 1, F::Text},
                 {"[ACCESS_RIGHTS]", 2, F::Text},
                 {"[REC_SIZE]", 3, F::Text},
                 {"[REC_COUNT]", 4, F::Text}}}},
    CommandRow{cmd::DesfireCreateCyclicRecordFile,
               "DesfireCreateCyclicRecordFile",
               "C0 [FILE_NUMBER] [COMM_SET] [ACCESS_RIGHTS] [REC_SIZE] [REC_COUNT]",
               {{{"[FILE_NUMBER]", 0, F::Text},
                 {"[COMM_SET]", 1, F::Text},
                 {"[ACCESS_RIGHTS]", 2, F::Text},
                 {"[REC_SIZE]", 3, F::Text},
                 {"[REC_COUNT]", 4, F::Text}}}},
    CommandRow{cmd::DesfireDeleteFile, "DesfireDeleteFile", "DF [FILE_NUMBER]", {{{"[FILE_NUMBER]", 0, F::Text}}}},
    CommandRow{cmd::DesfireReadData,
               "DesfireReadData",
               "BD [FILE_NUMBER] [OFFSET] [LENGTH]",
               {{{"[FILE_NUMBER]", 0, F::Text}, {"[OFFSET]", 1, F::Text}, {"[LENGTH]", 2, F::Text}}}},
    // The payload commands carry file number, offset, length and data (already
    // enciphered where needed) together in [DATA]; [LENGTH] has no place.
    CommandRow{
        cmd::DesfireWriteData, "DesfireWriteData", "3D [DATA]", {{{"[LENGTH]", 1, F::Text}, {"[DATA]", 2, F::Text}}}},
    CommandRow{cmd::DesfireReadRecords,
               "DesfireReadRecords",
               "BB [FILE_NUMBER] [OFFSET] [LENGTH]",
               {{{"[FILE_NUMBER]", 0, F::Text}, {"[OFFSET]", 1, F::Text}, {"[LENGTH]", 2, F::Text}}}},
    CommandRow{cmd::DesfireWriteRecord,
               "DesfireWriteRecord",
               "3B [DATA]",
               {{{"[LENGTH]", 1, F::Text}, {"[DATA]", 2, F::Text}}}},
    CommandRow{
        cmd::DesfireClearRecordFile, "DesfireClearRecordFile", "EB [FILE_NUMBER]", {{{"[FILE_NUMBER]", 0, F::Text}}}},
    CommandRow{cmd::DesfireGetValue, "DesfireGetValue", "6C [FILE_NUMBER]", {{{"[FILE_NUMBER]", 0, F::Text}}}},
    CommandRow{cmd::DesfireDebit, "DesfireDebit", "DC [DATA]", {{{"[LENGTH]", 1, F::Text}, {"[DATA]", 2, F::Text}}}},
    CommandRow{cmd::DesfireCredit, "DesfireCredit", "0C [DATA]", {{{"[LENGTH]", 1, F::Text}, {"[DATA]", 2, F::Text}}}},
    CommandRow{cmd::DesfireLimitedCredit,
               "DesfireLimitedCredit",
               "1C [DATA]",
               {{{"[LENGTH]", 1, F::Text}, {"[DATA]", 2, F::Text}}}},
    CommandRow{cmd::DesfireCommitTransaction, "DesfireCommitTransaction", "C7"},
    CommandRow{cmd::DesfireAbortTransaction, "DesfireAbortTransaction", "A7"},
    // A further frame of a chained DESFire transfer, named by the caller.
    CommandRow{cmd::DesfireContinue, "", "AF [DATA]", {{{"[LENGTH]", 1, F::Text}, {"[DATA]", 2, F::Text}}}},
};

static_assert(std::is_sorted(kCommands.begin(), kCommands.end(),
                             [](const CommandRow& a, const CommandRow& b) { return a.code < b.code; }));

// Hex digits of a number as the host platform wrote them: no leading zeros,
// and a negative 32-bit value as its two's complement. Returns the count
// written at the end of `buffer`.
std::size_t HexDigits(std::int64_t value, char (&buffer)[16]) noexcept {
    std::uint64_t bits = static_cast<std::uint64_t>(value);
    if (value < 0 && value >= std::numeric_limits<std::int32_t>::min()) bits &= 0xFFFFFFFFu;
    std::size_t n = 0;
    do {
        buffer[15 - n++] = cipher::HexDigit(static_cast<unsigned>(bits));
        bits >>= 4;
    } while (bits != 0);
    return n;
}

// Left-padded with zeros to `width` digits; with `cut`, only the last `width` kept.
void AppendNumberHex(cipher::SecretText& out, std::int64_t value, std::size_t width, bool cut) {
    char buffer[16];
    std::size_t n = HexDigits(value, buffer);
    for (std::size_t pad = n; pad < width; ++pad)
        out.push_back('0');
    if (cut && n > width) n = width;
    out.Append(std::string_view(buffer + 16 - n, n));
}

// Calls `use` with the parameter's text (a number: its decimal text; bytes:
// their hex digits) without leaving a copy of a key behind.
template <typename Use>
auto WithText(const Param& param, Use use) {
    if (const auto* text = std::get_if<std::string>(&param)) return use(std::string_view(*text));
    if (const auto* text = std::get_if<std::string_view>(&param)) return use(*text);
    if (const auto* bytes = std::get_if<cipher::ByteView>(&param)) {
        cipher::SecretText hex;
        hex.Reserve(2 * bytes->size());
        cipher::AppendHex(hex, *bytes);
        return use(hex.text());
    }
    char buffer[24];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, std::get<std::int64_t>(param)).ptr;
    return use(std::string_view(buffer, static_cast<std::size_t>(end - buffer)));
}

void AppendText(cipher::SecretText& out, const Param& param) {
    WithText(param, [&](std::string_view text) { out.Append(text); });
}

std::string TextOf(const Param& param) {
    return WithText(param, [](std::string_view text) { return std::string(text); });
}

bool IsKeySeparator(char c) noexcept {
    return c == ' ' || c == '.' || c == '-' || c == ',' || c == ':';
}

// Appends the value that replaces a slot's placeholder; false when the
// parameter is missing or cannot be read as the number the slot wants.
bool AppendSlotValue(const Slot& slot, const Params& params, cipher::SecretText& out) {
    if (slot.param >= params.size()) return false;
    const Param& param = params[slot.param];
    switch (slot.format) {
        case F::Text:
            AppendText(out, param);
            return true;
        case F::KeyType: {
            // An unreadable value is simply not key B.
            const auto number = NumberOf(param);
            out.Append(number && *number == 2 ? "61" : "60");
            return true;
        }
        case F::Block:
        case F::HexByte:
        case F::PaddedHex: {
            const auto number = NumberOf(param);
            if (!number) return false;
            if (slot.format == F::Block) AppendNumberHex(out, *number, 4, true);
            if (slot.format == F::HexByte) AppendNumberHex(out, *number, 2, true);
            if (slot.format == F::PaddedHex) AppendNumberHex(out, *number, 2, false);
            return true;
        }
        case F::KeyLength: {
            const std::size_t length = WithText(param, [](std::string_view key) { return key.size(); });
            AppendNumberHex(out, static_cast<std::int64_t>(length / 2), 2, true);
            return true;
        }
        case F::PcdKeyNumber:
            out.Append(WithText(param, [](std::string_view id) { return id == "000000"; }) ? "00" : "01");
            return true;
        case F::ReaderKey:
            WithText(param, [&](std::string_view key) {
                for (char c : key) {
                    if (!IsKeySeparator(c)) out.push_back(c);
                }
            });
            return true;
        case F::ReaderKeyLength: {
            const auto kept = WithText(param, [](std::string_view key) {
                return static_cast<std::size_t>(
                    std::count_if(key.begin(), key.end(), [](char c) { return !IsKeySeparator(c); }));
            });
            AppendNumberHex(out, static_cast<std::int64_t>(kept / 2), 2, true);
            return true;
        }
    }
    return false;
}

const Slot* SlotNamed(const CommandRow& row, std::string_view placeholder) noexcept {
    for (const Slot& slot : row.slots) {
        if (slot.placeholder.empty()) break;
        if (slot.placeholder == placeholder) return &slot;
    }
    return nullptr;
}

// Position of `placeholder` (upper case) in `text`, compared without regard to case.
std::size_t FindPlaceholder(std::string_view text, std::string_view placeholder, std::size_t from) noexcept {
    if (placeholder.size() > text.size()) return std::string_view::npos;
    for (std::size_t i = from; i + placeholder.size() <= text.size(); ++i) {
        if (text[i] != '[') continue;
        bool same = true;
        for (std::size_t k = 1; k < placeholder.size() && same; ++k) {
            same = std::toupper(static_cast<unsigned char>(text[i + k])) == placeholder[k];
        }
        if (same) return i;
    }
    return std::string_view::npos;
}

// Replaces every occurrence from left to right; replaced text is not searched
// again.
void ReplaceAll(cipher::SecretText& text, std::size_t first, std::string_view placeholder, std::string_view value) {
    cipher::SecretText out;
    out.Reserve(text.size() + value.size());
    std::size_t done = 0;
    for (std::size_t at = first; at != std::string_view::npos; at = FindPlaceholder(text.text(), placeholder, done)) {
        out.Append(text.text().substr(done, at - done));
        out.Append(value);
        done = at + placeholder.size();
    }
    out.Append(text.text().substr(done));
    text = std::move(out);
}

bool IsSecretSlot(const CommandRow& row, const Slot& slot, std::string_view secretFrom) noexcept {
    return slot.placeholder == row.secret || slot.placeholder == secretFrom;
}

// The template read once from left to right, each placeholder replaced as it
// comes; the placeholders of the table are upper case and distinct.
std::uint32_t FillInOnePass(const CommandRow& row, const Params& params, std::string_view secretFrom,
                            FilledCommand& out) {
    const std::string_view templ = row.templ;
    std::size_t digits = 0;
    for (std::size_t i = 0; i < templ.size();) {
        if (templ[i] == '[') {
            const std::size_t close = templ.find(']', i);
            const Slot* slot =
                close == std::string_view::npos ? nullptr : SlotNamed(row, templ.substr(i, close - i + 1));
            if (slot != nullptr) {
                if (!out.secretDigit && IsSecretSlot(row, *slot, secretFrom)) out.secretDigit = digits;
                const std::size_t before = out.text.size();
                if (!AppendSlotValue(*slot, params, out.text)) return pcsc_code::InvalidParameter;
                digits += static_cast<std::size_t>(
                    std::count_if(out.text.begin() + before, out.text.end(), [](char c) { return c != ' '; }));
                i = close + 1;
                continue;
            }
        }
        digits += templ[i] != ' ';
        out.text.push_back(templ[i++]);
    }
    return pcsc_code::Success;
}

// Each placeholder in turn over the whole text, so that a value holding a
// later placeholder gets it filled too.
std::uint32_t FillInTurn(const CommandRow& row, const Params& params, std::string_view secretFrom, FilledCommand& out) {
    out.text.Append(row.templ);
    cipher::SecretText value;
    for (const Slot& slot : row.slots) {
        if (slot.placeholder.empty()) break;
        const std::size_t first = FindPlaceholder(out.text.text(), slot.placeholder, 0);
        if (first == std::string::npos) continue;
        value.Clear();
        if (!AppendSlotValue(slot, params, value)) return pcsc_code::InvalidParameter;
        // Later substitutions may move what comes before a key: the whole
        // command is hidden instead.
        if (IsSecretSlot(row, slot, secretFrom)) out.secretDigit = 0;
        ReplaceAll(out.text, first, slot.placeholder, value.text());
    }
    return pcsc_code::Success;
}

}  // namespace

const CommandRow* FindCommand(std::uint32_t code) noexcept {
    const auto it = std::lower_bound(kCommands.begin(), kCommands.end(), code,
                                     [](const CommandRow& row, std::uint32_t c) { return row.code < c; });
    return it != kCommands.end() && it->code == code ? &*it : nullptr;
}

std::optional<std::int64_t> NumberOf(const Param& param) {
    if (const auto* number = std::get_if<std::int64_t>(&param)) return *number;
    if (std::holds_alternative<cipher::ByteView>(param)) return std::nullopt;
    std::string_view text = WithText(param, [](std::string_view t) { return t; });
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    if (text.size() > 2 && text[0] == '&' && (text[1] == 'H' || text[1] == 'h')) {
        const std::optional<std::uint64_t> value = cipher::HexNumber(text.substr(2));
        if (!value) return std::nullopt;
        // "&HFFFF" style literals of up to 8 digits are 32-bit two's complement.
        if (text.size() <= 2 + 8 && *value > 0x7FFFFFFFu) return static_cast<std::int64_t>(*value) - 0x100000000LL;
        return static_cast<std::int64_t>(*value);
    }
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty() || text.size() > 18) return std::nullopt;
    std::int64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return negative ? -value : value;
}

std::uint32_t FillCommand(std::uint32_t code, const Params& params, std::string_view secretFrom, FilledCommand& out) {
    out.text.Clear();
    out.fixedName = {};
    out.givenName.clear();
    out.nameGiven = false;
    out.secretDigit.reset();
    out.secretAnswer = false;

    const CommandRow* row = FindCommand(code);
    if (row == nullptr) return pcsc_code::InvalidParameter;
    out.fixedName = row->name;
    out.secretAnswer = row->secretAnswer;
    if (row->name.empty()) {
        out.nameGiven = true;
        if (!params.empty()) out.givenName = TextOf(params.front());
    }

    if (row->source == TextSource::Param0) {
        if (params.empty()) return pcsc_code::InvalidParameter;
        if (!secretFrom.empty()) out.secretDigit = 0;
        AppendText(out.text, params.front());
        return pcsc_code::Success;
    }

    // Substitution is sequential: each placeholder in turn over the whole text,
    // so a value that itself holds a later placeholder gets it filled too. A
    // value can only do so with a '['; without one a single pass over the
    // template gives the same text, and that is the common case.
    const bool valuesHoldBrackets = std::any_of(params.begin(), params.end(), [](const Param& p) {
        return !std::holds_alternative<cipher::ByteView>(p) &&
               WithText(p, [](std::string_view text) { return text.find('[') != std::string_view::npos; });
    });
    const std::uint32_t result =
        valuesHoldBrackets ? FillInTurn(*row, params, secretFrom, out) : FillInOnePass(*row, params, secretFrom, out);
    // A secret the caller named that the template does not hold: nothing of
    // the command may show.
    if (!secretFrom.empty() && !out.secretDigit) out.secretDigit = 0;
    return result;
}

}  // namespace elatectwn4::command
