// The DESFire members over the in-process simulated card: how many APDUs each
// operation sends (against the count the protocol needs), and the time the
// component adds per operation on top of the simulator's own exchanges (the
// time spent inside the simulated reader's Transmit is measured and taken
// off). Prints one table.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/simulated_desfire.h"

namespace {

using namespace elatectwn4;
using bench::Clock;
using bench::kAppKey;
using bench::kFactoryKey;

struct Operation {
    const char* name;
    long expectedApdus;
    std::function<void(Encoder&)> prepare;  // not measured
    std::function<sceReturnCode(Encoder&)> run;
};

}  // namespace

int main() {
    // An application with a Triple-DES master key, for the application-level rows.
    bench::SimulatedDesfire run = bench::OpenSimulatedDesfire("desfire_bench", 2);
    if (!run.encoder) return 1;
    Encoder& encoder = *run.encoder;
    bench::MeasuredPcsc* pcsc = run.pcsc.get();

    std::string text;
    std::int32_t a = 0, b = 0;
    Variant information;
    const auto root = [](Encoder& e) { e.DESFireSelectRoot(kFactoryKey); };
    const auto application = [](Encoder& e) { e.DESFireSelectApplication("A1B2C3", 0, kAppKey); };
    const std::vector<Operation> operations{
        {"DESFireSelectRoot (DES)", 3, nullptr, [](Encoder& e) { return e.DESFireSelectRoot(kFactoryKey); }},
        {"DESFireSelectApplication (3DES)", 3, nullptr,
         [](Encoder& e) { return e.DESFireSelectApplication("A1B2C3", 0, kAppKey); }},
        {"DESFireGetVersion, first", 3,
         [](Encoder& e) {
             e.CloseEncoder();
             e.OpenEncoder();
         },
         [&](Encoder& e) { return e.DESFireGetVersion(dfvAllData, information); }},
        {"DESFireGetVersion, cached", 0, nullptr, [&](Encoder& e) { return e.DESFireGetVersion(dfvUID, information); }},
        {"DESFireGetApplications", 1, root, [&](Encoder& e) { return e.DESFireGetApplications(text); }},
        {"DESFireCreateApplication", 1,
         [](Encoder& e) {
             e.DESFireSelectRoot(kFactoryKey);
             e.DESFireDeleteApplication("0A0B0C");
         },
         [](Encoder& e) { return e.DESFireCreateApplication("0A0B0C", DesfireKeySettings(0x0F), 1); }},
        {"DESFireDeleteApplication", 1,
         [](Encoder& e) {
             // Creation is free on a factory card; deletion needs the master key.
             e.DESFireCreateApplication("0A0B0C", DesfireKeySettings(0x0F), 1);
             e.DESFireSelectRoot(kFactoryKey);
         },
         [](Encoder& e) { return e.DESFireDeleteApplication("0A0B0C"); }},
        {"DESFireGetKeySettings", 1, application, [&](Encoder& e) { return e.DESFireGetKeySettings(a, b); }},
        {"DESFireGetKeyVersion", 1, application, [&](Encoder& e) { return e.DESFireGetKeyVersion(1, a); }},
        {"DESFireChangeKeySettings", 1, application,
         [](Encoder& e) { return e.DESFireChangeKeySettings(DesfireKeySettings(0x0F)); }},
        {"DESFireChangeKey, another key", 1, application,
         [](Encoder& e) { return e.DESFireChangeKey(1, kFactoryKey, kFactoryKey); }},
        {"DESFireChangeKey, the session's", 1, application,
         [](Encoder& e) { return e.DESFireChangeKey(0, kAppKey, kAppKey); }},
    };

    constexpr int kRuns = 2000;
    std::printf("%-34s %6s %6s %12s %12s %12s\n", "operation", "APDUs", "needed", "total us/op", "sim us/op",
                "added us/op");
    int mismatches = 0;
    for (const Operation& op : operations) {
        Clock::duration total{};
        Clock::duration inside{};
        long apdus = 0;
        bool failed = false;
        for (int i = 0; i < kRuns && !failed; ++i) {
            if (op.prepare) op.prepare(encoder);
            pcsc->Reset();
            const auto start = Clock::now();
            failed = op.run(encoder) != sceSuccess;
            total += Clock::now() - start;
            inside += pcsc->inside;
            apdus += pcsc->transmissions;
        }
        if (failed) {
            std::printf("%-34s failed: %s (%s)\n", op.name, encoder.LastError().Description.c_str(),
                        encoder.LastError().RdrRetCode.c_str());
            ++mismatches;
            continue;
        }
        const auto us = [](Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count() / kRuns; };
        const double perOp = static_cast<double>(apdus) / kRuns;
        const bool match = perOp == static_cast<double>(op.expectedApdus);
        mismatches += match ? 0 : 1;
        std::printf("%-34s %6.2f %6ld %12.2f %12.2f %12.2f%s\n", op.name, perOp, op.expectedApdus, us(total),
                    us(inside), us(total - inside), match ? "" : "  <- more APDUs than needed");
    }
    return mismatches == 0 ? 0 : 1;
}
