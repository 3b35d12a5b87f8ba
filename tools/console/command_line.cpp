#include "command_line.h"

#include <memory>
#include <system_error>

#include <windows.h>

#include <shellapi.h>

#include "windows/unique_memory.h"
#include "windows/utf.h"

std::vector<std::string> ReversedArguments() {
    int count = 0;
    const std::unique_ptr<LPWSTR, LocalFreer> words(
        ::CommandLineToArgvW(::GetCommandLineW(), &count));
    if (!words)
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                                "cannot parse the command line");
    std::vector<std::string> arguments;
    for (int i = count - 1; i > 0; --i)
        arguments.push_back(ToUtf8(words.get()[i]));
    return arguments;
}
