#include "sim/simulation/simulation.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

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
    if (!impl_->stateFile.empty() && std::filesystem::exists(impl_->stateFile)) {
        std::ifstream in(impl_->stateFile);
        nlohmann::json state;
        try {
            in >> state;
            impl_->card->Load(state);
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
    if (impl_->stateFile.empty()) return;
    // Written beside the target and renamed over it, so an interrupted run
    // never leaves half a card behind.
    const std::string temporary = impl_->stateFile + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << impl_->card->Save().dump(2) << '\n';
        if (!out) throw std::runtime_error("cannot write " + temporary);
    }
    std::filesystem::rename(temporary, impl_->stateFile);
}

}  // namespace elatectwn4::sim
