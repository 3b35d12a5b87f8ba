#include "input_file.h"

#include <algorithm>
#include <utility>

#include <windows.h>

#include "arguments.h"
#include "cancellation.h"
#include "exit_code.h"
#include "partial_file.h"
#include "windows/utf.h"

namespace {

/// As many bytes as READ(6) and WRITE(6) reach on a camera with the usual blocks of 512 bytes.
constexpr std::size_t kMemoryLimit = std::size_t{1024} * 1024 * 1024;

}  // namespace

InputFile::InputFile(const std::filesystem::path& sourceFile)
    : path(sourceFile),
      opened(OwnFile(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))),
      file(opened.get()) {
    if (!opened)
        throw FileError("cannot open", path);
}

InputFile::InputFile() : path("standard input"), file(::GetStdHandle(STD_INPUT_HANDLE)) {}

InputFile InputFile::Open(const std::string& argument) {
    if (argument != "-")
        return InputFile(PathOf(argument));
    InputFile file;
    file.ReadIntoMemory();
    return file;
}

void InputFile::ReadIntoMemory() {
    std::vector<std::byte> all;
    constexpr std::size_t kPiece = std::size_t{1024} * 1024;
    while (true) {
        const std::vector<std::byte> piece = Read(kPiece);
        all.insert(all.end(), piece.begin(), piece.end());
        if (piece.size() < kPiece)
            break;
        if (all.size() > kMemoryLimit)
            throw Failure(ExitCode::kFailure, "standard input has more than " +
                                                  std::to_string(kMemoryLimit) +
                                                  " bytes: write it to a file first");
    }
    memory = std::move(all);
}

std::string InputFile::Name() const {
    return ToUtf8(path.native());
}

std::uint64_t InputFile::Size() const {
    if (memory)
        return memory->size();
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file, &size))
        throw FileError("cannot read the size of", path);
    return static_cast<std::uint64_t>(size.QuadPart);
}

void InputFile::Rewind() {
    position = 0;
    if (!memory && !::SetFilePointerEx(file, LARGE_INTEGER{}, nullptr, FILE_BEGIN))
        throw FileError("cannot read", path);
}

std::vector<std::byte> InputFile::ReadAll(std::size_t length) {
    std::vector<std::byte> bytes = Read(length);
    if (bytes.size() != length)
        throw Failure(ExitCode::kFailure, Name() + " has become shorter while it was read");
    return bytes;
}

std::vector<std::byte> InputFile::Read(std::size_t length) {
    if (memory) {
        const auto start = memory->begin() + static_cast<std::ptrdiff_t>(position);
        const std::size_t count = std::min(length, memory->size() - position);
        position += count;
        return {start, start + static_cast<std::ptrdiff_t>(count)};
    }
    std::vector<std::byte> bytes(length);
    std::size_t done = 0;
    while (done < length) {
        DWORD count = 0;
        ::SetLastError(ERROR_SUCCESS);
        const BOOL read = ::ReadFile(file, bytes.data() + done, static_cast<DWORD>(length - done),
                                     &count, nullptr);
        const DWORD code = ::GetLastError();
        // Ctrl-C makes a read of the console succeed without data, perhaps before the handler of
        // Ctrl-C has run on its own thread.
        if (read && code == ERROR_OPERATION_ABORTED)
            ::WaitForSingleObject(CancellationEvent(), INFINITE);
        ThrowIfCancelled();
        if (!read && code != ERROR_BROKEN_PIPE)
            throw FileError("cannot read", path, code);
        if (count == 0)
            break;
        done += count;
    }
    bytes.resize(done);
    return bytes;
}
