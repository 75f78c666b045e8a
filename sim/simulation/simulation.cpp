#include "sim/simulation/simulation.h"

#include <stdexcept>

#include "sim/bridge/state_file.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"

namespace elatectwn4::sim {

struct Simulation::Impl {
    std::shared_ptr<SimulatedPcsc> pcsc;
    std::shared_ptr<Card> card;
    std::string stateFile;
};

Simulation::Simulation(const std::string& kind, std::string stateFile) : impl_(std::make_unique<Impl>()) {
    impl_->card = MakeCard(kind);
    impl_->stateFile = std::move(stateFile);
    if (!impl_->stateFile.empty()) {
        try {
            if (auto state = bridge::ReadStateFile(impl_->stateFile)) impl_->card->Load(*state);
        } catch (const std::exception& e) {
            throw std::runtime_error("cannot load the card from " + impl_->stateFile + ": " + e.what());
        }
    }
    impl_->pcsc = std::make_shared<SimulatedPcsc>(std::vector<std::string>{kSimulatedReader});
    impl_->pcsc->FindReader(kSimulatedReader)->Insert(impl_->card);
}

Simulation::~Simulation() = default;

std::shared_ptr<PcscApi> Simulation::pcsc() const {
    return impl_->pcsc;
}

void Simulation::Save() const {
    // The card's keys are in it: the file is its owner's alone, and an
    // interrupted run never leaves half a card behind.
    if (!impl_->stateFile.empty()) bridge::WriteStateFile(impl_->stateFile, impl_->card->Save());
}

}  // namespace elatectwn4::sim
