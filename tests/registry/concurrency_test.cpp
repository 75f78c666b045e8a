// Several processes on one store at the same moment: no write
// is lost, no reader sees half a file, and an unknown ATR is recorded once.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "registry/card_types.h"
#include "registry/registry.h"
#include "support/registry_dir.h"

namespace elatectwn4::registry {
namespace {

using test::CardTypesFile;
using test::RegistryDir;

constexpr std::string_view kKey = "Software\\Acme\\Shared";

// Runs `body` in `count` child processes released at the same instant.
// Children report through their exit status only: no assertions across fork.
::testing::AssertionResult RunInChildren(int count, const std::function<bool(int)>& body) {
    int release[2];
    if (::pipe(release) != 0) return ::testing::AssertionFailure() << "pipe failed";
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
        const pid_t pid = ::fork();
        if (pid < 0) return ::testing::AssertionFailure() << "fork failed";
        if (pid == 0) {
            ::close(release[1]);
            char byte;
            while (::read(release[0], &byte, 1) < 0) {
            }  // end of file: the parent let everyone go
            ::_exit(body(i) ? 0 : 1);
        }
        children.push_back(pid);
    }
    ::close(release[0]);
    ::close(release[1]);
    int failed = 0;
    for (const pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
    }
    if (failed != 0) return ::testing::AssertionFailure() << failed << " of " << count << " children failed";
    return ::testing::AssertionSuccess();
}

std::string Name(int writer, int k) {
    return "w" + std::to_string(writer) + "-" + std::to_string(k);
}

// Odd values are numbers and even ones texts, so both kinds are exercised.
RegData DataFor(int writer, int k) {
    if (k % 2 != 0) return RegData{static_cast<std::uint32_t>(writer * 100000 + k)};
    return RegData{"writer " + std::to_string(writer) + " value " + std::to_string(k)};
}

RegValue Expected(int writer, int k) {
    if (k % 2 != 0) return RegValue{static_cast<std::uint32_t>(writer * 100000 + k)};
    return RegValue{"writer " + std::to_string(writer) + " value " + std::to_string(k)};
}

bool WriteMany(int writer, int count) {
    bool ok = true;
    for (int k = 0; k < count; ++k)
        ok = WriteRegValue(Root::LocalMachine, kKey, Name(writer, k), DataFor(writer, k)) && ok;
    return ok;
}

void ExpectAllPresent(int writers, int perWriter) {
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegValueNames(Root::LocalMachine, kKey, names), writers * perWriter);
    for (int w = 0; w < writers; ++w) {
        for (int k = 0; k < perWriter; ++k) {
            EXPECT_EQ(ReadRegValue(Root::LocalMachine, kKey, Name(w, k), RegValue{"<lost>"}), Expected(w, k))
                << Name(w, k);
        }
    }
}

TEST(ConcurrentWrites, TwoProcessesWritingAtOnceLoseNothing) {
    RegistryDir store;
    constexpr int kPerWriter = 100;
    ASSERT_TRUE(RunInChildren(2, [&](int writer) { return WriteMany(writer, kPerWriter); }));
    ExpectAllPresent(2, kPerWriter);
    EXPECT_EQ(store.StrayFiles(), 0u);
}

TEST(ConcurrentWrites, AReaderNeverSeesAHalfWrittenFile) {
    RegistryDir store;
    ASSERT_TRUE(WriteRegValue(Root::LocalMachine, kKey, "anchor", RegData{std::string("here")}));
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) ::_exit(WriteMany(0, 150) ? 0 : 1);

    int reads = 0;
    int failures = 0;
    int status = 0;
    while (::waitpid(writer, &status, WNOHANG) == 0) {
        const auto value = ReadRegValue(Root::LocalMachine, kKey, "anchor", RegValue{"<damaged>"});
        if (value != RegValue{"here"} || LastRegistryError().number != 0) ++failures;
        ++reads;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(failures, 0) << "in " << reads << " reads";
    EXPECT_GT(reads, 0);
}

std::size_t RecordsOf(const std::string& atr) {
    std::vector<std::string> names;
    EnumRegValueNames(Root::LocalMachine, kCardTypesKey, names);
    std::size_t count = 0;
    for (const auto& name : names) {
        if (ReadRegValue(Root::LocalMachine, kCardTypesKey, name, RegValue{}) == RegValue{atr}) ++count;
    }
    return count;
}

TEST(ConcurrentIdentify, ProcessesSeeingTheSameUnknownAtrRecordItOnce) {
    RegistryDir store;
    store.Put(CardTypesFile("\"Add new cards\"=dword:00000001\r\n\"DESFire\"=\"31;3B8180;7\"\r\n"));
    for (const std::string atr : {"3B 8F 80 01 80 4F 0C A0", "3B 8A 80 01 00 31 C1 73"}) {
        ASSERT_TRUE(RunInChildren(4, [&](int) { return IdentifyCardType(atr).cardType == 1; })) << atr;
        EXPECT_EQ(RecordsOf(atr), 1u) << atr;
    }
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegValueNames(Root::LocalMachine, kCardTypesKey, names), 4);
}

}  // namespace
}  // namespace elatectwn4::registry
