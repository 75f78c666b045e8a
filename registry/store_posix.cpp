#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

#include "registry/store.h"

namespace elatectwn4::registry {
namespace {

constexpr const char* kSystemStoreDirectory = "/var/lib/elatectwn4";
constexpr const char* kStoreSubdirectory = "elatectwn4";
// A new machine-wide root is readable by every account (several hosts share
// its card types); a user's own roots are that user's alone. An existing file
// keeps the mode its administrator gave it. None of them holds a key.
constexpr mode_t kNewSharedFileMode = 0644;
constexpr mode_t kNewPrivateFileMode = 0600;
constexpr mode_t kLockFileMode = 0666;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) noexcept : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    void Reset(int fd) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    // Closes now and reports the result: a failed close can mean lost data.
    int Close() noexcept {
        const int rc = ::close(fd_);
        fd_ = -1;
        return rc;
    }

private:
    int fd_;
};

std::filesystem::path UserConfigDirectory() {
    // Relative values are to be ignored, as the XDG base-directory rules say.
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && xdg[0] == '/') {
        return std::filesystem::path(xdg) / kStoreSubdirectory;
    }
    std::string home;
    if (const char* env = std::getenv("HOME"); env != nullptr && env[0] != '\0') {
        home = env;
    } else {
        passwd entry{};
        passwd* found = nullptr;
        std::string buffer(16384, '\0');
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
            home = found->pw_dir;
        }
    }
    if (home.empty()) return {};
    return std::filesystem::path(home) / ".config" / kStoreSubdirectory;
}

bool ReadWholeFile(const std::filesystem::path& file, std::string& contents, int& error) {
    FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        error = errno;
        return false;
    }
    contents.clear();
    char buffer[65536];
    while (true) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = errno;
            return false;
        }
        if (n == 0) return true;
        contents.append(buffer, static_cast<std::size_t>(n));
    }
}

bool WriteAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Writes `contents` beside `target` and renames it over `target`; returns 0 or an errno.
int ReplaceFile(const std::filesystem::path& target, std::string_view contents, mode_t newFileMode) {
    static std::atomic<unsigned> counter{0};
    mode_t mode = newFileMode;
    if (struct stat st{}; ::stat(target.c_str(), &st) == 0) mode = st.st_mode & 07777;

    std::filesystem::path temporary;
    FileDescriptor fd;
    for (int attempt = 0; attempt < 100 && !fd.valid(); ++attempt) {
        // Leftovers of a crashed writer may hold a name; O_EXCL skips past them.
        temporary = target;
        temporary += ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter.fetch_add(1));
        fd.Reset(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (!fd.valid() && errno != EEXIST) return errno;
    }
    if (!fd.valid()) return EEXIST;

    int error = 0;
    if (!WriteAll(fd.get(), contents) || ::fchmod(fd.get(), mode) != 0 || ::fsync(fd.get()) != 0) error = errno;
    if (fd.Close() != 0 && error == 0) error = errno;
    if (error == 0 && ::rename(temporary.c_str(), target.c_str()) != 0) error = errno;
    if (error != 0) {
        ::unlink(temporary.c_str());
        return error;
    }
    // The rename itself must reach the disk before the lock is given up.
    FileDescriptor directory(::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) ::fsync(directory.get());
    return 0;
}

}  // namespace

std::uint32_t ResultFromErrno(int error) noexcept {
    switch (error) {
        case ENOENT:
            return result::kFileNotFound;
        case ENOTDIR:
            return result::kPathNotFound;
        case EACCES:
        case EPERM:
        case EROFS:
            return result::kAccessDenied;
        case ENOMEM:
            return result::kNotEnoughMemory;
        case ENOSPC:
        case EDQUOT:
            return result::kDiskFull;
        case ENAMETOOLONG:
            return result::kBadPathName;
        default:
            return result::kRegistryIoFailed;
    }
}

std::filesystem::path StoreDirectory(Root root) {
    if (const char* dir = std::getenv(kStoreDirVariable); dir != nullptr && dir[0] != '\0') {
        return std::filesystem::path(dir);
    }
    if (root == Root::LocalMachine) return kSystemStoreDirectory;
    return UserConfigDirectory();
}

std::filesystem::path HiveFile(const RegHandle& handle) {
    return handle.directory / (std::string(RootName(handle.root)) + ".reg");
}

LoadedHive LoadHive(const RegHandle& handle) {
    LoadedHive loaded;
    if (!IsKnownRoot(handle.root) || !handle.open) {
        loaded.error = result::kInvalidHandle;
        return loaded;
    }
    if (handle.directory.empty()) {
        loaded.error = result::kPathNotFound;  // no home directory to keep a user's root in
        return loaded;
    }
    std::string contents;
    int error = 0;
    if (!ReadWholeFile(HiveFile(handle), contents, error)) {
        // No file yet is an empty root, not a failure.
        if (error != ENOENT) loaded.error = ResultFromErrno(error);
        return loaded;
    }
    auto parsed = ParseHive(contents, RootName(handle.root));
    if (!parsed.hive) {
        loaded.error = result::kRegistryCorrupt;
        return loaded;
    }
    loaded.hive = std::move(*parsed.hive);
    return loaded;
}

UpdateOutcome UpdateHive(const RegHandle& handle, const std::function<bool(Hive&)>& edit) {
    if (!IsKnownRoot(handle.root) || !handle.open) return UpdateOutcome{result::kInvalidHandle, false};
    if (handle.directory.empty()) return UpdateOutcome{result::kPathNotFound, false};
    std::error_code ec;
    std::filesystem::create_directories(handle.directory, ec);
    if (ec) return UpdateOutcome{ResultFromErrno(ec.value()), false};

    const auto file = HiveFile(handle);
    auto lockPath = file;
    lockPath += ".lock";
    FileDescriptor lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kLockFileMode));
    if (!lock.valid() && (errno == EACCES || errno == EROFS)) {
        lock.Reset(::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!lock.valid()) return UpdateOutcome{ResultFromErrno(errno), false};
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) return UpdateOutcome{ResultFromErrno(errno), false};
    }

    auto loaded = LoadHive(handle);
    if (loaded.error != result::kSuccess) return UpdateOutcome{loaded.error, false};
    if (!edit(loaded.hive)) return UpdateOutcome{};
    const mode_t mode = handle.root == Root::LocalMachine ? kNewSharedFileMode : kNewPrivateFileMode;
    if (const int error = ReplaceFile(file, SerializeHive(loaded.hive, RootName(handle.root)), mode); error != 0) {
        return UpdateOutcome{ResultFromErrno(error), true};
    }
    return UpdateOutcome{};
}

}  // namespace elatectwn4::registry
