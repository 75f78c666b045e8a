// The bridge's connection handling against a stand-in for vpcd on a real TCP
// socket: it answers frames written in two parts, reconnects, and removes and
// inserts the card on request from another thread or the control socket.
#include "sim/bridge/vpcd_link.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "e2e_support.h"

namespace elatectwn4::sim::bridge {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

// Generous: these bound how long a broken bridge makes a test hang, not how
// fast a working one must be.
constexpr auto Patience = 5s;

bool Readable(int fd, std::chrono::milliseconds timeout) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(timeout.count())) == 1;
}

// Plays vpcd's part: listens, accepts the card, and writes every frame as a
// length write followed by a payload write, as vpcd does.
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

    /// The port the card connected from.
    std::uint16_t CardPort() const {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        ::getpeername(card_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    bool AcceptCard(std::chrono::milliseconds timeout = Patience) {
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
        const std::uint8_t length[2] = {static_cast<std::uint8_t>(payload.size() >> 8),
                                        static_cast<std::uint8_t>(payload.size())};
        ASSERT_EQ(::send(card_, length, 2, MSG_NOSIGNAL), 2);
        if (!payload.empty()) {
            ASSERT_EQ(::send(card_, payload.data(), payload.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(payload.size()));
        }
    }

    /// One frame from the card; nullopt on timeout or when the card hung up.
    std::optional<Bytes> Receive(std::chrono::milliseconds timeout = Patience) {
        std::uint8_t length[2];
        if (!ReadExactly(length, 2, timeout)) return std::nullopt;
        Bytes payload(static_cast<std::size_t>(length[0] << 8 | length[1]));
        if (!ReadExactly(payload.data(), payload.size(), timeout)) return std::nullopt;
        return payload;
    }

    /// Bytes as they stand, in one write.
    void SendRaw(const Bytes& bytes) {
        ASSERT_EQ(::send(card_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    std::optional<Bytes> Exchange(const Bytes& payload) {
        Send(payload);
        return Receive();
    }

    /// True when the card closed its end.
    bool CardHungUp(std::chrono::milliseconds timeout = Patience) {
        if (!Readable(card_, timeout)) return false;
        std::uint8_t byte;
        return ::recv(card_, &byte, 1, 0) == 0;
    }

private:
    bool ReadExactly(std::uint8_t* out, std::size_t size, std::chrono::milliseconds timeout) {
        for (std::size_t got = 0; got < size;) {
            if (!Readable(card_, timeout)) return false;
            const ssize_t n = ::recv(card_, out + got, size - got, 0);
            if (n <= 0) return false;
            got += static_cast<std::size_t>(n);
        }
        return true;
    }

    int listener_ = -1;
    int card_ = -1;
    std::uint16_t port_ = 0;
};

// A card answering GET DATA with a UID and echoing the length of anything
// else; it records what it was told, from the link's thread.
class ScriptedSlot : public CardSlot {
public:
    Bytes Atr() override { return {0x3B, 0x8F, 0x80, 0x01}; }
    void PowerOff() override { Record("off"); }
    void PowerOn() override { Record("on"); }
    void Reset() override { Record("reset"); }
    Bytes Transmit(std::span<const std::uint8_t> apdu) override {
        Record("transmit");
        if (Bytes(apdu.begin(), apdu.end()) == Bytes{0xFF, 0xCA, 0x00, 0x00, 0x00})
            return {0x04, 0x11, 0x22, 0x33, 0x90, 0x00};
        return {static_cast<std::uint8_t>(apdu.size()), 0x90, 0x00};
    }
    void Leave() override { Record("leave"); }
    void Enter() override { Record("enter"); }

    std::vector<std::string> Calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    void Record(std::string call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

std::string ControlPath() {
    static int counter = 0;
    return (std::filesystem::path(testing::TempDir()) /
            ("vcard-ctl-" + std::to_string(::getpid()) + "-" + std::to_string(++counter)))
        .string();
}

// Runs a link on its own thread for the duration of a test.
class RunningLink {
public:
    RunningLink(LinkSettings settings, CardSlot& slot) : link_(std::move(settings), slot) {
        thread_ = std::thread([this] {
            try {
                link_.Run();
            } catch (const std::exception& e) {
                ADD_FAILURE() << "Run threw: " << e.what();
            }
            finished_ = true;
        });
    }
    ~RunningLink() { Stop(); }

    VpcdLink& link() { return link_; }
    bool Finished() const { return finished_; }

    void Stop() {
        if (!thread_.joinable()) return;
        link_.Request(LinkRequest::Quit);
        thread_.join();
    }
    /// Waits for Run to return by itself.
    void Join() { thread_.join(); }

private:
    VpcdLink link_;
    std::atomic<bool> finished_ = false;
    std::thread thread_;
};

LinkSettings SettingsFor(std::uint16_t port, std::string controlPath = {}) {
    LinkSettings settings;
    settings.port = port;
    settings.controlPath = std::move(controlPath);
    settings.retryInterval = 20ms;
    return settings;
}

TEST(VpcdLink, AnswersFramesWrittenInTwoPartsOrSeveralToASegment) {
    FakeVpcd vpcd;
    ScriptedSlot slot;
    RunningLink running(SettingsFor(vpcd.port()), slot);
    ASSERT_TRUE(vpcd.AcceptCard());

    // Power messages get no answer: the first frame back must be the ATR.
    vpcd.Send({0x01});
    EXPECT_EQ(vpcd.Exchange({0x04}), (Bytes{0x3B, 0x8F, 0x80, 0x01}));
    EXPECT_EQ(vpcd.Exchange({0xFF, 0xCA, 0x00, 0x00, 0x00}), (Bytes{0x04, 0x11, 0x22, 0x33, 0x90, 0x00}));
    EXPECT_EQ(vpcd.Exchange(Bytes(261, 0xAB)), (Bytes{0x05, 0x90, 0x00}));  // 261 = 0x105, low byte only
    // An empty frame is a malformed APDU: the card answers it like any other.
    EXPECT_EQ(vpcd.Exchange({}), (Bytes{0x00, 0x90, 0x00}));
    vpcd.SendRaw({0x00, 0x01, 0x04, 0x00, 0x01, 0x60, 0x00, 0x02, 0xAF, 0x00});
    EXPECT_EQ(vpcd.Receive(), (Bytes{0x3B, 0x8F, 0x80, 0x01}));
    EXPECT_EQ(vpcd.Receive(), (Bytes{0x01, 0x90, 0x00}));
    EXPECT_EQ(vpcd.Receive(), (Bytes{0x02, 0x90, 0x00}));
    running.Stop();
    EXPECT_EQ(slot.Calls(),
              (std::vector<std::string>{"enter", "on", "transmit", "transmit", "transmit", "transmit", "transmit"}));
}

TEST(VpcdLink, WaitsForVpcdToListenAndReconnectsWhenItDrops) {
    std::uint16_t port;
    {
        FakeVpcd probe;  // learn a free port, then give it back
        port = probe.port();
    }
    ScriptedSlot slot;
    RunningLink running(SettingsFor(port), slot);
    std::this_thread::sleep_for(150ms);  // several refused attempts
    FakeVpcd vpcd(port);
    ASSERT_TRUE(vpcd.AcceptCard());
    vpcd.DropCard();
    ASSERT_TRUE(vpcd.AcceptCard());
    EXPECT_EQ(vpcd.Exchange({0xFF, 0xCA, 0x00, 0x00, 0x00}), (Bytes{0x04, 0x11, 0x22, 0x33, 0x90, 0x00}));
    running.Stop();
    EXPECT_EQ(slot.Calls(), (std::vector<std::string>{"enter", "transmit"})) << "a reconnect is not a removal";
}

TEST(VpcdLink, ARemovedCardStaysAwayUntilInserted) {
    FakeVpcd vpcd;
    ScriptedSlot slot;
    auto settings = SettingsFor(vpcd.port());
    settings.startRemoved = true;
    RunningLink running(settings, slot);
    EXPECT_FALSE(vpcd.AcceptCard(200ms)) << "asked to start removed";
    running.link().Request(LinkRequest::Insert);
    ASSERT_TRUE(vpcd.AcceptCard());

    running.link().Request(LinkRequest::Remove);
    EXPECT_TRUE(vpcd.CardHungUp());
    EXPECT_FALSE(vpcd.AcceptCard(200ms)) << "a removed card must stay away";
    running.link().Request(LinkRequest::Remove);  // already out: nothing happens
    running.link().Request(LinkRequest::Insert);
    ASSERT_TRUE(vpcd.AcceptCard());
    EXPECT_EQ(vpcd.Exchange({0x04}), (Bytes{0x3B, 0x8F, 0x80, 0x01}));
    running.Stop();
    EXPECT_EQ(slot.Calls(), (std::vector<std::string>{"enter", "leave", "enter"}));
}

// The port the kernel picks for the bridge may be one vpcd listens on when
// pcscd next starts; vpcd binds once and gives up, so the bridge's closed
// connections must not hold the port.
TEST(VpcdLink, AClosedConnectionLeavesItsPortFreeForVpcd) {
    FakeVpcd vpcd;
    ScriptedSlot slot;
    RunningLink running(SettingsFor(vpcd.port()), slot);
    ASSERT_TRUE(vpcd.AcceptCard());
    const std::uint16_t bridgePort = vpcd.CardPort();
    running.link().Request(LinkRequest::Remove);  // the bridge closes first: its end waits out TIME_WAIT
    ASSERT_TRUE(vpcd.CardHungUp());
    vpcd.DropCard();
    EXPECT_NO_THROW(FakeVpcd{bridgePort}) << "port " << bridgePort;
}

TEST(VpcdLink, ControlCommandsAnswerOnlyAfterTakingEffect) {
    FakeVpcd vpcd;
    ScriptedSlot slot;
    const auto path = ControlPath();
    {
        RunningLink running(SettingsFor(vpcd.port(), path), slot);
        ASSERT_TRUE(vpcd.AcceptCard());
        // The link may not have noticed its own connection yet; poll the status.
        std::string status;
        for (int i = 0; i < 100 && (status = e2e::Control(path, "status")) != "inserted connected"; ++i)
            std::this_thread::sleep_for(10ms);
        EXPECT_EQ(status, "inserted connected");

        EXPECT_EQ(e2e::Control(path, "remove"), "ok");
        EXPECT_TRUE(vpcd.CardHungUp(100ms)) << "the connection must be closed before \"ok\"";
        EXPECT_EQ(e2e::Control(path, "status"), "removed");
        EXPECT_EQ(e2e::Control(path, "  insert \r"), "ok");
        ASSERT_TRUE(vpcd.AcceptCard());
        EXPECT_EQ(e2e::Control(path, "eject"), "error unknown command \"eject\"");
        EXPECT_EQ(e2e::Control(path, "quit"), "ok");
        running.Join();
        EXPECT_TRUE(running.Finished());
    }
    EXPECT_FALSE(std::filesystem::exists(path)) << "the control socket file outlived the link";
}

TEST(VpcdLink, StaleControlSocketIsReplacedButOtherFilesAreNot) {
    ScriptedSlot slot;
    const auto path = ControlPath();
    {
        // A socket left at the path from an earlier run.
        const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        ::close(stale);
        ASSERT_TRUE(std::filesystem::is_socket(path));
        EXPECT_NO_THROW((VpcdLink{SettingsFor(1, path), slot}));
    }
    std::ofstream(path) << "not a socket";
    EXPECT_THROW((VpcdLink{SettingsFor(1, path), slot}), std::system_error);
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
    std::filesystem::remove(path);
}

TEST(VpcdLink, LowLatencyOptionsAreSetOnATcpSocket) {
    FakeVpcd vpcd;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(vpcd.port());
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_TRUE(ConfigureLowLatency(fd));
    int noDelay = 0, quickAck = 0;
    socklen_t size = sizeof(int);
    ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size);
    size = sizeof(int);
    ::getsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &quickAck, &size);
    EXPECT_NE(noDelay, 0);
    EXPECT_NE(quickAck, 0);
    ::close(fd);
    EXPECT_FALSE(ConfigureLowLatency(fd)) << "a closed descriptor cannot take options";
}

}  // namespace
}  // namespace elatectwn4::sim::bridge
