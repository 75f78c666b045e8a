// What the DESFire benchmarks run on: an Encoder over the in-process
// simulated card, behind a PC/SC boundary that counts the transmissions and
// the time spent inside them, so that a benchmark can take the simulator's
// own time off the component's.
#pragma once

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "elatectwn4/encoder.h"
#include "elatectwn4/pcsc.h"
#include "sim/desfire/desfire_sim.h"
#include "sim/simulated_pcsc.h"

namespace elatectwn4::bench {

using Clock = std::chrono::steady_clock;

class MeasuredPcsc final : public PcscApi {
public:
    explicit MeasuredPcsc(std::shared_ptr<PcscApi> inner) : inner_(std::move(inner)) {}

    std::uint32_t EstablishContext(std::uint32_t scope, PcscHandle& context) override {
        return inner_->EstablishContext(scope, context);
    }
    std::uint32_t ReleaseContext(PcscHandle context) override { return inner_->ReleaseContext(context); }
    std::uint32_t ListReaders(PcscHandle context, std::vector<std::string>& readers) override {
        return inner_->ListReaders(context, readers);
    }
    std::uint32_t Connect(PcscHandle context, const std::string& reader, std::uint32_t share, std::uint32_t protocols,
                          PcscHandle& card, std::uint32_t& active) override {
        return inner_->Connect(context, reader, share, protocols, card, active);
    }
    std::uint32_t Disconnect(PcscHandle card, std::uint32_t disposition) override {
        return inner_->Disconnect(card, disposition);
    }
    std::uint32_t Status(PcscHandle card, PcscStatus& status) override { return inner_->Status(card, status); }
    std::uint32_t GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) override {
        return inner_->GetAttrib(card, attribute, value);
    }
    std::uint32_t Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                           std::span<std::uint8_t> answer, std::size_t& received) override {
        const auto start = Clock::now();
        const std::uint32_t result = inner_->Transmit(card, protocol, command, answer, received);
        inside += Clock::now() - start;
        ++transmissions;
        return result;
    }

    void Reset() {
        inside = {};
        transmissions = 0;
    }

    Clock::duration inside{};
    long transmissions = 0;

private:
    std::shared_ptr<PcscApi> inner_;
};

inline const std::string kFactoryKey = "0000000000000000";
inline const std::string kAppKey = "4A1B7C3D5E6F708192A3B4C5D6E7F809";

/// A factory DESFire card in the simulated reader, the encoder open on it with
/// Conformance=card, and application A1B2C3 with `keys` keys whose master key
/// is kAppKey (Triple-DES). Null, with a message naming `program`, when the
/// reader does not open.
struct SimulatedDesfire {
    std::shared_ptr<MeasuredPcsc> pcsc;
    std::unique_ptr<Encoder> encoder;
};

inline SimulatedDesfire OpenSimulatedDesfire(const char* program, std::int32_t keys) {
    auto simulator = std::make_shared<sim::SimulatedPcsc>();
    simulator->Readers()[0]->Insert(std::make_shared<sim::desfire::DesfireCard>());
    SimulatedDesfire run{std::make_shared<MeasuredPcsc>(simulator), nullptr};
    run.encoder = std::make_unique<Encoder>(run.pcsc);
    Encoder& encoder = *run.encoder;
    encoder.Parameters("Device=" + std::string(sim::kDefaultReaderNames[0]) + ";Conformance=card");
    if (encoder.OpenEncoder() != sceSuccess) {
        std::fprintf(stderr, "%s: cannot open the simulated reader: %s\n", program,
                     encoder.LastError().Description.c_str());
        run.encoder.reset();
        return run;
    }
    encoder.DESFireSelectRoot(kFactoryKey);
    encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), keys);
    encoder.DESFireSelectApplication("A1B2C3", 0, kFactoryKey);
    encoder.DESFireChangeKey(0, kFactoryKey, kAppKey);
    return run;
}

}  // namespace elatectwn4::bench
