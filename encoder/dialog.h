// The dialog program as Configure runs it: a child process whose standard
// input and output are the component's line to it (a socket pair on POSIX,
// two pipes on Windows), and the conversation of encoder/dialog_protocol.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::dialog {

/// A program started with the component's line as its standard input and
/// output. Only this object's process is ever stopped or waited for.
class ChildProcess {
public:
    /// Starts `program` (a path, no search) with this process's environment;
    /// it inherits nothing of ours beyond its standard input and output
    /// (and on POSIX its standard error, with default signal handling).
    /// Throws std::system_error when it cannot be started.
    explicit ChildProcess(const std::string& program);
    /// A child not yet waited for loses its input, is stopped (SIGTERM on
    /// POSIX, TerminateProcess on Windows) and is waited for.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Writes `text` whole; a child that went away is not an error here (the
    /// next Receive sees the end of its output). Never raises SIGPIPE.
    void Send(std::string_view text) noexcept;
    /// The next line without its "\n"; nullopt once the child's output ended.
    /// A last line without "\n" is still a line.
    std::optional<std::string> Receive();
    /// Closes the line and waits for the child to end; how it ended, as a
    /// sentence for the error record ("" for a clean exit).
    std::string Wait();

private:
    struct System;  // the platform's handles, in its own file
    std::unique_ptr<System> system_;
    std::string pending_;
};

/// The dialog program Configure starts: ELATECTWN4_CONFIGURE_PROGRAM when
/// set, else the installed one (POSIX: the library's libexec folder; Windows:
/// twn4-configure.exe beside the server DLL).
std::string ProgramPath();

/// Why the dialog cannot be shown before anything is started: the program
/// missing or not runnable, or (POSIX) no display; "" when it can.
std::string WhyNoDialog(const std::string& program);

/// What the component tells the dialog when it opens.
struct Setup {
    bool french = false;
    std::vector<std::string> readers;
    std::string notice;   ///< why `readers` is empty, when listing failed
    std::string current;  ///< the reader named in Parameters
};

/// What one test of a reader found; the fields of a "probe" line.
struct Probe {
    std::string_view state;  ///< kReady, kNoCard or kUnavailable
    std::string atr;
    std::int32_t cardType = 0;
    std::string serial;
    std::string message;
};

/// How the conversation ended.
struct Verdict {
    enum class Kind { Ok, Cancel, Ended } kind = Kind::Ended;
    std::string reader;  ///< Ok: the chosen reader ("" for none)
    std::string error;   ///< Ended: the program's own "error" text, if it sent one
};

/// Sends the setup, answers every "test" with `probe` of its reader, and
/// returns at the program's verdict or at the end of its output.
Verdict Converse(ChildProcess& child, const Setup& setup, const std::function<Probe(const std::string&)>& probe);

}  // namespace elatectwn4::dialog
