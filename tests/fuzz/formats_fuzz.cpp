// Every text and byte format the component reads, fed the same input:
// - the hex codec: a strict reading refuses a text or reads back to its
//   digits, a lenient one never refuses, and bytes survive their hex;
// - the DES engine's data forms: bytes written in any form read back to
//   themselves, a text a form accepts reads to bytes that write back to its
//   canonical text, mixed arrays read element by element, and a conversion
//   code does what its reading and writing do;
// - the registry file: a hive that parses writes out to a text that parses
//   back to the same hive, and a hive built from any names and data survives
//   the trip through its file;
// - the twn4 script: calls or a short usage error, each call fits its member,
//   and a line's words, quoted again, split back to themselves;
// - the vpcd link: however TCP cuts a stream, the decoder gives the frames a
//   plain reading gives, keeps exactly the rest, and each frame reaches the
//   card as the power message or the command it is.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "cipher/bytes.h"
#include "cipher/convert.h"
#include "cipher/des.h"
#include "cli/script.h"
#include "fuzz_support.h"
#include "registry/reg_file.h"
#include "sim/bridge/vpcd_protocol.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::cipher;
using elatectwn4::fuzz::Check;
using elatectwn4::fuzz::Input;
using Bytes = std::vector<std::uint8_t>;

// ---- Hex ------------------------------------------------------------------------

std::string DigitsOf(std::string_view text) {
    std::string digits;
    for (char c : text) {
        if (IsBlank(c)) continue;
        digits.push_back(c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c);
    }
    return digits;
}

void CheckHex(ByteView bytes, std::string_view text) {
    const auto back = ParseHex(ToHex(bytes, ' '));
    Check(back && ByteArray(bytes.begin(), bytes.end()) == *back, "bytes survive their hex");

    const auto parsed = ParseHex(text);
    const auto count = CountHexDigits(text);
    Check(parsed.has_value() == count.has_value(), "counting agrees with parsing");
    std::string normalised(text);
    Check(IsHexText(normalised) == parsed.has_value(), "the test agrees with parsing");
    if (parsed) {
        Check(parsed->size() == (*count + 1) / 2, "two digits a byte");
        std::string digits = DigitsOf(text);
        if (digits.size() % 2 != 0) digits.insert(digits.begin(), '0');
        Check(ToHex(*parsed) == digits, "the digits come back");
        Check(normalised == DigitsOf(text), "normalising gives the digits");
    } else {
        Check(normalised == text, "refused text stays as it was");
    }
    const auto lenient = ParseHex(text, HexSyntax{IsBlank, true});
    Check(lenient.has_value(), "a lenient reading never refuses");
    if (parsed) Check(*lenient == *parsed, "lenient and strict agree");
}

// ---- Data forms -----------------------------------------------------------------

// The byte count a text of `form` must give, counted independently of the reader.
std::size_t ExpectedCount(const std::string& text, int form) {
    std::size_t digits = 0, runs = 0;
    bool inRun = false;
    for (char c : text) {
        const bool separator = IsSeparator(c);
        digits += !separator;
        runs += !separator && !inRun;
        inRun = !separator;
    }
    switch (static_cast<DataForm>(form)) {
        case DataForm::HexText:
            return (digits + 1) / 2;
        case DataForm::CompactHex:
            return (text.size() + 1) / 2;
        case DataForm::BitText:
            return digits / 8;
        case DataForm::DecimalList:
            return runs;
        default:
            return text.size();
    }
}

void CheckDataForms(ByteView bytes, const std::string& text) {
    const ByteArray original(bytes.begin(), bytes.end());
    for (int form = 0; form <= kLastForm; ++form)
        Check(ReadForm(WriteForm(bytes, form), form) == original, "bytes survive every form");

    for (int form : {0, 1, 3, 4, 6}) {
        ByteArray read;
        try {
            read = ReadForm(Value(text), form);
        } catch (const DesError&) {
            continue;  // a text this form refuses
        }
        Check(read.size() == ExpectedCount(text, form), "a text reads to as many bytes as it spells");
        Check(ReadForm(WriteForm(read, form), form) == read, "what a text reads to writes back the same");
        // One conversion code reads one form and writes another.
        const int to = bytes.empty() ? 0 : bytes[0] % (kLastForm + 1);
        Check(ReadForm(DES::ConvertData(Value(text), form * 256 + to), to) == read,
              "a conversion code reads then writes");
    }

    // A mixed array: each pair of input bytes is an element's kind and value.
    MixedArray elements;
    ByteArray expected;
    bool acceptable = true;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const std::uint8_t value = bytes[i + 1];
        switch (bytes[i] % 4) {
            case 0:
                elements.emplace_back(std::int64_t{value});
                expected.push_back(value);
                break;
            case 1:
                elements.emplace_back(value % 2 == 1);
                expected.push_back(value % 2);
                break;
            case 2:
                // x.5 rounds to the even neighbour
                elements.emplace_back(value + 0.5);
                expected.push_back(static_cast<std::uint8_t>(value % 2 == 0 ? value : value + 1));
                acceptable = acceptable && value < 255;
                break;
            default:
                elements.emplace_back(std::int64_t{value} + 256);
                acceptable = false;
        }
    }
    try {
        const ByteArray read = ReadForm(Value(elements), static_cast<int>(DataForm::KeyBytes));
        Check(acceptable && read == expected, "a mixed array reads element by element");
    } catch (const DesError&) {
        Check(!acceptable, "a mixed array of bytes is accepted");
    }
}

// ---- Registry file --------------------------------------------------------------

constexpr std::string_view kRoot = "HKEY_LOCAL_MACHINE";

// What a write then a read gives back: text that a quoted string cannot
// carry travels as hex(1) bytes.
registry::Hive AsReadBack(registry::Hive hive) {
    for (auto& key : hive.keys) {
        for (auto& value : key.values) {
            const auto* text = std::get_if<std::string>(&value.data);
            if (text != nullptr && text->find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos)
                value.data = registry::EncodeRawText(*text, hive.format);
        }
    }
    return hive;
}

void CheckRoundTrip(const registry::Hive& hive) {
    const std::string text = registry::SerializeHive(hive, kRoot);
    const registry::ParseResult again = registry::ParseHive(text, kRoot);
    // The text goes with a failure's record: it is what to look at.
    if (!again.hive || *again.hive != AsReadBack(hive)) std::fprintf(stderr, "written:\n%s\n", text.c_str());
    Check(again.hive.has_value(), "a written hive parses");
    Check(*again.hive == AsReadBack(hive), "a written hive reads back equal");
    Check(registry::SerializeHive(*again.hive, kRoot) == text, "writing the read-back hive gives the same text");
}

// A hive made of whatever names and data the input holds.
registry::Hive BuildHive(Input& in) {
    registry::Hive hive;
    hive.format = in.Byte() % 2 == 0 ? registry::FileFormat::Version5 : registry::FileFormat::Version4;
    hive.crlf = in.Byte() % 2 == 0;
    const int keys = in.Byte() % 4;
    for (int k = 0; k < keys && !in.empty(); ++k) {
        const auto components = registry::SplitKeyPath(in.Text(24));
        if (!components) continue;  // a path no file can name
        std::string path;
        for (const auto& component : *components)
            path += (path.empty() ? "" : "\\") + component;
        registry::StoredKey& key = hive.CreateKey(path);
        const int values = in.Byte() % 5;
        for (int v = 0; v < values && !in.empty(); ++v) {
            std::string name = in.Text(16);
            if (!registry::IsValueName(name)) continue;  // refused before it reaches a hive
            switch (in.Byte() % 3) {
                case 0:
                    key.SetValue(name, in.Text());
                    break;
                case 1:
                    key.SetValue(name, in.Number());
                    break;
                default: {
                    registry::RawData raw{in.Byte() % 12u, {}};
                    for (char c : in.Text(80))
                        raw.bytes.push_back(static_cast<std::uint8_t>(c));
                    key.SetValue(name, std::move(raw));
                }
            }
        }
    }
    return hive;
}

// The first byte chooses between the rest as a file and the rest as a hive's makings.
void CheckRegistry(ByteView bytes) {
    if (bytes.empty()) return;
    Input in(bytes.data() + 1, bytes.size() - 1);
    if (bytes[0] % 2 == 0) {
        const registry::ParseResult parsed = registry::ParseHive(in.rest(), kRoot);
        Check(parsed.hive.has_value() != (parsed.badLine != 0), "a file parses or names its bad line");
        if (parsed.hive) CheckRoundTrip(*parsed.hive);
    } else {
        CheckRoundTrip(BuildHive(in));
    }
}

// ---- twn4 script ----------------------------------------------------------------

std::string Quoted(const std::string& word) {
    std::string out = "\"";
    for (char c : word) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

void CheckScript(std::string_view text) {
    try {
        for (const cli::Call& call : cli::ParseScript(text)) {
            Check(call.where.starts_with("line "), "a call knows its line");
            if (call.member != nullptr)
                Check(call.args.size() <= call.member->params.size(), "a call has no more arguments than its member");
        }
    } catch (const cli::UsageError& e) {
        // A message names the line and the member's signature at most; the caller's own text is cut.
        Check(std::string_view(e.what()).size() < 600, "a usage message stays short");
    }
    try {
        const std::vector<std::string> words = cli::SplitLine(text.substr(0, text.find('\n')));
        std::string again;
        for (const auto& word : words)
            again += (again.empty() ? "" : " ") + Quoted(word);
        Check(cli::SplitLine(again) == words, "quoted words split back to themselves");
    } catch (const cli::UsageError&) {
        // an unterminated quote
    }
}

// ---- vpcd link ------------------------------------------------------------------

// Records what vpcd asked of it.
class RecordingSlot : public sim::bridge::CardSlot {
public:
    std::string calls;
    Bytes lastApdu;
    Bytes Atr() override {
        calls += 'A';
        return {0x3B, 0x80};
    }
    void PowerOff() override { calls += '0'; }
    void PowerOn() override { calls += '1'; }
    void Reset() override { calls += 'R'; }
    Bytes Transmit(std::span<const std::uint8_t> apdu) override {
        calls += 'T';
        lastApdu.assign(apdu.begin(), apdu.end());
        return {0x90, 0x00};
    }
};

void CheckAnswer(const Bytes& frame) {
    RecordingSlot slot;
    const auto answer = sim::bridge::AnswerVpcd(slot, frame);
    if (frame.size() == 1 && frame[0] <= 0x02) {
        Check(!answer && slot.calls == std::string(1, "01R"[frame[0]]), "a power message drives the power line");
    } else if (frame.size() == 1 && frame[0] == 0x04) {
        Check(answer == Bytes{0x3B, 0x80} && slot.calls == "A", "a request for the ATR gets the ATR");
    } else {
        Check(answer == Bytes{0x90, 0x00} && slot.calls == "T" && slot.lastApdu == frame,
              "any other message reaches the card whole");
    }
}

// The first byte decides where the stream is cut; the rest is the stream.
void CheckVpcd(ByteView bytes) {
    if (bytes.empty()) return;
    std::uint32_t cut = bytes[0] | 1u;
    const ByteView stream = bytes.subspan(1);

    // A plain reading of the whole stream.
    std::vector<Bytes> expected;
    std::size_t at = 0;
    while (stream.size() - at >= 2) {
        const std::size_t length = std::size_t{stream[at]} << 8 | stream[at + 1];
        if (stream.size() - at - 2 < length) break;
        const auto frame = stream.subspan(at + 2, length);
        expected.emplace_back(frame.begin(), frame.end());
        at += 2 + length;
    }

    sim::bridge::FrameDecoder decoder;
    std::vector<Bytes> frames;
    for (std::size_t fed = 0; fed < stream.size();) {
        cut = cut * 1103515245u + 12345u;
        const std::size_t piece = std::min<std::size_t>(1 + (cut >> 16) % 9, stream.size() - fed);
        decoder.Feed(stream.subspan(fed, piece));
        fed += piece;
        while (auto frame = decoder.Next())
            frames.push_back(std::move(*frame));
    }
    Check(frames == expected, "the frames do not depend on where the stream was cut");
    Check(decoder.Pending() == stream.size() - at, "the decoder keeps exactly the incomplete rest");

    Bytes again;
    for (const auto& frame : frames) {
        const Bytes encoded = sim::bridge::EncodeFrame(frame);
        again.insert(again.end(), encoded.begin(), encoded.end());
        CheckAnswer(frame);
    }
    Check(again == Bytes(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(at)),
          "the frames encode back to the stream they came from");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView bytes(data, size);
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckHex(bytes, text);
    CheckDataForms(bytes, text);
    CheckRegistry(bytes);
    CheckScript(text);
    CheckVpcd(bytes);
    return 0;
}
