// The registry routines against a store of their own: values as written come
// back as read, every failure leaves its exact number and text, damaged files
// are left alone, and remote computers map to sub-directories.
#include "registry/registry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <limits>
#include <thread>

#include "support/registry_dir.h"

namespace elatectwn4::registry {
namespace {

using test::CardTypesFile;
using test::RegistryDir;
using test::ScopedEnv;

constexpr Root kLM = Root::LocalMachine;
constexpr std::string_view kKey = "Software\\Acme\\Settings";

std::string Describe(const RegValue& v) {
    if (const auto* n = std::get_if<std::uint32_t>(&v)) return "number " + std::to_string(*n);
    return "text \"" + std::get<std::string>(v) + "\"";
}

void ExpectLastError(std::uint32_t number, std::string_view description, const char* context = "") {
    const auto error = LastRegistryError();
    EXPECT_EQ(error.number, number) << context;
    EXPECT_EQ(error.description, description) << context;
}

std::chrono::local_seconds At(int y, unsigned m, unsigned d, int hh, int mm, int ss) {
    using namespace std::chrono;
    return local_days{year{y} / month{m} / day{d}} + hours{hh} + minutes{mm} + seconds{ss};
}

struct RoundTripCase {
    const char* description;
    RegData written;
    RegValue read;
};

TEST(RegistryValues, EveryKindReadsBackAsTheRegistryKeepsIt) {
    using namespace std::string_literals;
    const std::vector<RoundTripCase> cases = {
        {"text", RegData{"31;3B8180;7"s}, RegValue{"31;3B8180;7"s}},
        {"empty text", RegData{""s}, RegValue{""s}},
        {"text with quotes and backslashes", RegData{"a\\\"b\\\\c\""s}, RegValue{"a\\\"b\\\\c\""s}},
        {"text with line breaks", RegData{"one\r\ntwo\nthree"s}, RegValue{"one\r\ntwo\nthree"s}},
        {"text with non-ASCII and non-UTF-8 bytes", RegData{"\xE2\x82\xAC \xFF"s}, RegValue{"\xE2\x82\xAC \xFF"s}},
        {"text is cut at its first NUL", RegData{"ab\0cd"s}, RegValue{"ab"s}},
        {"32-bit number", RegData{std::int32_t{0x1F}}, RegValue{std::uint32_t{0x1F}}},
        {"negative 32-bit number", RegData{std::int32_t{-1}}, RegValue{std::uint32_t{0xFFFFFFFF}}},
        {"negative 16-bit number is sign-extended", RegData{std::int16_t{-2}}, RegValue{std::uint32_t{0xFFFFFFFE}}},
        {"byte", RegData{std::uint8_t{200}}, RegValue{std::uint32_t{200}}},
        {"unsigned 32-bit number", RegData{std::uint32_t{0x80000000}}, RegValue{std::uint32_t{0x80000000}}},
        {"true", RegData{true}, RegValue{std::uint32_t{1}}},
        {"false", RegData{false}, RegValue{std::uint32_t{0}}},
        {"double", RegData{0.1}, RegValue{"0.1"s}},
        {"double keeps 15 digits", RegData{2.0 / 3.0}, RegValue{"0.666666666666667"s}},
        {"large double in exponent form", RegData{1e15}, RegValue{"1E+15"s}},
        {"small double in exponent form", RegData{-1.5e-5}, RegValue{"-1.5E-05"s}},
        {"integral double", RegData{42.0}, RegValue{"42"s}},
        {"single keeps 7 digits", RegData{1.0f / 3.0f}, RegValue{"0.3333333"s}},
        {"date and time", RegData{At(2024, 2, 29, 13, 5, 9)}, RegValue{"2024-02-29 13:05:09"s}},
        {"date at midnight", RegData{At(2024, 2, 29, 0, 0, 0)}, RegValue{"2024-02-29"s}},
        {"time of day zero", RegData{At(1899, 12, 30, 7, 8, 9)}, RegValue{"07:08:09"s}},
    };
    RegistryDir store;
    for (const auto& c : cases) {
        EXPECT_TRUE(WriteRegValue(kLM, kKey, c.description, c.written)) << c.description;
        ExpectLastError(0, "", c.description);
        const auto read = ReadRegValue(kLM, kKey, c.description, RegValue{"fallback"});
        EXPECT_EQ(read, c.read) << c.description << ": read " << Describe(read);
        ExpectLastError(0, "", c.description);
    }
    // Every value went to one file, readable as a whole again.
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegValueNames(kLM, kKey, names), static_cast<std::int32_t>(cases.size()));
}

TEST(RegistryValues, RefusedKindsRecordTheirTextAndStillCreateTheKey) {
    using namespace std::string_literals;
    const std::vector<std::pair<const char*, RegData>> refused = {
        {"empty", RegData{}},
        {"array", RegData{std::vector<std::uint8_t>{1, 2}}},
        {"not a number", RegData{std::numeric_limits<double>::quiet_NaN()}},
        {"infinite single", RegData{std::numeric_limits<float>::infinity()}},
    };
    for (const auto& [description, value] : refused) {
        RegistryDir store;
        EXPECT_FALSE(WriteRegValue(kLM, "Software\\New", "v", value)) << description;
        ExpectLastError(result::kInvalidData, "Unable to save this type of data in the Registry", description);
        std::vector<std::string> names{"stale"};
        EXPECT_EQ(EnumRegValueNames(kLM, "Software\\New", names), 0) << description;
        ExpectLastError(0, "", description);  // the key exists, empty
        EXPECT_TRUE(names.empty());
    }
}

TEST(RegistryValues, ANameWithALineBreakCannotBeStored) {
    RegistryDir store;
    EXPECT_FALSE(WriteRegValue(kLM, kKey, "two\nlines", RegData{std::int32_t{1}}));
    ExpectLastError(result::kInvalidParameter, "Error while writing data in the Registry");
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegValueNames(kLM, kKey, names), 0);
}

TEST(RegistryValues, MissingValueGivesTheDefaultSilentlyAndMissingKeyRecordsIt) {
    RegistryDir store;
    ASSERT_TRUE(WriteRegValue(kLM, kKey, "present", RegData{std::int32_t{5}}));

    EXPECT_EQ(ReadRegValue(kLM, kKey, "absent", RegValue{std::uint32_t{77}}), RegValue{std::uint32_t{77}});
    ExpectLastError(0, "");

    EXPECT_EQ(ReadRegValue(kLM, "Software\\Nowhere", "present", RegValue{"dflt"}), RegValue{"dflt"});
    ExpectLastError(result::kFileNotFound, "Unable to open registry key");

    EXPECT_EQ(ReadRegValue(kLM, "Software\\\\Acme", "present", RegValue{"dflt"}), RegValue{"dflt"});
    ExpectLastError(result::kBadPathName, "Unable to open registry key");

    // The next successful call leaves no error behind.
    EXPECT_EQ(ReadRegValue(kLM, kKey, "present", RegValue{}), RegValue{std::uint32_t{5}});
    ExpectLastError(0, "");
}

TEST(RegistryValues, KeyPathsAndValueNamesCompareWithoutCase) {
    RegistryDir store;
    ASSERT_TRUE(WriteRegValue(kLM, "Software\\Acme", "Mode", RegData{std::string("first")}));
    ASSERT_TRUE(WriteRegValue(kLM, "SOFTWARE\\ACME", "Other", RegData{std::string("x")}));
    ASSERT_TRUE(WriteRegValue(kLM, "software\\acme", "MODE", RegData{std::string("second")}));
    EXPECT_EQ(ReadRegValue(kLM, "SoftWare\\aCME", "mode", RegValue{}), RegValue{"second"});
    std::vector<std::string> names;
    ASSERT_EQ(EnumRegValueNames(kLM, "Software\\Acme", names), 2);
    EXPECT_EQ(names, (std::vector<std::string>{"Mode", "Other"}));  // replaced in place, first spelling kept
    std::vector<std::string> keys;
    ASSERT_EQ(EnumRegKeyNames(kLM, "", keys), 1);
    EXPECT_EQ(keys, std::vector<std::string>{"Software"});
}

TEST(RegistryValues, EnumerationFollowsTheFileOrder) {
    RegistryDir store;
    store.Put(CardTypesFile("\"Zulu\"=\"1\"\r\n\"alpha\"=dword:00000002\r\n@=\"d\"\r\n\"Mike\"=hex:01\r\n"));
    std::vector<std::string> names;
    ASSERT_EQ(EnumRegValueNames(kLM, "Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types", names), 4);
    EXPECT_EQ(names, (std::vector<std::string>{"Zulu", "alpha", "", "Mike"}));
    ExpectLastError(0, "");
    ASSERT_TRUE(WriteRegValue(kLM, "Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types", "Bravo",
                              RegData{std::string("new")}));
    ASSERT_EQ(EnumRegValueNames(kLM, "Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types", names), 5);
    EXPECT_EQ(names.back(), "Bravo");
}

TEST(RegistryValues, ANameTooLongForTheEnumerationBufferStopsIt) {
    RegistryDir store;
    const std::string longest(kEnumNameBuffer - 1, 'n');
    const std::string tooLong(kEnumNameBuffer, 'x');
    ASSERT_TRUE(WriteRegValue(kLM, kKey, "first", RegData{std::int32_t{1}}));
    ASSERT_TRUE(WriteRegValue(kLM, kKey, longest, RegData{std::int32_t{2}}));
    ASSERT_TRUE(WriteRegValue(kLM, kKey, tooLong, RegData{std::int32_t{3}}));
    ASSERT_TRUE(WriteRegValue(kLM, kKey, "after", RegData{std::int32_t{4}}));
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegValueNames(kLM, kKey, names), 2);
    EXPECT_EQ(names, (std::vector<std::string>{"first", longest}));
    ExpectLastError(result::kMoreData, "Unable to read the value names for the Registry");
    EXPECT_EQ(ReadRegValue(kLM, kKey, tooLong, RegValue{}), RegValue{std::uint32_t{3}});  // reading has no such limit
}

TEST(RegistryValues, TheLastErrorBelongsToTheThreadThatFailed) {
    RegistryDir store;
    ReadRegValue(kLM, "Software\\Missing", "v", RegValue{});
    RegistryError seenByOtherThread{99, "untouched"};
    std::thread([&] { seenByOtherThread = LastRegistryError(); }).join();
    EXPECT_EQ(seenByOtherThread.number, 0u);
    EXPECT_EQ(seenByOtherThread.description, "");
    ExpectLastError(result::kFileNotFound, "Unable to open registry key");
}

TEST(RegistryRoots, TheRoutinesRefuseAnUnknownRootAndTheWrappersSendItToTheCurrentUser) {
    RegistryDir store;
    EXPECT_FALSE(WriteRegValue(static_cast<Root>(0x7FFFFFFF), kKey, "v", RegData{std::string("x")}));
    ExpectLastError(result::kInvalidHandle, "Unable to open registry key");
    EXPECT_EQ(ReadRegValue(static_cast<Root>(0x7FFFFFFF), kKey, "v", RegValue{"d"}), RegValue{"d"});
    ExpectLastError(result::kInvalidHandle, "Unable to open registry key");
    EXPECT_TRUE(std::filesystem::is_empty(store.path()));

    const auto bogus = static_cast<Root>(0x80000005);
    EXPECT_TRUE(WriteValue(bogus, kKey, "v", RegData{std::string("user")}));
    EXPECT_TRUE(std::filesystem::exists(store.File("HKEY_CURRENT_USER")));
    EXPECT_FALSE(std::filesystem::exists(store.File("HKEY_LOCAL_MACHINE")));
    EXPECT_EQ(ReadRegValue(Root::CurrentUser, kKey, "v", RegValue{}), RegValue{"user"});
    EXPECT_EQ(ReadValue(bogus, kKey, "v", RegValue{}), RegValue{"user"});
    std::vector<std::string> names;
    EXPECT_EQ(EnumValueNames(bogus, kKey, names), 1);
    // The wrappers leave real roots alone.
    EXPECT_TRUE(WriteValue(Root::ClassesRoot, kKey, "v", RegData{std::string("classes")}));
    EXPECT_EQ(ReadValue(Root::ClassesRoot, kKey, "v", RegValue{}), RegValue{"classes"});
    EXPECT_EQ(ReadValue(Root::CurrentUser, kKey, "v", RegValue{}), RegValue{"user"});
}

TEST(RegistryRoots, WithoutTheStoreVariableUserRootsFollowTheConfigHome) {
    RegistryDir scratch;
    const auto xdg = scratch.path() / "xdg";
    const auto home = scratch.path() / "home";
    ScopedEnv noStore("ELATECTWN4_REGISTRY_DIR", nullptr);
    ScopedEnv homeEnv("HOME", home.c_str());
    {
        ScopedEnv xdgEnv("XDG_CONFIG_HOME", xdg.c_str());
        ASSERT_TRUE(WriteRegValue(Root::CurrentUser, kKey, "v", RegData{std::int32_t{1}}));
        ASSERT_TRUE(WriteRegValue(Root::ClassesRoot, kKey, "v", RegData{std::int32_t{1}}));
        EXPECT_TRUE(std::filesystem::exists(xdg / "elatectwn4" / "HKEY_CURRENT_USER.reg"));
        EXPECT_TRUE(std::filesystem::exists(xdg / "elatectwn4" / "HKEY_CLASSES_ROOT.reg"));
    }
    for (const char* xdgValue : {static_cast<const char*>(nullptr), "relative/ignored"}) {
        ScopedEnv xdgEnv("XDG_CONFIG_HOME", xdgValue);
        std::filesystem::remove_all(home);
        ASSERT_TRUE(WriteRegValue(Root::CurrentUser, kKey, "v", RegData{std::int32_t{2}}));
        EXPECT_TRUE(std::filesystem::exists(home / ".config" / "elatectwn4" / "HKEY_CURRENT_USER.reg"))
            << (xdgValue ? xdgValue : "unset");
    }
}

TEST(RegistryRemote, AComputerIsASubdirectoryOfTheStore) {
    RegistryDir store;
    std::filesystem::create_directory(store.path() / "PC1");
    RegHandle handle;
    EXPECT_TRUE(ConnectRoot(kLM, "\\\\PC1", handle));
    EXPECT_EQ(handle.directory, store.path() / "PC1");
    CloseRegKey(handle);

    ASSERT_TRUE(WriteRegValue(kLM, kKey, "where", RegData{std::string("remote")}, "\\\\PC1"));
    EXPECT_TRUE(std::filesystem::exists(store.path() / "PC1" / "HKEY_LOCAL_MACHINE.reg"));
    EXPECT_EQ(ReadRegValue(kLM, kKey, "where", RegValue{}, "PC1"), RegValue{"remote"});
    EXPECT_EQ(ReadRegValue(kLM, kKey, "where", RegValue{"not here"}), RegValue{"not here"});
    ExpectLastError(result::kFileNotFound, "Unable to open registry key");
}

TEST(RegistryRemote, AMissingComputerIsNamedWithoutItsBackslashes) {
    RegistryDir store;
    struct Case {
        const char* computer;
        const char* text;
    };
    for (const auto& c :
         {Case{"PC2", "Cannot open Registry for computer PC2"},
          Case{"\\\\PC2", "Cannot open Registry for computer PC2"}, Case{"..", "Cannot open Registry for computer .."},
          Case{"\\\\..", "Cannot open Registry for computer .."},
          Case{"a/b", "Cannot open Registry for computer a/b"}}) {
        RegHandle handle;
        EXPECT_FALSE(ConnectRoot(kLM, c.computer, handle)) << c.computer;
        ExpectLastError(result::kBadNetPath, c.text, c.computer);
        EXPECT_EQ(ReadRegValue(kLM, kKey, "v", RegValue{"d"}, c.computer), RegValue{"d"});
        ExpectLastError(result::kBadNetPath, c.text, c.computer);
        EXPECT_FALSE(WriteRegValue(kLM, kKey, "v", RegData{std::int32_t{1}}, c.computer));
        ExpectLastError(result::kBadNetPath, c.text, c.computer);
    }
    EXPECT_TRUE(std::filesystem::is_empty(store.path()));
}

struct DeleteKeyCase {
    const char* key;
    bool ok;
    std::uint32_t number;
    const char* text;
};

TEST(RegistryDelete, KeysAreDeletedOnlyWhenItIsSafe) {
    const std::vector<DeleteKeyCase> cases = {
        {"", false, result::kInvalidParameter, "Can't delete a registry root!"},
        {"\\", false, result::kInvalidParameter, "Can't delete a registry root!"},
        {"Software\\Acme\\", false, result::kInvalidParameter, "Can't delete unnamed key"},
        {"Software", false, result::kInvalidParameter, "Can't delete a main key just below the root"},
        {"Software\\Nobody\\Leaf", false, result::kFileNotFound, "Error while opening the specified path"},
        {"Software\\Acme\\Nothing", false, result::kFileNotFound, "Unable to delete specified key"},
        {"Software\\Acme", false, result::kAccessDenied, "Can't delete a sub-tree"},
        {"software\\acme\\LEAF", true, 0, ""},
    };
    for (const auto& c : cases) {
        RegistryDir store;
        ASSERT_TRUE(WriteRegValue(kLM, "Software\\Acme\\Leaf", "v", RegData{std::int32_t{1}}));
        EXPECT_EQ(DeleteRegKey(kLM, c.key), c.ok) << c.key;
        ExpectLastError(c.number, c.text, c.key);
        std::vector<std::string> subkeys;
        EXPECT_EQ(EnumRegKeyNames(kLM, "Software\\Acme", subkeys), c.ok ? 0 : 1) << c.key;
        ExpectLastError(0, "", c.key);  // the parent always survives
    }
}

TEST(RegistryDelete, ValuesAreDeletedWhenPresent) {
    RegistryDir store;
    ASSERT_TRUE(WriteRegValue(kLM, kKey, "a", RegData{std::int32_t{1}}));
    ASSERT_TRUE(WriteRegValue(kLM, kKey, "b", RegData{std::int32_t{2}}));
    EXPECT_FALSE(DeleteRegValue(kLM, "Software\\Nowhere", "a"));
    ExpectLastError(result::kFileNotFound, "Error while opening the specified path");
    EXPECT_FALSE(DeleteRegValue(kLM, kKey, "c"));
    ExpectLastError(result::kFileNotFound, "Unable to delete specified value");
    EXPECT_TRUE(DeleteRegValue(kLM, kKey, "A"));
    ExpectLastError(0, "");
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegValueNames(kLM, kKey, names), 1);
    EXPECT_EQ(names, std::vector<std::string>{"b"});
}

TEST(RegistryDelete, SubkeyEnumerationNamesAMissingPath) {
    RegistryDir store;
    ASSERT_TRUE(WriteRegValue(kLM, "Software\\Acme\\Zeta", "v", RegData{std::int32_t{1}}));
    ASSERT_TRUE(WriteRegValue(kLM, "Software\\Acme\\Alpha\\Deep", "v", RegData{std::int32_t{1}}));
    std::vector<std::string> names;
    EXPECT_EQ(EnumRegKeyNames(kLM, "Software\\Acme", names), 2);
    EXPECT_EQ(names, (std::vector<std::string>{"Zeta", "Alpha"}));
    EXPECT_EQ(EnumRegKeyNames(kLM, "Software\\Gone", names), 0);
    EXPECT_TRUE(names.empty());
    ExpectLastError(result::kFileNotFound, "Error while opening the specified path");
}

// Each of these files is damaged somewhere; all of it must stay as it was.
const std::vector<std::pair<const char*, std::string>> kDamagedFiles = {
    {"no header", "[HKEY_LOCAL_MACHINE\\Software\\Acme\\Settings]\n\"v\"=\"1\"\n"},
    {"truncated in a text", CardTypesFile("\"DESFire\"=\"31;3B81\r\n")},
    {"garbage line", CardTypesFile("\"DESFire\"=\"31;3B8180;7\"\r\nrandom bytes \x01\x02\r\n")},
    {"section of another root", "Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\Software]\n"},
    {"binary junk", std::string("\x7F"
                                "ELF\x02\x01\x01\0\0\0",
                                10)},
};

TEST(RegistryDamage, ADamagedFileReadsAsEmptyAndIsNeverReplaced) {
    for (const auto& [description, contents] : kDamagedFiles) {
        RegistryDir store;
        store.Put(contents);
        EXPECT_EQ(ReadRegValue(kLM, kKey, "v", RegValue{"d"}), RegValue{"d"}) << description;
        ExpectLastError(result::kRegistryCorrupt, "Unable to open registry key", description);
        std::vector<std::string> names{"stale"};
        EXPECT_EQ(EnumRegValueNames(kLM, kKey, names), 0) << description;
        EXPECT_TRUE(names.empty()) << description;
        ExpectLastError(result::kRegistryCorrupt, "Unable to open registry key", description);

        EXPECT_FALSE(WriteRegValue(kLM, kKey, "v", RegData{std::int32_t{1}})) << description;
        ExpectLastError(result::kRegistryCorrupt, "Unable to open registry key", description);
        EXPECT_FALSE(DeleteRegValue(kLM, kKey, "v")) << description;
        ExpectLastError(result::kRegistryCorrupt, "Error while opening the specified path", description);
        EXPECT_FALSE(DeleteRegKey(kLM, "Software\\Acme\\Settings")) << description;
        ExpectLastError(result::kRegistryCorrupt, "Error while opening the specified path", description);

        EXPECT_EQ(store.Contents(), contents) << description;
        EXPECT_EQ(store.StrayFiles(), 0u) << description;
    }
}

TEST(RegistryDamage, AnImportedFileKeepsEverythingItHeldAcrossAWrite) {
    RegistryDir store;
    const std::string imported =
        "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n\r\n"
        "; card types of site B\r\n"
        "[HKEY_LOCAL_MACHINE\\Software\\Acme\\Settings]\r\n"
        "\"blob\"=hex:de,ad,\\\r\n  be,ef\r\n"
        "\"path\"=hex(2):25,00,41,00,00,00\r\n"
        "; keep me\r\n"
        "\"DESFire\"=\"31;3B8180;7\"\r\n";
    store.Put(imported);
    EXPECT_EQ(ReadRegValue(kLM, kKey, "path", RegValue{}), RegValue{"%A"});
    EXPECT_EQ(ReadRegValue(kLM, kKey, "blob", RegValue{"d"}), RegValue{"d"});
    ExpectLastError(result::kUnsupportedType, "Error while reading value");

    ASSERT_TRUE(WriteRegValue(kLM, kKey, "added", RegData{std::int32_t{9}}));
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
    // New files: the machine-wide root for every account, a user's root for its owner.
    const mode_t umask = ::umask(0);
    ASSERT_TRUE(WriteRegValue(kLM, kKey, "v", RegData{std::int32_t{1}}));
    ASSERT_TRUE(WriteRegValue(Root::CurrentUser, kKey, "v", RegData{std::int32_t{1}}));
    ::umask(umask);
    struct stat machine {};
    struct stat user {};
    ASSERT_EQ(::stat(store.File().c_str(), &machine), 0);
    ASSERT_EQ(::stat(store.File("HKEY_CURRENT_USER").c_str(), &user), 0);
    EXPECT_EQ(machine.st_mode & 07777, 0644u);
    EXPECT_EQ(user.st_mode & 07777, 0600u);

    ASSERT_EQ(::chmod(store.File().c_str(), 0640), 0);
    struct stat oldStat {};
    ASSERT_EQ(::stat(store.File().c_str(), &oldStat), 0);

    ASSERT_TRUE(WriteRegValue(kLM, kKey, "w", RegData{std::int32_t{2}}));
    struct stat newStat {};
    ASSERT_EQ(::stat(store.File().c_str(), &newStat), 0);
    EXPECT_NE(newStat.st_ino, oldStat.st_ino) << "the file must be replaced by rename, not rewritten in place";
    EXPECT_EQ(newStat.st_mode & 07777, 0640u);
    EXPECT_EQ(store.StrayFiles(), 0u);

    // Writing what is already there does not touch the file.
    ASSERT_TRUE(WriteRegValue(kLM, kKey, "w", RegData{std::int32_t{2}}));
    struct stat sameStat {};
    ASSERT_EQ(::stat(store.File().c_str(), &sameStat), 0);
    EXPECT_EQ(sameStat.st_ino, newStat.st_ino);
}

TEST(RegistryFiles, AStoreThatCannotBeCreatedIsReported) {
    RegistryDir scratch;
    const auto blocker = scratch.path() / "plain-file";
    std::ofstream(blocker) << "x";
    const auto inside = blocker / "store";
    ScopedEnv storeEnv("ELATECTWN4_REGISTRY_DIR", inside.c_str());
    EXPECT_FALSE(WriteRegValue(kLM, kKey, "v", RegData{std::int32_t{1}}));
    ExpectLastError(result::kPathNotFound, "Unable to open registry key");
    EXPECT_EQ(ReadRegValue(kLM, kKey, "v", RegValue{"d"}), RegValue{"d"});
    ExpectLastError(result::kPathNotFound, "Unable to open registry key");
}

}  // namespace
}  // namespace elatectwn4::registry
