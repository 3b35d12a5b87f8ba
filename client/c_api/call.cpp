#include "client/c_api/call.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>

#include <windows.h>

namespace orvik::c_api {

namespace {

struct LastError {
    std::uint32_t systemCode;
    char text[1024];
};

/// In place of one that cannot be allocated.
LastError noMemory{ERROR_NOT_ENOUGH_MEMORY, "out of memory"};

/// The error of each thread. Not thread_local, because that needs memory that can be lacking, and
/// because FlsFree() frees the errors of all threads when the DLL is unloaded.
class Errors {
public:
    Errors() = default;
    ~Errors() { ::FlsFree(index); }

    Errors(const Errors&) = delete;
    Errors& operator=(const Errors&) = delete;

    const LastError* Get() const noexcept {
        return static_cast<const LastError*>(::FlsGetValue(index));
    }

    /// One that can be written to, or null.
    LastError* GetOrMake() noexcept {
        auto* error = static_cast<LastError*>(::FlsGetValue(index));
        if (error != nullptr && error != &noMemory)
            return error;
        error = new (std::nothrow) LastError;
        ::FlsSetValue(index, error != nullptr ? error : &noMemory);
        return error;
    }

private:
    static void WINAPI Free(void* error) noexcept {
        if (error != &noMemory)
            delete static_cast<LastError*>(error);
    }

    const DWORD index = ::FlsAlloc(Free);
};

Errors errors;

/// Whether a character of UTF-8 cannot begin with this byte.
bool Continues(char byte) noexcept {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

}  // namespace

orvik_status StatusOf(ErrorKind kind) noexcept {
    switch (kind) {
        case ErrorKind::kNotInstalled:
            return ORVIK_ERROR_NOT_INSTALLED;
        case ErrorKind::kStopped:
            return ORVIK_ERROR_STOPPED;
        case ErrorKind::kStarting:
            return ORVIK_ERROR_STARTING;
        case ErrorKind::kBusy:
            return ORVIK_ERROR_BUSY;
        case ErrorKind::kAccessDenied:
            return ORVIK_ERROR_ACCESS_DENIED;
        case ErrorKind::kWrongServer:
            return ORVIK_ERROR_WRONG_SERVER;
        case ErrorKind::kServiceGone:
            return ORVIK_ERROR_SERVICE_GONE;
        case ErrorKind::kTimedOut:
            return ORVIK_ERROR_TIMED_OUT;
        case ErrorKind::kCancelled:
            return ORVIK_ERROR_CANCELLED;
        case ErrorKind::kNoSuchCamera:
            return ORVIK_ERROR_NO_SUCH_CAMERA;
        case ErrorKind::kRefused:
            return ORVIK_ERROR_REFUSED;
        case ErrorKind::kBadAnswer:
            return ORVIK_ERROR_BAD_ANSWER;
        case ErrorKind::kBadArgument:
            return ORVIK_ERROR_INVALID_ARGUMENT;
        case ErrorKind::kSystem:
            return ORVIK_ERROR_SYSTEM;
        case ErrorKind::kCameraGone:
            return ORVIK_ERROR_CAMERA_GONE;
    }
    return ORVIK_ERROR_SYSTEM;
}

orvik_status Fail(orvik_status status, const char* text, std::uint32_t systemCode) noexcept {
    if (LastError* const error = errors.GetOrMake()) {
        std::size_t length = std::strlen(text);
        if (length >= sizeof(error->text)) {
            length = sizeof(error->text) - 1;
            while (length != 0 && Continues(text[length]))
                --length;
        }
        std::memcpy(error->text, text, length);
        error->text[length] = '\0';
        error->systemCode = systemCode;
    }
    return status;
}

orvik_status Fail(const Error& error) noexcept {
    return Fail(StatusOf(error.Kind()), error.what(), error.SystemCode());
}

orvik_status FailWithException() noexcept {
    const auto outOfMemory = [] {
        return Fail(ORVIK_ERROR_OUT_OF_MEMORY, "out of memory", ERROR_NOT_ENOUGH_MEMORY);
    };
    try {
        throw;
    } catch (const Error& error) {
        return Fail(error);
    } catch (const std::bad_alloc&) {
        return outOfMemory();
    } catch (const std::system_error& error) {
        // GCC's std::mutex allocates memory at its first use.
        return error.code() == std::errc::not_enough_memory
                   ? outOfMemory()
                   : Fail(ORVIK_ERROR_SYSTEM, error.what());
    } catch (const std::exception& exception) {
        return Fail(ORVIK_ERROR_SYSTEM, exception.what());
    } catch (...) {
        return Fail(ORVIK_ERROR_SYSTEM, "unknown failure");
    }
}

}  // namespace orvik::c_api

extern "C" {

const char* ORVIK_CALL orvik_last_error_text(void) {
    const orvik::c_api::LastError* const error = orvik::c_api::errors.Get();
    return error != nullptr ? error->text : "";
}

uint32_t ORVIK_CALL orvik_last_error_system_code(void) {
    const orvik::c_api::LastError* const error = orvik::c_api::errors.Get();
    return error != nullptr ? error->systemCode : 0;
}

const char* ORVIK_CALL orvik_status_text(orvik_status status) {
    // ToString() of the C++ library has the same words.
    switch (status) {
        case ORVIK_OK:
            return "success";
        case ORVIK_ERROR_NOT_INSTALLED:
            return "not installed";
        case ORVIK_ERROR_STOPPED:
            return "stopped";
        case ORVIK_ERROR_STARTING:
            return "starting";
        case ORVIK_ERROR_BUSY:
            return "busy";
        case ORVIK_ERROR_ACCESS_DENIED:
            return "access denied";
        case ORVIK_ERROR_WRONG_SERVER:
            return "wrong server";
        case ORVIK_ERROR_SERVICE_GONE:
            return "service gone";
        case ORVIK_ERROR_TIMED_OUT:
            return "timed out";
        case ORVIK_ERROR_CANCELLED:
            return "cancelled";
        case ORVIK_ERROR_NO_SUCH_CAMERA:
            return "no such camera";
        case ORVIK_ERROR_REFUSED:
            return "refused";
        case ORVIK_ERROR_BAD_ANSWER:
            return "bad answer";
        case ORVIK_ERROR_INVALID_ARGUMENT:
            return "bad argument";
        case ORVIK_ERROR_SYSTEM:
            return "system error";
        case ORVIK_ERROR_CAMERA_GONE:
            return "camera gone";
        case ORVIK_ERROR_OUT_OF_MEMORY:
            return "out of memory";
        case ORVIK_ERROR_BUFFER_TOO_SMALL:
            return "buffer too small";
        case ORVIK_ERROR_NOT_OUTSTANDING:
            return "not outstanding";
        default:
            return "unknown";
    }
}

const char* ORVIK_CALL orvik_version(void) {
    return orvik::Version().data();  // a literal, so it ends with a zero byte
}

}  // extern "C"
