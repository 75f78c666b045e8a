// The test build of the COM server: its Encoders see simulated readers
// instead of winscard (Wine's is a stub). "Virtual PCD 00 00" holds a
// MIFARE Classic 1K card, "Virtual PCD 00 01" a DESFire card, and
// "Virtual PCD 00 02" stays empty. The cards live as long as the process.
#include "com/win/module.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"

namespace elatectwn4::com::win {

std::shared_ptr<PcscApi> ServerPcsc() {
    static const auto pcsc = [] {
        auto readers = std::make_shared<sim::SimulatedPcsc>(
            std::vector<std::string>{"Virtual PCD 00 00", "Virtual PCD 00 01", "Virtual PCD 00 02"});
        readers->FindReader("Virtual PCD 00 00")->Insert(sim::MakeCard("mifare1k"));
        readers->FindReader("Virtual PCD 00 01")->Insert(sim::MakeCard("desfire"));
        return readers;
    }();
    return pcsc;
}

}  // namespace elatectwn4::com::win
