// Compiled, not run: orvik_client_abi() (abi.cmake) reads this text from the object file.
#include <memory>  // the C++ library's own macros

#if defined _M_ARM64 || defined __aarch64__
#define PROCESSOR "ARM64"
#elif defined _M_X64 || defined __x86_64__
#define PROCESSOR "x64"
#elif defined _M_IX86 || defined __i386__
#define PROCESSOR "x86"
#else
#define PROCESSOR "an unknown processor"
#endif

#if defined _MSC_VER
#define COMPILER "MSVC"
#elif defined _LIBCPP_VERSION
#define COMPILER "MinGW with libc++"
#elif defined _GLIBCXX_GCC_GTHR_POSIX_H
#define COMPILER "MinGW with libstdc++, POSIX threads"
#elif defined __GLIBCXX__
#define COMPILER "MinGW with libstdc++, Windows threads"
#else
#define COMPILER "an unknown compiler"
#endif

#if defined _UCRT || defined _MSC_VER
#define C_RUNTIME "UCRT"
#else
#define C_RUNTIME "msvcrt"
#endif

extern const char orvikClientAbi[];
const char orvikClientAbi[] = "orvik-abi:" COMPILER " and " C_RUNTIME " for " PROCESSOR "!";
