// The same personalisation on two readers from two threads, one Encoder
// each, against one reader alone: both throughputs and their ratio. The
// encoders share nothing, so two readers should give nearly twice the work
// of one (aim: a ratio of at least 1.8).
//
// The job follows the card in the reader: on a MIFARE Classic 1K card a
// sector is personalised (trailer with two keys, three data blocks written
// and read back under key B, transport trailer restored); on a DESFire card
// an application gets an enciphered file, written and read back, and is
// deleted again. Every job leaves the card as it found it.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "elatectwn4/encoder.h"
#include "sim/simulated_pcsc.h"

namespace {

using namespace elatectwn4;
using Clock = std::chrono::steady_clock;

constexpr const char* kUsage =
    "usage: two_readers_bench [--pcscd] [--jobs N] [--delay MS] [READER0 READER1]\n"
    "\n"
    "Runs one personalisation job after another on READER0 alone, then on both\n"
    "readers at once from two threads (one Encoder each), and prints the jobs per\n"
    "second of each run and their ratio (aim: at least 1.8).\n"
    "\n"
    "Without --pcscd the readers are the in-process simulator's, run with a MIFARE\n"
    "Classic 1K card in each and with a DESFire card in each: first as fast as the\n"
    "component and the simulator go (the ratio then says how many cores were free),\n"
    "then with MS milliseconds added to every answer (--delay, default 1), as a\n"
    "real reader's radio adds them.\n"
    "\n"
    "With --pcscd the readers are the system's (default \"Virtual PCD 00 00\" and\n"
    "\"Virtual PCD 00 01\"), which must hold cards of the same kind. For the vpcd\n"
    "readers start pcscd and one bridge per slot first, for example:\n"
    "    scripts/pcscd-up.sh --vcard build/sim/bridge/twn4-vcard\n"
    "    build/sim/bridge/twn4-vcard --port 35963 --card desfire --delay 3 &\n"
    "    build/sim/bridge/twn4-vcard --port 35964 --card desfire --delay 3 &\n"
    "and stop them afterwards (kill the bridges, scripts/pcscd-down.sh). Without\n"
    "--delay every exchange is work for the host's processors alone (pcscd, the\n"
    "bridges and this program), and the ratio again says how many cores were free.\n"
    "\n"
    "  --jobs N   jobs per reader and run (default 20; 1000 in-process without delay)\n";

const std::string kTransportKey = "FFFFFFFFFFFF";
const std::string kKeyA = "A0A1A2A3A4A5";
const std::string kKeyB = "B0B1B2B3B4B5";
const std::string kFactoryKey = "0000000000000000";
const std::string kAppKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";

// A failed step ends the job; the text says which and why.
struct JobFailure {
    std::string text;
};

void Check(Encoder& e, sceReturnCode result, const char* step) {
    if (result != sceSuccess)
        throw JobFailure{std::string(step) + ": " + e.LastError().Description + " (" + e.LastError().ComFunction +
                         ", " + e.LastError().RdrRetCode + ")"};
}

void PersonaliseMifareSector(Encoder& e) {
    constexpr std::int32_t kSector = 2;
    Check(e,
          e.WriteSectorTrailer(kSector, kTransportKey, 0, kKeyA, kKeyB, 2, scbs_A_Read | scbs_B_ReadWrite,
                               scbs_A_Read | scbs_B_ReadWrite, scbs_A_Read | scbs_B_ReadWrite,
                               scss_B_WriteKeysConditions),
          "WriteSectorTrailer");
    for (std::int32_t block = 4 * kSector; block < 4 * kSector + 3; ++block) {
        std::string data = "4A616E6520446F65202F2030303432" + std::to_string(block % 10) + "0";
        Check(e, e.WriteDataBloc(block, kKeyB, 2, data), "WriteDataBloc");
        std::string back;
        Check(e, e.ReadDataBloc(block, kKeyA, 0, back), "ReadDataBloc");
        if (back != data) throw JobFailure{"block " + std::to_string(block) + " read back differs"};
    }
    Check(e,
          e.WriteSectorTrailer(kSector, kKeyB, 2, kTransportKey, kTransportKey, 1, scbs_A_ReadWrite, scbs_A_ReadWrite,
                               scbs_A_ReadWrite, scss_A_WriteKeysConditions),
          "WriteSectorTrailer (restore)");
}

void PersonaliseDesfireApplication(Encoder& e) {
    const std::string app = "B1B2B3";
    const DesfireAccessRights key0 = DesfireAccessRights(0);
    const std::string holder = "Jane Doe / 12 Harbour Road / Springfield / member 0042 / valid to 2028-12-31";
    Check(e, e.DESFireSelectRoot(kFactoryKey), "DESFireSelectRoot");
    Check(e, e.DESFireCreateApplication(app, DesfireKeySettings(0x0F), 1), "DESFireCreateApplication");
    Check(e, e.DESFireSelectApplication(app, 0, kFactoryKey), "DESFireSelectApplication");
    Check(e, e.DESFireChangeKey(0, kFactoryKey, kAppKey), "DESFireChangeKey");
    Check(e, e.DESFireSelectApplication(app, 0, kAppKey), "DESFireSelectApplication");
    Check(e, e.DESFireCreateStdDataFile(1, dfcCiphered, key0, key0, key0, key0, 96), "DESFireCreateStdDataFile");
    Check(e, e.DESFireWriteData(1, 0, 0, holder, false), "DESFireWriteData");
    std::string back;
    Check(e, e.DESFireReadData(1, 0, static_cast<std::int32_t>(holder.size()), back, false), "DESFireReadData");
    if (back != holder) throw JobFailure{"the file read back differs"};
    Check(e, e.DESFireSelectRoot(kFactoryKey), "DESFireSelectRoot");
    Check(e, e.DESFireDeleteApplication(app), "DESFireDeleteApplication");
}

struct Station {
    std::unique_ptr<Encoder> encoder;
    void (*job)(Encoder&) = nullptr;
    const char* jobName = "";
};

std::optional<Station> OpenStation(std::shared_ptr<PcscApi> pcsc, const std::string& reader) {
    Station station{std::make_unique<Encoder>(std::move(pcsc))};
    Encoder& e = *station.encoder;
    e.Parameters("Device=" + reader);
    if (e.OpenEncoder() != sceSuccess || e.LastError().Number != 0) {
        std::fprintf(stderr, "two_readers_bench: %s: %s (%s)\n", reader.c_str(), e.LastError().Description.c_str(),
                     e.LastError().RdrRetCode.c_str());
        return std::nullopt;
    }
    // A MIFARE Classic card shows through the reader as a PC/SC storage card
    // (registered application provider A0 00 00 03 06 in its ATR).
    if (e.ATRString().find("A0 00 00 03 06") != std::string::npos) {
        station.job = PersonaliseMifareSector;
        station.jobName = "MIFARE Classic 1K sector personalised and read back";
    } else {
        station.job = PersonaliseDesfireApplication;
        station.jobName = "DESFire application with an enciphered file written and read back";
    }
    return station;
}

// Seconds for `jobs` jobs on each station at once, or nullopt after a failure.
std::optional<double> Run(std::vector<Station*> stations, int jobs) {
    std::atomic<bool> failed{false};
    const auto work = [&](Station& s) {
        try {
            for (int i = 0; i < jobs && !failed; ++i)
                s.job(*s.encoder);
        } catch (const JobFailure& f) {
            std::fprintf(stderr, "two_readers_bench: %s\n", f.text.c_str());
            failed = true;
        }
    };
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < stations.size(); ++i)
        threads.emplace_back(work, std::ref(*stations[i]));
    work(*stations[0]);
    for (auto& t : threads)
        t.join();
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    if (failed) return std::nullopt;
    return elapsed.count();
}

bool Compare(const std::string& title, Station& first, Station& second, int jobs) {
    if (std::strcmp(first.jobName, second.jobName) != 0) {
        std::fprintf(stderr, "two_readers_bench: the readers hold cards of different kinds\n");
        return false;
    }
    first.job(*first.encoder);  // warm-up: sessions, caches, the card's first answers
    second.job(*second.encoder);
    const std::optional<double> alone = Run({&first}, jobs);
    const std::optional<double> both = alone ? Run({&first, &second}, jobs) : std::nullopt;
    if (!both) return false;
    const double single = jobs / *alone;
    const double dual = 2 * jobs / *both;
    std::printf("%s: %s, %d jobs per reader\n", title.c_str(), first.jobName, jobs);
    std::printf("  one reader alone:     %8.1f jobs/s (%.2f ms per job)\n", single, 1000.0 / single);
    std::printf("  two readers at once:  %8.1f jobs/s (both readers together)\n", dual);
    std::printf("  ratio:                %8.2f (aim: at least 1.8)\n", dual / single);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool pcscd = false;
    int jobs = 0;
    int delayMs = 1;
    std::vector<std::string> readers;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--pcscd") {
            pcscd = true;
        } else if ((arg == "--jobs" || arg == "--delay") && i + 1 < argc) {
            (arg == "--jobs" ? jobs : delayMs) = std::atoi(argv[++i]);
        } else if (!arg.starts_with("-")) {
            readers.push_back(arg);
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (readers.empty()) readers.assign(std::begin(sim::kDefaultReaderNames), std::end(sim::kDefaultReaderNames));
    if (readers.size() != 2 || jobs < 0 || delayMs < 0) {
        std::fputs(kUsage, stderr);
        return 2;
    }

    if (pcscd) {
        auto first = OpenStation(SystemPcsc(), readers[0]);
        auto second = first ? OpenStation(SystemPcsc(), readers[1]) : std::nullopt;
        const std::string title = "through pcscd (" + readers[0] + ", " + readers[1] + ")";
        return second && Compare(title, *first, *second, jobs > 0 ? jobs : 20) ? 0 : 1;
    }
    std::printf("%u hardware threads\n", std::thread::hardware_concurrency());
    for (const int delay : {0, delayMs}) {
        for (const char* kind : {"mifare1k", "desfire"}) {
            auto pcsc = std::make_shared<sim::SimulatedPcsc>(readers);
            for (const auto& reader : pcsc->Readers()) {
                reader->Insert(sim::MakeCard(kind));
                sim::Faults slow;
                slow.delay = std::chrono::milliseconds(delay);
                reader->SetFaults(slow);
            }
            auto first = OpenStation(pcsc, readers[0]);
            auto second = first ? OpenStation(pcsc, readers[1]) : std::nullopt;
            const std::string title = delay == 0 ? "in-process simulator"
                                                 : "in-process simulator, " + std::to_string(delay) + " ms per answer";
            if (!second || !Compare(title, *first, *second, jobs > 0 ? jobs : delay == 0 ? 1000 : 20)) return 1;
        }
    }
    return 0;
}
