# How everything of this project is compiled and linked: link orvik_warnings to a target.
add_library(orvik_warnings INTERFACE)
target_compile_features(orvik_warnings INTERFACE cxx_std_20)
target_compile_definitions(
  orvik_warnings INTERFACE UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX
                           _WIN32_WINNT=0x0A00) # Windows 10

if(MSVC)
  target_compile_options(orvik_warnings INTERFACE /W4 /WX /permissive- /utf-8)
else()
  target_compile_options(orvik_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                                  -Werror -fstack-protector-strong)
  # One file, no DLL of the tool chain beside it. The three bits are what the linker of binutils 2.40
  # sets by itself; they are here so that they stay.
  target_link_options(
    orvik_warnings INTERFACE -static -fstack-protector-strong
    -Wl,--dynamicbase,--high-entropy-va,--nxcompat)
endif()

if(ORVIK_CHECKED)
  # Traps need no runtime library: the program stops with an illegal instruction.
  # -Og keeps the tests quick.
  target_compile_options(orvik_warnings INTERFACE -Og -fsanitize=undefined
                                                  -fsanitize-undefined-trap-on-error)
  target_compile_definitions(orvik_warnings INTERFACE _GLIBCXX_ASSERTIONS)
endif()
