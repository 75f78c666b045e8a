// The registry routines against a store of their own: values as written come
// back as read, every failure leaves its exact number and text, damaged files
// are left alone, remote computers map to sub-directories, and processes
// writing at once lose nothing.
#include "registry/registry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <limits>
#include <thread>

#include "registry/card_types.h"
#include "support/registry_dir.h"

namespace elatectwn4::registry {
namespace {

using namespace std::string_literals;
using test::CardTypesFile;
using test::RegistryDir;
using test::ScopedEnv;

constexpr Root kLM = Root::LocalMachine;
constexpr std::string_view kKey = "Software\\Acme\\Settings";

// A call's result and the error it left, as one line.
std::string Is(const std::string& result, std::uint32_t number = 0, const std::string& text = "") {
    return result + " | " + std::to_string(number) + " " + text;
}
std::string After(const std::string& result) {
    const auto error = LastRegistryError();
    return Is(result, error.number, error.description);
}
std::string Show(const RegValue& v) {
    if (const auto* n = std::get_if<std::uint32_t>(&v)) return "#" + std::to_string(*n);
    return '"' + std::get<std::string>(v) + '"';
}
std::string Read(std::string_view key, std::string_view name, std::string_view computer = {}, Root root = kLM) {
    return After(Show(ReadRegValue(root, key, name, RegValue{"<default>"}, computer)));
}
std::string Write(std::string_view key, std::string_view name, const RegData& data, std::string_view computer = {},
                  Root root = kLM) {
    return After(WriteRegValue(root, key, name, data, computer) ? "true" : "false");
}
std::string Listed(std::int32_t count, const std::vector<std::string>& names) {
    std::string text = std::to_string(count) + ":";
    for (const auto& name : names)
        text += " [" + name + "]";
    return After(text);
}
std::string Names(std::string_view key) {
    std::vector<std::string> names{"stale"};
    const auto count = EnumRegValueNames(kLM, key, names);
    return Listed(count, names);
}
std::string Subkeys(std::string_view key) {
    std::vector<std::string> names{"stale"};
    const auto count = EnumRegKeyNames(kLM, key, names);
    return Listed(count, names);
}

std::chrono::local_seconds At(int y, unsigned m, unsigned d, int hh, int mm, int ss) {
    using namespace std::chrono;
    return local_days{year{y} / month{m} / day{d}} + hours{hh} + minutes{mm} + seconds{ss};
}

TEST(RegistryValues, EveryKindReadsBackAsTheRegistryKeepsIt) {
    const std::pair<RegData, std::string> cases[] = {
        {RegData{"31;3B8180;7"s}, "\"31;3B8180;7\""},
        {RegData{""s}, "\"\""},
        {RegData{"ab\0cd"s}, "\"ab\""},  // cut at the first NUL
        {RegData{std::int32_t{-1}}, "#4294967295"},
        {RegData{std::uint32_t{0x80000000}}, "#2147483648"},
        {RegData{std::int16_t{-2}}, "#4294967294"},  // sign-extended
        {RegData{std::uint8_t{200}}, "#200"},
        {RegData{true}, "#1"},
        {RegData{false}, "#0"},
        {RegData{0.1}, "\"0.1\""},
        {RegData{2.0 / 3.0}, "\"0.666666666666667\""},
        {RegData{1e15}, "\"1E+15\""},
        {RegData{-1.5e-5}, "\"-1.5E-05\""},
        {RegData{42.0}, "\"42\""},
        {RegData{1.0f / 3.0f}, "\"0.3333333\""},
        {RegData{At(2024, 2, 29, 13, 5, 9)}, "\"2024-02-29 13:05:09\""},
        {RegData{At(2024, 2, 29, 0, 0, 0)}, "\"2024-02-29\""},
        {RegData{At(1899, 12, 30, 7, 8, 9)}, "\"07:08:09\""},
    };
    RegistryDir store;
    int name = 0;
    for (const auto& [written, read] : cases) {
        EXPECT_EQ(Write(kKey, std::to_string(++name), written), Is("true"));
        EXPECT_EQ(Read(kKey, std::to_string(name)), Is(read));
    }
}

TEST(RegistryValues, RefusedWritesRecordTheirTextAndStillCreateTheKey) {
    const std::string kType = "Unable to save this type of data in the Registry";
    const std::tuple<std::string, RegData, std::string> refused[] = {
        {"v", RegData{}, Is("false", result::kInvalidData, kType)},
        {"v", RegData{std::vector<std::uint8_t>{1, 2}}, Is("false", result::kInvalidData, kType)},
        {"v", RegData{std::numeric_limits<double>::quiet_NaN()}, Is("false", result::kInvalidData, kType)},
        {"v", RegData{std::numeric_limits<float>::infinity()}, Is("false", result::kInvalidData, kType)},
        {"two\nlines", RegData{1}, Is("false", result::kInvalidParameter, "Error while writing data in the Registry")},
    };
    for (const auto& [name, data, outcome] : refused) {
        RegistryDir store;
        EXPECT_EQ(Write(kKey, name, data), outcome);
        EXPECT_EQ(Names(kKey), Is("0:"));
    }
}

TEST(RegistryValues, ReadsEnumerationsAndDeletionsLeaveTheirRecords) {
    RegistryDir store;
    const std::string kNoKey = "Unable to open registry key";
    const std::string kNoPath = "Error while opening the specified path";
    ASSERT_EQ(Write("Software\\Acme\\Settings", "Mode", RegData{"first"s}), Is("true"));
    ASSERT_EQ(Write("SOFTWARE\\ACME\\SETTINGS", "Other", RegData{5}), Is("true"));
    ASSERT_EQ(Write("software\\acme\\settings", "MODE", RegData{"second"s}), Is("true"));
    ASSERT_EQ(Write("Software\\Acme\\Alpha\\Deep", "v", RegData{1}), Is("true"));

    EXPECT_EQ(Read(kKey, "absent"), Is("\"<default>\""));  // a missing value is no error
    EXPECT_EQ(Read("Software\\Nowhere", "Other"), Is("\"<default>\"", result::kFileNotFound, kNoKey));
    EXPECT_EQ(Read("Software\\\\Acme", "Other"), Is("\"<default>\"", result::kBadPathName, kNoKey));
    EXPECT_EQ(Read("SoftWare\\aCME\\settings", "mode"), Is("\"second\""));  // and the error is gone
    EXPECT_EQ(Names(kKey), Is("2: [Mode] [Other]"));                        // replaced in place, first spelling kept
    EXPECT_EQ(Subkeys(""), Is("1: [Software]"));
    EXPECT_EQ(Subkeys("Software\\Acme"), Is("2: [Settings] [Alpha]"));  // in file order
    EXPECT_EQ(Subkeys("Software\\Gone"), Is("0:", result::kFileNotFound, kNoPath));
    EXPECT_EQ(Names("Software\\Gone"), Is("0:", result::kFileNotFound, kNoKey));

    EXPECT_EQ(After(DeleteRegValue(kLM, "Software\\Nowhere", "Mode") ? "true" : "false"),
              Is("false", result::kFileNotFound, kNoPath));
    EXPECT_EQ(After(DeleteRegValue(kLM, kKey, "c") ? "true" : "false"),
              Is("false", result::kFileNotFound, "Unable to delete specified value"));
    EXPECT_EQ(After(DeleteRegValue(kLM, kKey, "mode") ? "true" : "false"), Is("true"));
    EXPECT_EQ(Names(kKey), Is("1: [Other]"));

    // A name the enumeration buffer cannot hold ends the enumeration; reading has no such limit.
    const std::string longest(kEnumNameBuffer - 1, 'n');
    const std::string tooLong(kEnumNameBuffer, 'x');
    for (const auto& name : {longest, tooLong, "after"s})
        ASSERT_EQ(Write(kKey, name, RegData{3}), Is("true"));
    EXPECT_EQ(Names(kKey),
              Is("2: [Other] [" + longest + "]", result::kMoreData, "Unable to read the value names for the Registry"));
    EXPECT_EQ(Read(kKey, tooLong), Is("#3"));

    // The last error belongs to the thread that failed.
    EXPECT_EQ(Read("Software\\Missing", "v"), Is("\"<default>\"", result::kFileNotFound, kNoKey));
    std::string seenByOtherThread;
    std::thread([&] { seenByOtherThread = After(""); }).join();
    EXPECT_EQ(seenByOtherThread, Is(""));
    EXPECT_EQ(After(""), Is("", result::kFileNotFound, kNoKey));
}

TEST(RegistryValues, EnumerationFollowsTheFileOrder) {
    RegistryDir store;
    store.Put(CardTypesFile("\"Zulu\"=\"1\"\r\n\"alpha\"=dword:00000002\r\n@=\"d\"\r\n\"Mike\"=hex:01\r\n"));
    EXPECT_EQ(Names(kCardTypesKey), Is("4: [Zulu] [alpha] [] [Mike]"));
}

TEST(RegistryRoots, UnknownRootsAreRefusedAndTheWrappersSendThemToTheCurrentUser) {
    RegistryDir store;
    const auto unknown = static_cast<Root>(0x7FFFFFFF);
    EXPECT_EQ(Write(kKey, "v", RegData{"x"s}, {}, unknown),
              Is("false", result::kInvalidHandle, "Unable to open registry key"));
    EXPECT_EQ(Read(kKey, "v", {}, unknown), Is("\"<default>\"", result::kInvalidHandle, "Unable to open registry key"));
    EXPECT_TRUE(std::filesystem::is_empty(store.path()));

    const auto bogus = static_cast<Root>(0x80000005);
    EXPECT_TRUE(WriteValue(bogus, kKey, "v", RegData{"user"s}));
    EXPECT_TRUE(std::filesystem::exists(store.File("HKEY_CURRENT_USER")));
    EXPECT_FALSE(std::filesystem::exists(store.File("HKEY_LOCAL_MACHINE")));
    EXPECT_EQ(ReadValue(bogus, kKey, "v", RegValue{}), RegValue{"user"});
    std::vector<std::string> names;
    EXPECT_EQ(EnumValueNames(bogus, kKey, names), 1);
    EXPECT_TRUE(WriteValue(Root::ClassesRoot, kKey, "v", RegData{"classes"s}));  // real roots stay themselves
    EXPECT_EQ(Read(kKey, "v", {}, Root::ClassesRoot), Is("\"classes\""));
    EXPECT_EQ(Read(kKey, "v", {}, Root::CurrentUser), Is("\"user\""));
}

TEST(RegistryRoots, WithoutTheStoreVariableUserRootsFollowTheConfigHome) {
    RegistryDir scratch;
    const auto home = scratch.path() / "home";
    ScopedEnv noStore("ELATECTWN4_REGISTRY_DIR", nullptr);
    ScopedEnv homeEnv("HOME", home.c_str());
    const std::string xdgHome = (scratch.path() / "xdg").string();
    const std::pair<const char*, std::filesystem::path> cases[] = {
        {xdgHome.c_str(), scratch.path() / "xdg" / "elatectwn4"},
        {nullptr, home / ".config" / "elatectwn4"},
        {"relative/ignored", home / ".config" / "elatectwn4"},
    };
    for (const auto& [xdg, directory] : cases) {
        ScopedEnv xdgEnv("XDG_CONFIG_HOME", xdg);
        std::filesystem::remove_all(directory);
        ASSERT_EQ(Write(kKey, "v", RegData{1}, {}, Root::CurrentUser), Is("true"));
        ASSERT_EQ(Write(kKey, "v", RegData{1}, {}, Root::ClassesRoot), Is("true"));
        EXPECT_TRUE(std::filesystem::exists(directory / "HKEY_CURRENT_USER.reg")) << directory;
        EXPECT_TRUE(std::filesystem::exists(directory / "HKEY_CLASSES_ROOT.reg")) << directory;
    }
}

TEST(RegistryRemote, AComputerIsASubdirectoryOfTheStoreAndAMissingOneIsNamed) {
    RegistryDir store;
    std::filesystem::create_directory(store.path() / "PC1");
    RegHandle handle;
    EXPECT_TRUE(ConnectRoot(kLM, "\\\\PC1", handle));
    EXPECT_EQ(handle.directory, store.path() / "PC1");
    CloseRegKey(handle);
    ASSERT_EQ(Write(kKey, "where", RegData{"remote"s}, "\\\\PC1"), Is("true"));
    EXPECT_TRUE(std::filesystem::exists(store.path() / "PC1" / "HKEY_LOCAL_MACHINE.reg"));
    EXPECT_EQ(Read(kKey, "where", "PC1"), Is("\"remote\""));
    EXPECT_EQ(Read(kKey, "where"), Is("\"<default>\"", result::kFileNotFound, "Unable to open registry key"));

    for (const auto& [computer, shown] : {std::pair{"\\\\PC2", "PC2"}, {"\\\\..", ".."}, {"a/b", "a/b"}}) {
        const std::string text = "Cannot open Registry for computer "s + shown;
        EXPECT_FALSE(ConnectRoot(kLM, computer, handle)) << computer;
        EXPECT_EQ(After(""), Is("", result::kBadNetPath, text));
        EXPECT_EQ(Read(kKey, "v", computer), Is("\"<default>\"", result::kBadNetPath, text));
        EXPECT_EQ(Write(kKey, "v", RegData{1}, computer), Is("false", result::kBadNetPath, text));
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(store.path()), {}), 1) << "PC1 alone";
}

TEST(RegistryDelete, KeysAreDeletedOnlyWhenItIsSafe) {
    const std::pair<const char*, std::string> cases[] = {
        {"", Is("false", result::kInvalidParameter, "Can't delete a registry root!")},
        {"\\", Is("false", result::kInvalidParameter, "Can't delete a registry root!")},
        {"Software\\Acme\\", Is("false", result::kInvalidParameter, "Can't delete unnamed key")},
        {"Software", Is("false", result::kInvalidParameter, "Can't delete a main key just below the root")},
        {"Software\\Nobody\\Leaf", Is("false", result::kFileNotFound, "Error while opening the specified path")},
        {"Software\\Acme\\Nothing", Is("false", result::kFileNotFound, "Unable to delete specified key")},
        {"Software\\Acme", Is("false", result::kAccessDenied, "Can't delete a sub-tree")},
        {"software\\acme\\LEAF", Is("true")},
    };
    for (const auto& [key, outcome] : cases) {
        RegistryDir store;
        ASSERT_EQ(Write("Software\\Acme\\Leaf", "v", RegData{1}), Is("true"));
        EXPECT_EQ(After(DeleteRegKey(kLM, key) ? "true" : "false"), outcome) << key;
        EXPECT_EQ(Subkeys("Software\\Acme"), Is(outcome == Is("true") ? "0:" : "1: [Leaf]")) << key;
    }
}

TEST(RegistryDamage, ADamagedFileReadsAsEmptyAndIsNeverReplaced) {
    const std::string kCorrupt = "Unable to open registry key";
    const std::string kNoPath = "Error while opening the specified path";
    // Which texts fail to parse is the file format's; here what every call does then.
    const std::string contents = CardTypesFile("\"DESFire\"=\"31;3B8180;7\"\r\nrandom bytes \x01\x02\r\n");
    RegistryDir store;
    store.Put(contents);
    EXPECT_EQ(Read(kKey, "v"), Is("\"<default>\"", result::kRegistryCorrupt, kCorrupt));
    EXPECT_EQ(Names(kKey), Is("0:", result::kRegistryCorrupt, kCorrupt));
    EXPECT_EQ(Write(kKey, "v", RegData{1}), Is("false", result::kRegistryCorrupt, kCorrupt));
    EXPECT_EQ(After(DeleteRegValue(kLM, kKey, "v") ? "true" : "false"), Is("false", result::kRegistryCorrupt, kNoPath));
    EXPECT_EQ(After(DeleteRegKey(kLM, kKey) ? "true" : "false"), Is("false", result::kRegistryCorrupt, kNoPath));
    EXPECT_EQ(store.Contents(), contents);
    EXPECT_EQ(store.StrayFiles(), 0u);
}

TEST(RegistryFiles, AnImportedFileKeepsEverythingItHeldAcrossAWrite) {
    RegistryDir store;
    store.Put(
        "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n\r\n"
        "; card types of site B\r\n"
        "[HKEY_LOCAL_MACHINE\\Software\\Acme\\Settings]\r\n"
        "\"blob\"=hex:de,ad,\\\r\n  be,ef\r\n"
        "\"path\"=hex(2):25,00,41,00,00,00\r\n"
        "; keep me\r\n"
        "\"DESFire\"=\"31;3B8180;7\"\r\n");
    EXPECT_EQ(Read(kKey, "path"), Is("\"%A\""));
    EXPECT_EQ(Read(kKey, "blob"), Is("\"<default>\"", result::kUnsupportedType, "Error while reading value"));

    ASSERT_EQ(Write(kKey, "added", RegData{9}), Is("true"));
    EXPECT_EQ(store.Contents(),
              "Windows Registry Editor Version 5.00\r\n\r\n"
              "; card types of site B\r\n"
              "[HKEY_LOCAL_MACHINE\\Software\\Acme\\Settings]\r\n"
              "\"blob\"=hex:de,ad,be,ef\r\n"
              "\"path\"=hex(2):25,00,41,00,00,00\r\n"
              "; keep me\r\n"
              "\"DESFire\"=\"31;3B8180;7\"\r\n"
              "\"added\"=dword:00000009\r\n\r\n");
}

TEST(RegistryFiles, AWriteReplacesTheFileWholeAndKeepsItsMode) {
    RegistryDir store;
    const auto stat = [&](const char* root) {
        struct stat st {};
        EXPECT_EQ(::stat(store.File(root).c_str(), &st), 0);
        return st;
    };
    // New files: the machine-wide root for every account, a user's root for its owner.
    const mode_t umask = ::umask(0);
    ASSERT_EQ(Write(kKey, "v", RegData{1}), Is("true"));
    ASSERT_EQ(Write(kKey, "v", RegData{1}, {}, Root::CurrentUser), Is("true"));
    ::umask(umask);
    EXPECT_EQ(stat("HKEY_LOCAL_MACHINE").st_mode & 07777, 0644u);
    EXPECT_EQ(stat("HKEY_CURRENT_USER").st_mode & 07777, 0600u);

    ASSERT_EQ(::chmod(store.File().c_str(), 0640), 0);
    const auto before = stat("HKEY_LOCAL_MACHINE").st_ino;
    ASSERT_EQ(Write(kKey, "w", RegData{2}), Is("true"));
    const auto after = stat("HKEY_LOCAL_MACHINE");
    EXPECT_NE(after.st_ino, before) << "the file must be replaced by rename, not rewritten in place";
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_EQ(store.StrayFiles(), 0u);
    ASSERT_EQ(Write(kKey, "w", RegData{2}), Is("true"));  // what is already there does not touch the file
    EXPECT_EQ(stat("HKEY_LOCAL_MACHINE").st_ino, after.st_ino);

    const auto blocker = store.path() / "plain-file";
    std::ofstream(blocker) << "x";
    ScopedEnv storeEnv("ELATECTWN4_REGISTRY_DIR", (blocker / "store").c_str());
    EXPECT_EQ(Write(kKey, "v", RegData{1}), Is("false", result::kPathNotFound, "Unable to open registry key"));
    EXPECT_EQ(Read(kKey, "v"), Is("\"<default>\"", result::kPathNotFound, "Unable to open registry key"));
}

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
