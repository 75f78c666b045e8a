// Command line of the virtual-card program.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace elatectwn4::sim::bridge {

/// What the program is asked to do.
struct VcardOptions {
    bool listReaders = false;  ///< print the PC/SC readers and exit
    bool help = false;         ///< print the usage and exit
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;                    ///< vpcd slot port; required unless listing
    std::string cardKind;                      ///< "desfire", "mifare1k" or "mifare4k"
    std::string statePath;                     ///< empty: the card is not kept
    std::vector<std::uint8_t> uid;             ///< empty: the kind's default
    std::string controlPath;                   ///< empty: no control socket
    bool startRemoved = false;                 ///< start with the card out of the field
    std::chrono::milliseconds answerDelay{0};  ///< added before every answer, as a reader's radio takes time
};

/// The options, or the reason the command line is wrong.
using ParseResult = std::variant<VcardOptions, std::string>;

/// Parses argv[1..argc-1]. Recognised: --port N, --host ADDR, --card KIND,
/// --state FILE, --uid HEX, --control PATH, --delay MS, --removed,
/// --list-readers, --help.
/// Every option taking a value also accepts the --name=value form.
ParseResult ParseVcardOptions(const std::vector<std::string>& arguments);

/// The usage text for `program`.
std::string VcardUsage(const std::string& program);

}  // namespace elatectwn4::sim::bridge
