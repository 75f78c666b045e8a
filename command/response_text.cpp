#include "command/response_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <optional>
#include <span>

#include "cipher/bytes.h"

namespace elatectwn4::command {

namespace {

struct Sw2Text {
    std::uint8_t sw2;
    std::string_view text;
};

// What follows the prefix when no SW2 row matches.
enum class Otherwise {
    UnknownError,  // "unknown error " and the status's last two characters
    LastTwo,       // the status's last two characters (the Le the card wants)
    DecimalCount,  // SW2 in decimal, then " response bytes still available"
    Fixed,         // the group's own text
};

struct Group {
    std::uint8_t sw1;
    std::string_view prefix;
    std::span<const Sw2Text> rows;
    Otherwise otherwise;
    std::string_view fixed = {};
    bool counter = false;  // SW2 Cx: "counter provided by x"
};

constexpr std::string_view kUnattended = "[Unknown]   Unattended error";

constexpr std::array<Sw2Text, 5> k62{{
    {0x00, "no information given"},
    {0x81, "part of returned data may be corrupted"},
    {0x82, "end of file/record reached before reading requested bytes"},
    {0x83, "selected file invalidated"},
    {0x84, "FCI not formatted properly"},
}};
constexpr std::array<Sw2Text, 2> k63{{
    {0x00, "no information given"},
    {0x81, "file filled up by the last write"},
}};
constexpr std::array<Sw2Text, 1> kNoInformation{{{0x00, "no information given"}}};
constexpr std::array<Sw2Text, 2> k65{{
    {0x00, "no information given"},
    {0x81, "memory failure"},
}};
constexpr std::array<Sw2Text, 1> k67{{{0x00, "Wrong length"}}};
constexpr std::array<Sw2Text, 3> k68{{
    {0x00, "no information given"},
    {0x81, "logical channel not supported"},
    {0x82, "secure messaging not supported"},
}};
constexpr std::array<Sw2Text, 9> k69{{
    {0x00, "no information given"},
    {0x81, "command incompatible with file structure"},
    {0x82, "security status not satisfied"},
    {0x83, "authentication method blocked"},
    {0x84, "referenced data invalidated"},
    {0x85, "conditions of use not satisfied"},
    {0x86, "command not allowed (no current EF)"},
    {0x87, "expected SM data objects missing"},
    {0x88, "SM data objects incorrect"},
}};
// The reader's own meanings of 69xx when it refuses to load a key.
constexpr std::array<Sw2Text, 8> k69LoadKey{{
    {0x82, "Card key not supported"},
    {0x83, "Reader key not supported"},
    {0x84, "Plain transmission not supported"},
    {0x85, "Secured transmission not supported"},
    {0x86, "Volatile memory not available"},
    {0x87, "Non volatile memory not available"},
    {0x88, "Key number not valid"},
    {0x89, "Incorrect key length"},
}};
constexpr std::array<Sw2Text, 10> k6A{{
    {0x00, "no information given"},
    {0x80, "incorrect parameters in the data field"},
    {0x81, "function not supported"},
    {0x82, "file not found"},
    {0x83, "record not found"},
    {0x84, "not enough memory space in the file"},
    {0x85, "Lc inconsistent with TLV structure"},
    {0x86, "incorrect parameters P1-P2"},
    {0x87, "Lc inconsistent with P1-P2"},
    {0x88, "referenced data not found"},
}};
constexpr std::array<Sw2Text, 22> kDesfire{{
    {0x00, "[Success]  Successful operation"},
    {0x0C, "[Warning]  No changes done to the backup files, CommitTransaction / AbortTransaction not necessary"},
    {0x0E, "[Error]  Insufficient non-volatile memory to complete command"},
    {0x1C, "[Error]  Command code not supported"},
    {0x1E, "[Error]  CRC or MAC doesn't match data or padding bytes not valid"},
    {0x40, "[Error]  Invalid key number specified"},
    {0x7E, "[Error]  Length of command string invalid"},
    {0x9D, "[Error]  Current configuration / status doesn't allow the requested command"},
    {0x9E, "[Error]  Value of the parameter(s) invalid"},
    {0xA0, "[Error]  Requested Application not present on PICC"},
    {0xA1, "[Error]  Unrecoverable error within application, application will be disabled"},
    {0xAE, "[Error]  Current authentication status doesn't allow the requested command. Authenticate first."},
    {0xAF, "[Error]  Additional data frame is expected to be sent"},
    {0xBE,
     "[Error]  Attempt to read/write data from/to beyond the file's/record's limits or attempt to exceed the limits of "
     "a value file"},
    {0xC1, "[Error]  Unrecoverable error with PICC, PICC will be disabled"},
    {0xCA, "[Error]  Previous command wasn't fully completed. Not all frames were requested or provided by the PCD"},
    {0xCD, "[Error]  PICC was disabled by an unrecoverable error"},
    {0xCE, "[Error]  Number of applications limited to 28, no additional CreateApplication possible"},
    {0xDE, "[Error]  Creation of file/application failed because file/application with the same number already exists"},
    {0xEE,
     "[Error]  Could not complete non-volatile write operation due to loss of power, internal backup/rollback "
     "mechanism "
     "activated"},
    {0xF0, "[Error]  Specified file number doesn't exist"},
    {0xF1, "[Error]  Unrecoverable error within file, file will be disabled"},
}};

constexpr std::array kGroups{
    Group{0x90, "", {}, Otherwise::Fixed, "[OK]  Successful operation"},
    Group{0x61, "[OK]  ", {}, Otherwise::DecimalCount},
    Group{0x62, "[Warning]  State of non-volatile memory unchanged, ", k62, Otherwise::UnknownError},
    Group{0x63, "[Warning]  State of non-volatile memory changed, ", k63, Otherwise::UnknownError, {}, true},
    Group{0x64, "[Execution error]  State of non-volatile memory unchanged, ", kNoInformation, Otherwise::UnknownError},
    Group{0x65, "[Execution error]  State of non-volatile memory changed, ", k65, Otherwise::UnknownError},
    Group{0x66, "", {}, Otherwise::Fixed, "[Execution error]  Security-related issue."},
    Group{0x67, "[Checking error]  ", k67, Otherwise::UnknownError},
    Group{0x68, "[Checking error]  Function in CLA not supported, ", k68, Otherwise::UnknownError},
    Group{0x69, "[Checking error]  Command not allowed, ", k69, Otherwise::UnknownError},
    Group{0x6A, "[Checking error]  Wrong parameter(s) P1-P2, ", k6A, Otherwise::UnknownError},
    Group{0x6B, "[Checking error]  Wrong parameter(s) P1-P2, ", kNoInformation, Otherwise::UnknownError},
    Group{0x6C, "[Checking error]  Wrong length Le, should be ", {}, Otherwise::LastTwo},
    Group{0x6D, "[Checking error]  Instruction code not supported or invalid, ", kNoInformation,
          Otherwise::UnknownError},
    Group{0x6E, "[Checking error]  Class not supported, ", kNoInformation, Otherwise::UnknownError},
    Group{0x6F, "[Checking error]  No precise diagnosis, ", kNoInformation, Otherwise::UnknownError},
    Group{0x91, "", kDesfire, Otherwise::Fixed, kUnattended},
};

constexpr Group kLoadKeyGroup{0x69, "[Error]  ", k69LoadKey, Otherwise::Fixed, "Unknown error code"};

// One or two hex digits; anything unreadable counts as 0.
std::uint8_t ByteValue(std::string_view digits) noexcept {
    return static_cast<std::uint8_t>(cipher::HexNumber(digits).value_or(0));
}

std::string UpperLastTwo(std::string_view text) {
    std::string tail(text.substr(text.size() >= 2 ? text.size() - 2 : 0));
    for (char& c : tail)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return tail;
}

bool NamesLoadKey(std::string_view encoderCommand) {
    constexpr std::string_view kSuffix = ":loadkey";
    if (encoderCommand.size() < kSuffix.size()) return false;
    const auto tail = encoderCommand.substr(encoderCommand.size() - kSuffix.size());
    return std::equal(tail.begin(), tail.end(), kSuffix.begin(),
                      [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
}

std::string Describe(const Group& group, std::uint8_t sw2, std::string_view sw1sw2) {
    std::string text(group.prefix);
    for (const auto& row : group.rows) {
        if (row.sw2 == sw2) return text.append(row.text);
    }
    if (group.counter && (sw2 & 0xF0) == 0xC0) return text + "counter provided by " + std::to_string(sw2 & 0x0F);
    switch (group.otherwise) {
        case Otherwise::UnknownError:
            return text + "unknown error " + UpperLastTwo(sw1sw2);
        case Otherwise::LastTwo:
            return text + UpperLastTwo(sw1sw2);
        case Otherwise::DecimalCount:
            return text + std::to_string(sw2) + " response bytes still available";
        case Otherwise::Fixed:
            break;
    }
    return text.append(group.fixed);
}

}  // namespace

std::string GetResponseText(std::string_view sw1sw2, std::string_view encoderCommand) {
    try {
        std::uint8_t sw1 = 0x91;  // two characters: a DESFire status byte alone
        std::uint8_t sw2 = 0;
        if (sw1sw2.size() == 2) {
            sw2 = ByteValue(sw1sw2);
        } else {
            sw1 = ByteValue(sw1sw2.substr(0, 2));
            sw2 = ByteValue(sw1sw2.substr(sw1sw2.size() >= 2 ? sw1sw2.size() - 2 : 0));
        }
        if (sw1 == 0x69 && NamesLoadKey(encoderCommand)) return Describe(kLoadKeyGroup, sw2, sw1sw2);
        const auto group = std::find_if(kGroups.begin(), kGroups.end(), [&](const Group& g) { return g.sw1 == sw1; });
        if (group == kGroups.end()) return std::string(kUnattended);
        return Describe(*group, sw2, sw1sw2);
    } catch (...) {
        return std::string(kUnattended);
    }
}

}  // namespace elatectwn4::command
