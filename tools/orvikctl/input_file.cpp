#include "input_file.h"

#include <algorithm>

#include <windows.h>

#include "cancellation.h"
#include "partial_file.h"
#include "windows/utf.h"

InputFile::InputFile(const std::filesystem::path& sourceFile)
    : path(sourceFile),
      opened(OwnFile(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))),
      file(opened.get()) {
    if (!opened)
        throw FileError("cannot open", path);
}

InputFile::InputFile() : path("standard input"), file(::GetStdHandle(STD_INPUT_HANDLE)) {}

std::string InputFile::Name() const {
    return ToUtf8(path.native());
}

std::uint64_t InputFile::Size() const {
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file, &size))
        throw FileError("cannot read the size of", path);
    return static_cast<std::uint64_t>(size.QuadPart);
}

std::vector<std::byte> InputFile::Read(std::size_t length) {
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
