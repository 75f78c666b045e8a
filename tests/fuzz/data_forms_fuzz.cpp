// The data forms of the DES engine: bytes written in any form read back to
// themselves, any text a form accepts reads to bytes that write back to its
// canonical text, mixed arrays read element by element, and a conversion
// code does what its reading and writing do.
#include <cstddef>
#include <cstdint>
#include <string>

#include "cipher/convert.h"
#include "cipher/des.h"
#include "fuzz_support.h"

namespace {

using namespace elatectwn4::cipher;
using elatectwn4::fuzz::Check;

// The byte count a text of `form` must give, counted independently of the reader.
std::size_t ExpectedCount(const std::string& text, int form) {
    std::size_t digits = 0;
    std::size_t runs = 0;
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView bytes(data, size);
    const ByteArray original(bytes.begin(), bytes.end());
    for (int form = 0; form <= kLastForm; ++form) {
        Check(ReadForm(WriteForm(bytes, form), form) == original, "bytes survive every form");
    }

    const std::string text(reinterpret_cast<const char*>(data), size);
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
        const int to = size == 0 ? 0 : data[0] % (kLastForm + 1);
        const Value converted = DES::ConvertData(Value(text), form * 256 + to);
        Check(ReadForm(converted, to) == read, "a conversion code reads then writes");
    }

    // A mixed array: each byte of the input chooses an element's kind.
    MixedArray elements;
    ByteArray expected;
    bool acceptable = true;
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        const std::uint8_t value = data[i + 1];
        switch (data[i] % 4) {
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
    return 0;
}
