# Each name that the client library exports, and each type in it, is in one of its own namespaces, in
# namespace std, or reserved for compilers. The linker would take a program's own class or constant with
# the same name for the same thing.
#   cmake -DNM=… -DLIBRARY=… -P client_names.cmake
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(${NM} --demangle --defined-only --extern-only --format=posix ${LIBRARY})
if(NOT output MATCHES "\norvik::Client::Client\\(orvik::ConnectOptions const&\\) T ")
  message(FATAL_ERROR "the library's constructor is not among its symbols:\n${output}")
endif()
set(names ${output})
string(REGEX REPLACE "\n[^\n]*[.](refptr|cpp)[^\n]*" "" names "\n${names}") # no symbols of C++
string(REGEX REPLACE " [A-Za-z] [0-9a-f ]*\n" "\n" names "${names}") # the symbol's type and value
string(REGEX REPLACE "::[~A-Za-z_][A-Za-z0-9_]*" "" names "${names}") # inside something
string(REGEX REPLACE "[0-9]+u?l*" "" names "${names}") # numbers
string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*" names "${names}")
list(REMOVE_DUPLICATES names)
list(FILTER names EXCLUDE REGEX "^_[_A-Z]") # reserved
list(REMOVE_ITEM names orvik orvik_internal std
     # what a demangled name is made of besides
     bool char const decltype false for guard int lambda long name nullptr operator short typeinfo unsigned
     variable void vtable wchar_t
     # types of Windows, and a name of namespace std that clang's mangling has without it
     HWND__ SC_HANDLE__ is_constructible_v
     # a function of C that the headers of mingw-w64 12 define inline; no program may have its own
     snprintf)
if(names)
  message(FATAL_ERROR "names outside namespace orvik: ${names}")
endif()
