// elatectwn4_create_simulated of the C interface. It lives apart from the
// component so that libelatectwn4 itself needs nothing but libpcsclite.
#include <iostream>

#include "com/c_encoder.h"
#include "sim/simulation/simulation.h"

extern "C" ELATECTWN4_C_API elatectwn4_encoder* elatectwn4_create_simulated(const char* kind, const char* state_file,
                                                                            char** message) {
    if (message != nullptr) *message = nullptr;
    try {
        auto simulation = std::make_shared<elatectwn4::sim::Simulation>(kind ? kind : "", state_file ? state_file : "");
        auto encoder = std::make_unique<elatectwn4::Encoder>(simulation->pcsc());
        encoder->Parameters(std::string("Device=") + elatectwn4::sim::kSimulatedReader);
        return new elatectwn4_encoder{std::move(encoder), [simulation]() {
                                          try {
                                              simulation->Save();
                                          } catch (const std::exception& e) {
                                              std::cerr << "elatectwn4: " << e.what() << '\n';
                                          }
                                      }};
    } catch (const std::exception& e) {
        if (message != nullptr) *message = elatectwn4::c_api::Duplicate(e.what());
        return nullptr;
    }
}
