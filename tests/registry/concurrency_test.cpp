// Several processes on one store at the same moment: no write is lost and an
// unknown ATR is recorded once.
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

// Runs `body` in `count` child processes released at the same instant, and
// counts the children that failed. Children report through their exit status
// only: no assertions across fork.
int FailuresInChildren(int count, const std::function<bool(int)>& body) {
    int release[2];
    if (::pipe(release) != 0) return count;
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(release[1]);
            char byte;
            while (::read(release[0], &byte, 1) < 0) {
            }  // end of file: the parent let everyone go
            ::_exit(body(i) ? 0 : 1);
        }
        if (pid > 0) children.push_back(pid);
    }
    ::close(release[0]);
    ::close(release[1]);
    int failed = count - static_cast<int>(children.size());
    for (const pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
    }
    return failed;
}

TEST(Concurrency, ProcessesWritingAtOnceLoseNothing) {
    RegistryDir store;
    constexpr int kWriters = 6;
    constexpr int kEach = 30;
    const auto name = [](int writer, int k) { return std::to_string(writer) + "-" + std::to_string(k); };
    ASSERT_EQ(FailuresInChildren(kWriters,
                                 [&](int writer) {
                                     bool ok = true;
                                     for (int k = 0; k < kEach; ++k)
                                         ok = WriteRegValue(Root::LocalMachine, "Software\\Shared", name(writer, k),
                                                            RegData{writer * 1000 + k}) &&
                                              ok;
                                     return ok;
                                 }),
              0);
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegValueNames(Root::LocalMachine, "Software\\Shared", names), kWriters * kEach);
    for (int w = 0; w < kWriters; ++w)
        for (int k = 0; k < kEach; ++k)
            EXPECT_EQ(ReadRegValue(Root::LocalMachine, "Software\\Shared", name(w, k), RegValue{}),
                      RegValue{static_cast<std::uint32_t>(w * 1000 + k)});
    EXPECT_EQ(store.StrayFiles(), 0u);
}

TEST(Concurrency, ProcessesSeeingTheSameUnknownAtrRecordItOnce) {
    RegistryDir store;
    store.Put(CardTypesFile("\"Add new cards\"=dword:00000001\r\n\"DESFire\"=\"31;3B8180;7\"\r\n"));
    const std::string atrs[] = {"3B 8F 80 01 80 4F 0C A0", "3B 8A 80 01 00 31 C1 73"};
    for (const auto& atr : atrs)
        EXPECT_EQ(FailuresInChildren(4, [&](int) { return IdentifyCardType(atr).cardType == 1; }), 0);
    std::vector<std::string> names;
    ASSERT_EQ(EnumRegValueNames(Root::LocalMachine, kCardTypesKey, names), 4);
    EXPECT_EQ(ReadRegValue(Root::LocalMachine, kCardTypesKey, names[2], RegValue{}), RegValue{atrs[0]});
    EXPECT_EQ(ReadRegValue(Root::LocalMachine, kCardTypesKey, names[3], RegValue{}), RegValue{atrs[1]});
}

}  // namespace
}  // namespace elatectwn4::registry
