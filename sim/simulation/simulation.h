// The in-process simulator as the tool offers it: one simulated reader named
// "Virtual PCD 00 00" holding a card of the chosen kind, whose contents can
// be kept in a JSON file between runs.
#pragma once

#include <memory>
#include <string>

#include "elatectwn4/pcsc.h"

namespace elatectwn4::sim {

/// The reader name the simulated card sits in.
inline constexpr const char* kSimulatedReader = "Virtual PCD 00 00";

class Simulation {
public:
    /// kind: "mifare1k", "mifare4k" or "desfire". stateFile: "" = nothing
    /// kept; otherwise loaded when it exists and saved by Save().
    /// Throws std::invalid_argument for an unknown kind and std::runtime_error
    /// for an unreadable state file.
    Simulation(const std::string& kind, std::string stateFile);
    ~Simulation();

    std::shared_ptr<PcscApi> pcsc() const;
    /// Writes the card's contents to the state file (atomically); no-op without one.
    void Save() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace elatectwn4::sim
