// twn4-vcard: a simulated card in a real pcscd, through the vpcd driver.
#include <signal.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "sim/bridge/options.h"
#include "sim/bridge/reader_list.h"
#include "sim/bridge/reader_slot.h"
#include "sim/bridge/vpcd_link.h"
#include "sim/reader.h"

namespace {

using namespace elatectwn4::sim;
using namespace elatectwn4::sim::bridge;

// Signal handlers can only reach the link through its pipe.
volatile std::sig_atomic_t requestFd = -1;

void OnSignal(int number) {
    char code = static_cast<char>(LinkRequest::Quit);
    if (number == SIGUSR1) code = static_cast<char>(LinkRequest::Remove);
    if (number == SIGUSR2) code = static_cast<char>(LinkRequest::Insert);
    const int fd = requestFd;
    if (fd < 0) return;
    [[maybe_unused]] const ssize_t n = ::write(fd, &code, 1);
}

constexpr int HandledSignals[] = {SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP};

// Loading a large card takes a moment; a signal arriving meanwhile waits
// instead of killing the process with the card unsaved.
void HoldSignals(int how) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : HandledSignals)
        sigaddset(&set, number);
    sigprocmask(how, &set, nullptr);
}

void InstallSignalHandlers(int fd) {
    requestFd = fd;
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    for (const int number : HandledSignals)
        sigaction(number, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    HoldSignals(SIG_UNBLOCK);
}

int ListReaders() {
    const auto list = ListPcscReaders();
    if (list.code != 0) {
        std::fprintf(stderr, "twn4-vcard: %s failed: 0x%08X\n", list.failedCall.c_str(), list.code);
        return 1;
    }
    for (const auto& name : list.names)
        std::cout << name << '\n';
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string program = argc > 0 ? argv[0] : "twn4-vcard";
    const auto parsed = ParseVcardOptions(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    if (const auto* problem = std::get_if<std::string>(&parsed)) {
        std::cerr << "twn4-vcard: " << *problem << "\n" << VcardUsage(program);
        return 2;
    }
    const auto& options = std::get<VcardOptions>(parsed);
    if (options.help) {
        std::cout << VcardUsage(program);
        return 0;
    }
    if (options.listReaders) return ListReaders();

    const std::string prefix = "twn4-vcard[" + std::to_string(options.port) + "]: ";
    const auto log = [&prefix](const std::string& line) { std::cerr << prefix << line << std::endl; };

    HoldSignals(SIG_BLOCK);
    try {
        ReaderSlot slot(MakeCard(options.cardKind, options.uid), options.statePath, log);
        if (options.answerDelay.count() > 0) {
            Faults slow;
            slow.delay = options.answerDelay;
            slot.reader().SetFaults(slow);
        }
        LinkSettings settings;
        settings.host = options.host;
        settings.port = options.port;
        settings.controlPath = options.controlPath;
        settings.startRemoved = options.startRemoved;
        VpcdLink link(settings, slot, log);
        InstallSignalHandlers(link.RequestFd());
        try {
            link.Run();
        } catch (...) {
            requestFd = -1;
            slot.Persist();
            throw;
        }
        requestFd = -1;
        const bool saved = slot.Persist();
        log("stopped");
        return saved ? 0 : 1;
    } catch (const std::exception& e) {
        log(e.what());
        return 1;
    }
}
