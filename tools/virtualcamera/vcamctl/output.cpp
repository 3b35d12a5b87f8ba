#include "output.h"

#include "console_output.h"
#include "failure.h"

void Print(const std::string& text) {
    if (const DWORD code = WriteText(STD_OUTPUT_HANDLE, text); code != ERROR_SUCCESS)
        FailLast("cannot write to standard output", code);
}

void PrintError(const std::string& text) {
    WriteText(STD_ERROR_HANDLE, text);
}
