// elatectwn4_create_simulated of the C interface. It lives apart from the
// component so that libelatectwn4 itself needs nothing but libpcsclite.
#include <iostream>
#include <new>

#include "elatectwn4/c_handle.h"
#include "sim/simulation/simulation.h"

extern "C" ELATECTWN4_C_API elatectwn4_encoder* elatectwn4_create_simulated(const char* kind, const char* state_file,
                                                                            char** message) {
    if (message != nullptr) *message = nullptr;
    try {
        auto simulation = std::make_shared<elatectwn4::sim::Simulation>(kind ? kind : "", state_file ? state_file : "");
        auto encoder = std::make_unique<elatectwn4::Encoder>(simulation->pcsc());
        encoder->Parameters(std::string("Device=") + elatectwn4::sim::kSimulatedReader);
        auto* handle = elatectwn4::c_api::WrapEncoder(std::move(encoder), [simulation]() {
            try {
                simulation->Save();
            } catch (const std::exception& e) {
                std::cerr << "elatectwn4: " << e.what() << '\n';
            }
        });
        if (handle == nullptr) throw std::bad_alloc();
        return handle;
    } catch (const std::exception& e) {
        if (message != nullptr) *message = elatectwn4::c_api::Duplicate(e.what());
        return nullptr;
    } catch (...) {
        if (message != nullptr) *message = elatectwn4::c_api::Duplicate("unexpected failure");
        return nullptr;
    }
}
