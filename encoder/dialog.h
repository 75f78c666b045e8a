// The dialog program as Configure runs it: a child process on the far end of
// a socket pair, and the conversation of encoder/dialog_protocol.h with it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::dialog {

/// A program started with one end of a socket pair as its standard input and
/// output. Only this object's process is ever signalled or waited for.
class ChildProcess {
public:
    /// Starts `program` (a path, no search) with this process's environment,
    /// default signal handling and no descriptor beyond 0, 1 and 2 of ours.
    /// Throws std::system_error when it cannot be started.
    explicit ChildProcess(const std::string& program);
    /// A child not yet waited for loses its input, is asked to stop (SIGTERM)
    /// and is reaped.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Writes `text` whole; a child that went away is not an error here (the
    /// next Receive sees the end of its output). Never raises SIGPIPE.
    void Send(std::string_view text) noexcept;
    /// The next line without its "\n"; nullopt once the child's output ended.
    /// A last line without "\n" is still a line.
    std::optional<std::string> Receive();
    /// Closes the socket and waits for the child to end; how it ended, as a
    /// sentence for the error record ("" for a clean exit).
    std::string Wait();

private:
    int socket_ = -1;
    pid_t pid_ = -1;
    std::string pending_;
};

/// Why the dialog cannot be shown before anything is started: the program
/// missing or not runnable, or no display; "" when it can.
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
