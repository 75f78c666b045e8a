#include "command/pcsc_system.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "elatectwn4/pcsc.h"

namespace elatectwn4::command {
namespace {

using namespace std::string_literals;

TEST(SplitMultiString, StopsAtTheFirstEmptyNameOrTheEnd) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"Virtual PCD 00 00\0Virtual PCD 00 01\0\0"s, {"Virtual PCD 00 00", "Virtual PCD 00 01"}},
        {""s, {}},
        {"A\0B"s, {"A", "B"}},   // no final terminator
        {"A\0\0B\0\0"s, {"A"}},  // nothing after the end of the list
    };
    for (const auto& [multi, names] : cases)
        EXPECT_EQ(SplitMultiString(multi), names) << multi.size();
}

// A reader arriving between the call that sizes the list and the one that
// fills it: the pair is asked again, at most `attempts` times.
TEST(ListReadersRetrying, AsksAgainWhileTheListOutgrowsItsBuffer) {
    constexpr std::uint32_t kTooSmall = 0x80100008;
    for (const int growths : {0, 1, 4, 5}) {
        SCOPED_TRACE(growths);
        std::string list = "A\0\0"s;
        int sized = 0;
        const auto scripted = [&](char* buffer, std::size_t& length) -> std::uint32_t {
            if (buffer == nullptr) {
                length = list.size();
                if (sized++ < growths) list.insert(0, "B\0"s);  // arrives before the list is filled
                return pcsc_code::Success;
            }
            if (length < list.size()) return kTooSmall;
            std::memcpy(buffer, list.data(), list.size());
            length = list.size();
            return pcsc_code::Success;
        };
        std::vector<std::string> readers{"stale"};
        const bool fits = growths < 5;
        EXPECT_EQ(ListReadersRetrying(scripted, kTooSmall, readers, 5), fits ? pcsc_code::Success : kTooSmall);
        EXPECT_EQ(sized, fits ? growths + 1 : 5);
        std::vector<std::string> names(fits ? growths : 0, "B");
        if (fits) names.push_back("A");
        EXPECT_EQ(readers, names) << "the names of the last call";
    }
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
