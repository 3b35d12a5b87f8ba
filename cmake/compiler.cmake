# orvik_build_options: how everything of this project is compiled and linked (language level, Windows
# version, warnings, hardening). Link it PRIVATE to every target that runs in user mode.
add_library(orvik_build_options INTERFACE)
target_compile_features(orvik_build_options INTERFACE cxx_std_20)
target_compile_definitions(
  orvik_build_options INTERFACE UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX
                                _WIN32_WINNT=0x0A00) # Windows 10

if(MSVC)
  # Functions of the C library that Microsoft would replace are no reason for a warning.
  target_compile_definitions(orvik_build_options INTERFACE _CRT_SECURE_NO_WARNINGS)
  target_compile_options(
    orvik_build_options INTERFACE /W4 $<$<BOOL:${ORVIK_WARNINGS_AS_ERRORS}>:/WX> /permissive- /utf-8
                                  /Zc:__cplusplus /guard:cf)
  # DEPENDENTLOADFLAG: the imported DLLs come from System32 alone. The programs need no runtime DLL
  # either (CMAKE_MSVC_RUNTIME_LIBRARY in the presets).
  target_link_options(orvik_build_options INTERFACE /guard:cf /CETCOMPAT /DEPENDENTLOADFLAG:0x800)
else() # GCC and Clang
  target_compile_options(
    orvik_build_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                  $<$<BOOL:${ORVIK_WARNINGS_AS_ERRORS}>:-Werror>
                                  -fstack-protector-strong)
endif()
# mingw-w64's headers include one of clang 19 that is deprecated.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 19)
  add_compile_definitions(_CLANG_DISABLE_CRT_DEPRECATION_WARNINGS) # also for the driver
endif()
if(MINGW)
  # One file, no DLL of the tool chain beside it. The three bits are the defaults of binutils 2.40's
  # linker; they are spelled out so that they stay.
  target_link_options(
    orvik_build_options INTERFACE -static -fstack-protector-strong
    -Wl,--dynamicbase,--high-entropy-va,--nxcompat)
endif()

# ORVIK_PDB: whether there is a PDB file beside each program.
set(ORVIK_PDB ${MSVC})
if(MINGW AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(ORVIK_PDB ON)
  target_compile_options(orvik_build_options INTERFACE -gcodeview)
  # The program names the PDB file without a folder. Debuggers find the sources without any setting if
  # they are in C:\OrvikService.
  target_link_options(
    orvik_build_options INTERFACE -Wl,--pdb= -Wl,-Xlink=-pdbaltpath:%_PDB%
    -Wl,-Xlink=-pdbsourcepath:C:\\OrvikService)

  # Builds in different folders are to differ as little as possible: there is a checksum in place of the
  # time (-Brepro), and no path of this machine. Compiler and linker write their command lines into the
  # PDB file, whose checksum is part of the program; the launcher makes the absolute paths relative that
  # CMake gives them.
  target_link_options(orvik_build_options INTERFACE -Wl,-Xlink=-Brepro)
  target_compile_options(
    orvik_build_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
                                  -fdebug-compilation-dir=. -fcoverage-compilation-dir=.
                                  -fno-color-diagnostics) # it depends on the terminal
  if(CMAKE_HOST_UNIX)
    cmake_path(RELATIVE_PATH PROJECT_SOURCE_DIR BASE_DIRECTORY ${CMAKE_BINARY_DIR} OUTPUT_VARIABLE
               relative)
    set(launcher "${CMAKE_CURRENT_LIST_DIR}/with-relative-paths ${PROJECT_SOURCE_DIR} ${relative}")
    set_property(GLOBAL PROPERTY RULE_LAUNCH_COMPILE ${launcher})
    set_property(GLOBAL PROPERTY RULE_LAUNCH_LINK ${launcher})
  endif()
endif()

if(ORVIK_CHECKED)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(FATAL_ERROR "ORVIK_CHECKED uses options and assertions of GCC and its C++ library, "
                        "not of ${CMAKE_CXX_COMPILER_ID}")
  endif()
  # Traps need no runtime library: the program stops with an illegal instruction. -Og keeps the
  # tests fast.
  target_compile_options(orvik_build_options INTERFACE -Og -fsanitize=undefined
                                                       -fsanitize-undefined-trap-on-error)
  target_compile_definitions(orvik_build_options INTERFACE _GLIBCXX_ASSERTIONS)
endif()

if(ORVIK_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(FATAL_ERROR "ORVIK_COVERAGE uses options of GCC, not of ${CMAKE_CXX_COMPILER_ID}")
  endif()
  # Several threads count.
  target_compile_options(orvik_build_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(orvik_build_options INTERFACE --coverage)
endif()
