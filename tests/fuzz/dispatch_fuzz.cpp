// Late-bound calls with any arguments on an encoder over a simulated card:
// a call is refused before anything is sent, or made; a member that fails
// leaves a full error record; nothing else escapes.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "elatectwn4/dispatch.h"
#include "elatectwn4/encoder.h"
#include "fuzz_support.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"

namespace {

using namespace elatectwn4;
using elatectwn4::fuzz::Check;
using elatectwn4::fuzz::Input;

constexpr const char* kReader = "Virtual PCD 00 00";

// Texts that make calls go further than random bytes would.
constexpr std::array<const char*, 10> kTexts{"FFFFFFFFFFFF",
                                             "0000000000000000",
                                             "00112233445566778899AABBCCDDEEFF",
                                             "A1B2C3",
                                             "000000",
                                             "FF CA 00 00 00",
                                             "FF 82 00 01 06 FFFFFFFFFFFF",
                                             "60",
                                             "Conformance=card",
                                             "9000"};

Variant AnyValue(Input& in) {
    switch (in.Byte() % 8) {
        case 0:
            return std::monostate{};
        case 1:
            return in.Byte() % 2 == 1;
        case 2:
            return in.Byte();
        case 3:
            return static_cast<std::int32_t>(in.Number());
        case 4:
            return static_cast<std::int32_t>(in.Number()) / 7.0;
        case 5:
            return std::string(kTexts[in.Byte() % kTexts.size()]);
        case 6: {
            const std::string text = in.Text(40);
            return std::vector<std::uint8_t>(text.begin(), text.end());
        }
        default:
            return in.Text(40);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    static constexpr std::array<const char*, 3> kCards{"mifare1k", "mifare4k", "desfire"};
    auto pcsc = std::make_shared<sim::SimulatedPcsc>();
    // What reaches the card shows whether a refused call sent anything.
    const auto reader = pcsc->FindReader(kReader);
    reader->Insert(sim::MakeCard(kCards[in.Byte() % kCards.size()]));
    Encoder encoder(pcsc);
    encoder.Parameters(std::string("Device=") + kReader);
    if (in.Byte() % 4 != 0) encoder.OpenEncoder();

    std::vector<const MemberInfo*> members;
    for (const auto& m : Members()) {
        // Configure starts a window program: a fuzzer must not open desktops.
        if (m.interfaceName == "_Encoder" && m.name != "Configure") members.push_back(&m);
    }
    for (int call = 0; call < 8 && !in.empty(); ++call) {
        const MemberInfo& member = *members[in.Byte() % members.size()];
        std::vector<Variant> args(in.Byte() % (member.params.size() + 2));
        for (auto& arg : args)
            arg = AnyValue(in);
        const std::uint64_t before = reader->ExchangeCount();
        try {
            const DispatchResult result = Invoke(encoder, member.name, member.kind, args);
            if (member.resultTypeName == "sceReturnCode") {
                const auto* code = std::get_if<std::int32_t>(&result.value);
                Check(code != nullptr && (*code == sceSuccess || *code == sceError), "a result code is 0 or 2");
                const CError& e = encoder.LastError();
                if (*code == sceError) {
                    Check(e.Number != 0 && !e.Description.empty() && !e.ComFunction.empty(),
                          "a failure leaves a full record");
                }
            }
        } catch (const DispatchError& e) {
            Check(reader->ExchangeCount() == before, "a refused call sends nothing");
            Check(*e.what() != '\0' && std::string_view(e.what()).size() < 300, "a refusal says briefly why");
        }
    }
    return 0;
}
