// The binary interface of orvik.dll, compared with the file c_api_abi.txt: what the DLL exports,
// each declaration of the header, the numbers of its constants, and the layout of its structures.
// Programs that were built with an earlier header must work with this DLL. After an addition, copy
// the file c_api_abi.actual.txt that this test writes beside itself; any other change breaks
// programs.

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "orvik/orvik.h"

namespace {

std::filesystem::path TestFolder() {
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    return std::filesystem::path(self).parent_path();
}

std::string ContentsOf(const char* name) {
    std::ifstream file(TestFolder() / name);
    EXPECT_TRUE(file.is_open()) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The header without comments, preprocessor lines and line ends, one statement in each line.
std::string Declarations() {
    std::string text = ContentsOf("orvik.h");
    const auto replace = [&text](const char* what, const char* with) {
        text = std::regex_replace(text, std::regex(what), with);
    };
    for (std::size_t begin = text.find("/*"); begin != std::string::npos; begin = text.find("/*"))
        text.erase(begin, text.find("*/", begin) + 2 - begin);
    replace("(^|\n)#[^\n]*", "");
    replace("\\s+", " ");
    replace("([;{]|,(?= ORVIK_[A-Z_]+ =)) ", "$1\n");
    replace("^ | $", "");
    return text;
}

std::string Constants() {
    std::string lines;
    std::istringstream header(ContentsOf("orvik.h"));
    const std::regex constant(R"(#define (ORVIK_[A-Z_]+) ((0x)?[0-9A-F]+u).*)");
    for (std::string line; std::getline(header, line);) {
        std::smatch match;
        if (std::regex_match(line, match, constant))
            lines += match.str(1) + " " + match.str(2) + "\n";
    }
    return lines;
}

/// The names in the export table of a loaded module.
std::set<std::string> ExportsOf(HMODULE module) {
    const auto* const base = reinterpret_cast<const std::byte*>(module);
    const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    const auto* const table =
        reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directory.VirtualAddress);
    const auto* const names = reinterpret_cast<const DWORD*>(base + table->AddressOfNames);
    const auto* const functions = reinterpret_cast<const DWORD*>(base + table->AddressOfFunctions);
    EXPECT_EQ(std::count_if(functions, functions + table->NumberOfFunctions,
                            [](DWORD function) { return function != 0; }),
              static_cast<std::ptrdiff_t>(table->NumberOfNames))
        << "exports without a name";
    std::set<std::string> result;
    for (DWORD i = 0; i < table->NumberOfNames; ++i)
        result.insert(reinterpret_cast<const char*>(base + names[i]));
    return result;
}

#define ORVIK_STRUCTURE(type) #type " " << sizeof(type) << "\n"
#define ORVIK_MEMBER(type, member) \
    "    " #member " " << offsetof(type, member) << " " << sizeof(decltype(type::member)) << "\n"

std::string Layouts() {
    std::ostringstream text;
    text << ORVIK_STRUCTURE(orvik_event) << ORVIK_MEMBER(orvik_event, size)
         << ORVIK_MEMBER(orvik_event, kind) << ORVIK_MEMBER(orvik_event, camera)
         << ORVIK_MEMBER(orvik_event, status) << ORVIK_MEMBER(orvik_event, system_code)
         << ORVIK_MEMBER(orvik_event, text) << ORVIK_STRUCTURE(orvik_options)
         << ORVIK_MEMBER(orvik_options, size) << ORVIK_MEMBER(orvik_options, timeout_ms)
         << ORVIK_MEMBER(orvik_options, gone_wait_ms)
         << ORVIK_MEMBER(orvik_options, transfer_out_limit)
         << ORVIK_MEMBER(orvik_options, check_server) << ORVIK_MEMBER(orvik_options, pipe)
         << ORVIK_MEMBER(orvik_options, canceller) << ORVIK_MEMBER(orvik_options, on_event)
         << ORVIK_MEMBER(orvik_options, user) << ORVIK_STRUCTURE(orvik_result)
         << ORVIK_MEMBER(orvik_result, size) << ORVIK_MEMBER(orvik_result, status)
         << ORVIK_MEMBER(orvik_result, system_code) << ORVIK_MEMBER(orvik_result, length)
         << ORVIK_MEMBER(orvik_result, data) << ORVIK_MEMBER(orvik_result, text)
         << ORVIK_STRUCTURE(orvik_inquiry) << ORVIK_MEMBER(orvik_inquiry, size)
         << ORVIK_MEMBER(orvik_inquiry, device_type) << ORVIK_MEMBER(orvik_inquiry, removable)
         << ORVIK_MEMBER(orvik_inquiry, vendor) << ORVIK_MEMBER(orvik_inquiry, product)
         << ORVIK_MEMBER(orvik_inquiry, revision) << ORVIK_MEMBER(orvik_inquiry, reserved)
         << ORVIK_STRUCTURE(orvik_capacity) << ORVIK_MEMBER(orvik_capacity, size)
         << ORVIK_MEMBER(orvik_capacity, block_length) << ORVIK_MEMBER(orvik_capacity, block_count)
         << ORVIK_STRUCTURE(orvik_sense) << ORVIK_MEMBER(orvik_sense, size)
         << ORVIK_MEMBER(orvik_sense, key) << ORVIK_MEMBER(orvik_sense, code)
         << ORVIK_MEMBER(orvik_sense, qualifier) << ORVIK_MEMBER(orvik_sense, deferred)
         << ORVIK_MEMBER(orvik_sense, text) << ORVIK_STRUCTURE(orvik_status)
         << ORVIK_STRUCTURE(orvik_camera);
    return text.str();
}

TEST(CApiAbi, IsThatOfTheFileInTheTree) {
    const std::filesystem::path path = TestFolder().parent_path() / "bin" / "orvik.dll";
    const HMODULE dll = ::LoadLibraryW(path.c_str());
    ASSERT_NE(dll, nullptr) << path << ": error " << ::GetLastError();
    std::string actual = "Exports of the DLL:\n";
    for (const std::string& name : ExportsOf(dll))
        actual += name + "\n";
    EXPECT_TRUE(::FreeLibrary(dll));
    EXPECT_EQ(::GetModuleHandleW(L"orvik.dll"), nullptr) << "the DLL stays loaded";
    actual += "\nConstants:\n" + Constants() +
              "\nStructures with their sizes, members with offset and size, 64 bits:\n" +
              Layouts() + "\nDeclarations:\n" + Declarations() + "\n";
    std::ofstream(TestFolder() / "c_api_abi.actual.txt", std::ios::binary) << actual;
    EXPECT_EQ(actual, ContentsOf("c_api_abi.txt"));
}

}  // namespace
