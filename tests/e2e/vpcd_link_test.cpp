// The bridge's connection handling against a stand-in for vpcd on a real TCP
// socket: frames written in parts, waiting for vpcd and reconnecting, and the
// card removed and inserted through the control socket or from another thread.
#include "sim/bridge/vpcd_link.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <system_error>
#include <thread>

#include "e2e_support.h"

namespace elatectwn4::sim::bridge {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

bool Readable(int fd, std::chrono::milliseconds timeout) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(timeout.count())) == 1;
}

// Plays vpcd's part: listens, accepts the card, and writes a frame as a
// length write followed by a payload write, as vpcd does. Timeouts bound how
// long a broken bridge makes a test hang, not how fast a working one must be.
class FakeVpcd {
public:
    explicit FakeVpcd(std::uint16_t port = 0) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listener_, 2) != 0)
            throw std::system_error(errno, std::generic_category(), "fake vpcd");
        socklen_t length = sizeof(address);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~FakeVpcd() {
        DropCard();
        ::close(listener_);
    }

    std::uint16_t port() const { return port_; }
    std::uint16_t CardPort() const {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        ::getpeername(card_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    bool AcceptCard(std::chrono::milliseconds timeout = 5s) {
        DropCard();
        if (!Readable(listener_, timeout)) return false;
        card_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        return card_ >= 0;
    }
    void DropCard() {
        if (card_ >= 0) ::close(card_);
        card_ = -1;
    }

    void Send(const Bytes& payload) {
        SendRaw({static_cast<std::uint8_t>(payload.size() >> 8), static_cast<std::uint8_t>(payload.size())});
        if (!payload.empty()) SendRaw(payload);
    }
    void SendRaw(const Bytes& bytes) {
        ASSERT_EQ(::send(card_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    /// One frame from the card; nullopt on timeout or when the card hung up.
    std::optional<Bytes> Receive() {
        Bytes length(2);
        if (!ReadExactly(length)) return std::nullopt;
        Bytes payload(static_cast<std::size_t>(length[0] << 8 | length[1]));
        if (!ReadExactly(payload)) return std::nullopt;
        return payload;
    }
    std::optional<Bytes> Exchange(const Bytes& payload) {
        Send(payload);
        return Receive();
    }
    bool CardHungUp(std::chrono::milliseconds timeout) {
        std::uint8_t byte;
        return Readable(card_, timeout) && ::recv(card_, &byte, 1, 0) == 0;
    }

private:
    bool ReadExactly(Bytes& out) {
        for (std::size_t got = 0; got < out.size();) {
            if (!Readable(card_, 5s)) return false;
            const ssize_t n = ::recv(card_, out.data() + got, out.size() - got, 0);
            if (n <= 0) return false;
            got += static_cast<std::size_t>(n);
        }
        return true;
    }

    int listener_ = -1;
    int card_ = -1;
    std::uint16_t port_ = 0;
};

const Bytes Atr{0x3B, 0x8F, 0x80, 0x01};

// Answers the length of what it is sent; records what it was told, from the link's thread.
class ScriptedSlot : public CardSlot {
public:
    Bytes Atr() override { return sim::bridge::Atr; }
    void PowerOff() override { Record("off"); }
    void PowerOn() override { Record("on"); }
    void Reset() override { Record("reset"); }
    Bytes Transmit(std::span<const std::uint8_t> apdu) override {
        Record("transmit");
        return {static_cast<std::uint8_t>(apdu.size()), 0x90, 0x00};
    }
    void Leave() override { Record("leave"); }
    void Enter() override { Record("enter"); }

    std::string Calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    void Record(const char* call) {
        std::lock_guard lock(mutex_);
        calls_ += calls_.empty() ? call : std::string(" ") + call;
    }
    std::mutex mutex_;
    std::string calls_;
};

std::string ControlPath() {
    return (std::filesystem::path(testing::TempDir()) / ("vcard-ctl-" + std::to_string(::getpid()))).string();
}

LinkSettings SettingsFor(std::uint16_t port, std::string controlPath = {}) {
    LinkSettings settings;
    settings.port = port;
    settings.controlPath = std::move(controlPath);
    settings.retryInterval = 20ms;
    return settings;
}

// Runs a link on its own thread for the duration of a test.
class RunningLink {
public:
    RunningLink(LinkSettings settings, CardSlot& slot)
        : link_(std::move(settings), slot), thread_([this] { link_.Run(); }) {}
    ~RunningLink() {
        if (thread_.joinable()) link_.Request(LinkRequest::Quit);
        Join();
    }
    VpcdLink& link() { return link_; }
    void Join() {
        if (thread_.joinable()) thread_.join();
    }

private:
    VpcdLink link_;
    std::thread thread_;
};

TEST(VpcdLink, ServesVpcdAcrossReconnectsAndFollowsTheControlSocket) {
    std::uint16_t port;
    {
        FakeVpcd probe;  // learn a free port, then give it back
        port = probe.port();
    }
    ScriptedSlot slot;
    const auto path = ControlPath();
    {
        RunningLink running(SettingsFor(port, path), slot);
        std::this_thread::sleep_for(100ms);  // several refused attempts
        FakeVpcd vpcd(port);
        ASSERT_TRUE(vpcd.AcceptCard());

        // Power messages get no answer: the first frame back must be the ATR.
        vpcd.Send({0x01});
        EXPECT_EQ(vpcd.Exchange({0x04}), Atr);
        EXPECT_EQ(vpcd.Exchange(Bytes(261, 0xAB)), (Bytes{0x05, 0x90, 0x00}));  // 261 = 0x105
        EXPECT_EQ(vpcd.Exchange({}), (Bytes{0x00, 0x90, 0x00}));
        vpcd.SendRaw({0x00, 0x01, 0x04, 0x00, 0x01, 0x60, 0x00, 0x02, 0xAF, 0x00});  // three frames in one segment
        EXPECT_EQ(vpcd.Receive(), Atr);
        EXPECT_EQ(vpcd.Receive(), (Bytes{0x01, 0x90, 0x00}));
        EXPECT_EQ(vpcd.Receive(), (Bytes{0x02, 0x90, 0x00}));
        EXPECT_EQ(e2e::Control(path, "status"), "inserted connected");

        vpcd.DropCard();
        ASSERT_TRUE(vpcd.AcceptCard()) << "no reconnect";
        EXPECT_EQ(vpcd.Exchange({0x04}), Atr);

        // vpcd binds its port once when pcscd starts: the bridge, closing
        // first, must not hold the port it connected from in TIME_WAIT.
        const std::uint16_t bridgePort = vpcd.CardPort();
        EXPECT_EQ(e2e::Control(path, "remove"), "ok");
        EXPECT_TRUE(vpcd.CardHungUp(100ms)) << "the connection must be closed before \"ok\"";
        EXPECT_EQ(e2e::Control(path, "status"), "removed");
        EXPECT_FALSE(vpcd.AcceptCard(200ms)) << "a removed card must stay away";
        EXPECT_NO_THROW(FakeVpcd{bridgePort}) << "port " << bridgePort;

        running.link().Request(LinkRequest::Insert);
        ASSERT_TRUE(vpcd.AcceptCard());
        EXPECT_EQ(e2e::Control(path, "eject"), "error unknown command \"eject\"");
        EXPECT_EQ(e2e::Control(path, "  quit \r"), "ok");
        running.Join();
    }
    EXPECT_EQ(slot.Calls(), "enter on transmit transmit transmit transmit leave enter");
    EXPECT_FALSE(std::filesystem::exists(path)) << "the control socket file outlived the link";

    FakeVpcd vpcd;
    auto settings = SettingsFor(vpcd.port());
    settings.startRemoved = true;
    RunningLink removed(settings, slot);
    EXPECT_FALSE(vpcd.AcceptCard(200ms)) << "asked to start removed";
}

}  // namespace
}  // namespace elatectwn4::sim::bridge
