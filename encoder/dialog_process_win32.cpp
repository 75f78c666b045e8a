// The dialog program as a Windows child process whose standard input and
// output are anonymous pipes.
#include <windows.h>

#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "encoder/dialog.h"
#include "encoder/dialog_protocol.h"

namespace elatectwn4::dialog {

namespace {

constexpr DWORD kPipeSize = 64 * 1024;  // a whole setup fits: the first Send never waits for the child

std::wstring Wide(const std::string& text) {
    const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

std::string Utf8(const std::wstring& wide) {
    const int length =
        ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(length), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), length, nullptr,
                          nullptr);
    return text;
}

// Windows' own sentence for a system error code, without its line end.
class WindowsCategory : public std::error_category {
public:
    const char* name() const noexcept override { return "windows"; }
    std::string message(int code) const override {
        wchar_t* text = nullptr;
        const DWORD length = ::FormatMessageW(
            FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
            static_cast<DWORD>(code), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
        std::wstring sentence(text, length);
        ::LocalFree(text);
        while (!sentence.empty() && (sentence.back() == L'\n' || sentence.back() == L'\r' || sentence.back() == L' '))
            sentence.pop_back();
        if (sentence.empty()) return "Windows error " + std::to_string(code);
        // Some texts name the file in an insert ("%1 is not a valid Win32 application.").
        if (const std::size_t insert = sentence.find(L"%1"); insert != std::wstring::npos)
            sentence.replace(insert, 2, L"the program");
        return Utf8(sentence);
    }
};

std::system_error LastError(const char* what) {
    static const WindowsCategory category;
    return std::system_error(static_cast<int>(::GetLastError()), category, what);
}

void Close(void*& handle) {
    if (handle != nullptr) ::CloseHandle(handle);
    handle = nullptr;
}

// Both ends of one pipe; the child's end is inheritable, ours is not.
struct Pipe {
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    Pipe() {
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        if (!::CreatePipe(&read, &write, &inherit, kPipeSize)) throw LastError("CreatePipe");
    }
    ~Pipe() {
        if (read != nullptr) ::CloseHandle(read);
        if (write != nullptr) ::CloseHandle(write);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    HANDLE Keep(HANDLE& end) {
        ::SetHandleInformation(end, HANDLE_FLAG_INHERIT, 0);
        return std::exchange(end, nullptr);
    }
};

// The attribute list that lets the child inherit only `handles`: another
// thread of the host starting a program at the same moment must not take our
// pipe ends along (its copy would keep the pipe open after our child ends).
class InheritOnly {
public:
    explicit InheritOnly(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        storage_.resize(size);
        list_ = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.data());
        if (!::InitializeProcThreadAttributeList(list_, 1, 0, &size))
            throw LastError("InitializeProcThreadAttributeList");
        if (!::UpdateProcThreadAttribute(list_, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                         handles_.size() * sizeof(HANDLE), nullptr, nullptr)) {
            ::DeleteProcThreadAttributeList(list_);
            throw LastError("UpdateProcThreadAttribute");
        }
    }
    ~InheritOnly() { ::DeleteProcThreadAttributeList(list_); }
    InheritOnly(const InheritOnly&) = delete;
    InheritOnly& operator=(const InheritOnly&) = delete;
    LPPROC_THREAD_ATTRIBUTE_LIST list() const { return list_; }

private:
    std::vector<HANDLE> handles_;
    std::vector<char> storage_;
    LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
};

// The folder of the module holding this code (the server DLL, not the host's .exe).
std::wstring ModuleFolder() {
    HMODULE module = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCWSTR>(&ModuleFolder), &module);
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

}  // namespace

struct ChildProcess::System {
    HANDLE process = nullptr;
    HANDLE toChild = nullptr;
    HANDLE fromChild = nullptr;
};

// The environment is read through Windows, not the C runtime, whose copy does
// not see what the host set after it started (a script host's
// WScript.Shell does exactly that).
std::string ProgramPath() {
    const wchar_t* name = L"ELATECTWN4_CONFIGURE_PROGRAM";
    if (const DWORD size = ::GetEnvironmentVariableW(name, nullptr, 0); size > 1) {
        std::wstring value(size, L'\0');
        value.resize(::GetEnvironmentVariableW(name, value.data(), size));
        return Utf8(value);
    }
    return Utf8(ModuleFolder() + L"twn4-configure.exe");
}

// There is always a desktop to show a window on.
std::string WhyNoDialog(const std::string& program) {
    const DWORD attributes = ::GetFileAttributesW(Wide(program).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) return "The dialog program is not installed";
        return std::string("Cannot run the dialog program: ") + LastError("").code().message();
    }
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) return "Cannot run the dialog program: it is a folder";
    return {};
}

ChildProcess::ChildProcess(const std::string& program) : system_(std::make_unique<System>()) {
    Pipe input;
    Pipe output;
    const InheritOnly inherit({input.read, output.write});
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = input.read;
    startup.StartupInfo.hStdOutput = output.write;
    startup.StartupInfo.hStdError = nullptr;
    startup.lpAttributeList = inherit.list();
    std::wstring path = Wide(program);
    std::wstring commandLine = L"\"" + path + L"\"";
    PROCESS_INFORMATION started{};
    if (!::CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                          EXTENDED_STARTUPINFO_PRESENT | CREATE_NO_WINDOW, nullptr, nullptr, &startup.StartupInfo,
                          &started))
        throw LastError("CreateProcess");
    ::CloseHandle(started.hThread);
    system_->process = started.hProcess;
    system_->toChild = input.Keep(input.write);
    system_->fromChild = output.Keep(output.read);
    // The child's ends close with `input` and `output`: once the child ends,
    // reading its output sees the end instead of waiting for ever.
}

ChildProcess::~ChildProcess() {
    if (system_->process != nullptr) ::TerminateProcess(system_->process, 1);
    Wait();
}

void ChildProcess::Send(std::string_view text) noexcept {
    while (system_->toChild != nullptr && !text.empty()) {
        DWORD written = 0;
        if (!::WriteFile(system_->toChild, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
            written == 0)
            return;
        text.remove_prefix(written);
    }
}

std::optional<std::string> ChildProcess::Receive() {
    return NextLine(pending_, [this](char* buffer, std::size_t size) {
        DWORD got = 0;
        if (system_->fromChild == nullptr ||
            !::ReadFile(system_->fromChild, buffer, static_cast<DWORD>(size), &got, nullptr))
            return 0L;
        return static_cast<long>(got);
    });
}

std::string ChildProcess::Wait() {
    Close(system_->toChild);
    Close(system_->fromChild);
    if (system_->process == nullptr) return {};
    ::WaitForSingleObject(system_->process, INFINITE);
    DWORD status = 0;
    const bool known = ::GetExitCodeProcess(system_->process, &status);
    Close(system_->process);
    if (!known) return "The dialog program ended without an answer";
    if (status != 0) return "The dialog program ended with status " + std::to_string(status);
    return {};
}

}  // namespace elatectwn4::dialog
