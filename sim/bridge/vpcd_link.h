// The connection of one virtual card to one vpcd slot: connects (and keeps
// reconnecting while vpcd is not there), answers vpcd's messages through a
// CardSlot, and takes the card out of the field and back on request. Removal
// closes the connection, which is how vpcd learns that the card has left.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/bridge/vpcd_protocol.h"

namespace elatectwn4::sim::bridge {

struct LinkSettings {
    std::string host = "127.0.0.1";
    std::uint16_t port = DefaultVpcdPort;
    /// Unix socket accepting text commands, one per line: "remove", "insert",
    /// "status", "quit". Empty: no control socket.
    std::string controlPath;
    bool startRemoved = false;
    /// Pause between two connection attempts while vpcd does not accept.
    std::chrono::milliseconds retryInterval{200};
};

/// Requests that may come from another thread or a signal handler.
enum class LinkRequest : char { Remove = 'r', Insert = 'i', Quit = 'q' };

/// Turns off Nagle's algorithm and delayed acknowledgements on `fd`. vpcd
/// writes a frame's length and its payload in two calls; with either of
/// these on, every exchange stalls for a delayed-ACK period (about 40 ms).
/// Delayed ACKs come back after each read, so call this again then.
/// Returns false when the socket refuses an option.
bool ConfigureLowLatency(int fd) noexcept;

class VpcdLink {
public:
    using Logger = std::function<void(const std::string&)>;

    /// Creates the wake-up pipe and, when asked for, the control socket (a
    /// stale socket file at that path is replaced). Throws std::system_error
    /// when either cannot be set up.
    VpcdLink(LinkSettings settings, CardSlot& slot, Logger log = {});
    ~VpcdLink();
    VpcdLink(const VpcdLink&) = delete;
    VpcdLink& operator=(const VpcdLink&) = delete;

    /// Serves vpcd and the control socket until a Quit request. The card
    /// enters the field first unless the settings say it starts removed.
    void Run();

    /// Queues a request for Run. Safe from any thread and from a signal
    /// handler: it only writes one byte to a pipe.
    void Request(LinkRequest request) noexcept;
    /// The pipe's write end, for a signal handler that cannot reach the object.
    int RequestFd() const noexcept { return wakeWrite_; }

private:
    struct ControlClient {
        int fd = -1;
        std::string pending;
    };

    void Apply(LinkRequest request);
    void TryConnect();
    void Disconnect(const std::string& reason);
    void ServeVpcd();
    void AcceptControlClient();
    /// False when the client has gone or must be dropped.
    bool ServeControlClient(ControlClient& client);
    std::string Execute(const std::string& command);
    void Log(const std::string& line) const;

    LinkSettings settings_;
    CardSlot& slot_;
    Logger log_;
    int wakeRead_ = -1;
    int wakeWrite_ = -1;
    int controlListener_ = -1;
    std::vector<ControlClient> controlClients_;
    int vpcd_ = -1;
    FrameDecoder decoder_;
    bool inserted_ = false;
    bool quit_ = false;
    bool waitingReported_ = false;
    std::chrono::steady_clock::time_point nextAttempt_{};
};

}  // namespace elatectwn4::sim::bridge
