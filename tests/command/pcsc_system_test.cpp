#include "command/pcsc_system.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "elatectwn4/pcsc.h"

namespace elatectwn4::command {
namespace {

using namespace std::string_literals;

TEST(SplitMultiString, StopsAtTheFirstEmptyNameOrTheEnd) {
    struct Case {
        std::string multi;
        std::vector<std::string> names;
    };
    const Case cases[] = {
        {"Virtual PCD 00 00\0Virtual PCD 00 01\0\0"s, {"Virtual PCD 00 00", "Virtual PCD 00 01"}},
        {"Elatec TWN4\0\0"s, {"Elatec TWN4"}},
        {"\0"s, {}},
        {""s, {}},
        {"A\0B"s, {"A", "B"}},   // no final terminator
        {"A\0\0B\0\0"s, {"A"}},  // nothing after the end of the list
        {"A\0"s, {"A"}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(SplitMultiString(c.multi), c.names) << c.multi.size();
}

// Against the machine's own resource manager, when one runs; the checks hold
// whether or not readers are attached.
class SystemPcscLive : public ::testing::Test {
protected:
    void SetUp() override {
        api = SystemPcsc();
        const std::uint32_t rv = api->EstablishContext(pcsc_const::ScopeSystem, context);
        if (rv == pcsc_code::NoService || rv == pcsc_code::ServiceStopped) GTEST_SKIP() << "no pcscd on this machine";
        ASSERT_EQ(rv, pcsc_code::Success);
        ASSERT_NE(context, 0);
    }
    void TearDown() override {
        if (context != 0) {
            EXPECT_EQ(api->ReleaseContext(context), pcsc_code::Success);
        }
    }

    std::shared_ptr<PcscApi> api;
    PcscHandle context = 0;
};

TEST_F(SystemPcscLive, ListsReadersOrSaysThereAreNone) {
    std::vector<std::string> readers{"stale"};
    const std::uint32_t rv = api->ListReaders(context, readers);
    if (rv == pcsc_code::NoReadersAvailable) {
        EXPECT_TRUE(readers.empty());
        return;
    }
    ASSERT_EQ(rv, pcsc_code::Success);
    ASSERT_FALSE(readers.empty());
    for (const auto& name : readers) {
        EXPECT_FALSE(name.empty());
        EXPECT_EQ(name.find('\0'), std::string::npos);
    }
}

TEST_F(SystemPcscLive, RefusesAReaderThatDoesNotExist) {
    PcscHandle card = 0;
    std::uint32_t protocol = 0;
    const std::uint32_t rv = api->Connect(context, "No such reader 99 99", pcsc_const::ShareExclusive,
                                          pcsc_const::ProtocolT1, card, protocol);
    EXPECT_EQ(rv, pcsc_code::UnknownReader);
    EXPECT_EQ(card, 0);
}

TEST_F(SystemPcscLive, TwoContextsWorkFromTwoThreadsAtOnce) {
    std::array<std::uint32_t, 2> results{1, 1};
    auto work = [this](std::uint32_t& result) {
        PcscHandle own = 0;
        result = api->EstablishContext(pcsc_const::ScopeSystem, own);
        for (int i = 0; i < 20 && result == pcsc_code::Success; ++i) {
            std::vector<std::string> readers;
            const std::uint32_t rv = api->ListReaders(own, readers);
            if (rv != pcsc_code::Success && rv != pcsc_code::NoReadersAvailable) result = rv;
        }
        if (own != 0 && api->ReleaseContext(own) != pcsc_code::Success) result = 0xFFFFFFFF;
    };
    std::thread first(work, std::ref(results[0]));
    std::thread second(work, std::ref(results[1]));
    first.join();
    second.join();
    EXPECT_EQ(results[0], pcsc_code::Success);
    EXPECT_EQ(results[1], pcsc_code::Success);
}

TEST(SystemPcsc, ReportsAnInvalidHandleInsteadOfFailingSilently) {
    auto api = SystemPcsc();
    PcscStatus status;
    std::vector<std::uint8_t> value;
    std::array<std::uint8_t, 16> answer{};
    std::size_t received = answer.size();
    const std::array<std::uint8_t, 5> command{0xFF, 0xCA, 0x00, 0x00, 0x00};
    // Whatever the state of pcscd, a handle nobody issued is never a success.
    EXPECT_NE(api->Status(0x7FFF1234, status), pcsc_code::Success);
    EXPECT_NE(api->GetAttrib(0x7FFF1234, pcsc_const::AttrAtrString, value), pcsc_code::Success);
    EXPECT_NE(api->Transmit(0x7FFF1234, pcsc_const::ProtocolT1, command, answer, received), pcsc_code::Success);
    EXPECT_EQ(received, 0u);
    EXPECT_NE(api->ReleaseContext(0x7FFF1234), pcsc_code::Success);
}

}  // namespace
}  // namespace elatectwn4::command
