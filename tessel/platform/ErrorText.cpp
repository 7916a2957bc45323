#include "tessel/platform/ErrorText.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

#include "tessel/platform/LastError.h"
#include "tessel/platform/ServiceControl.h"
#include "tessel/platform/Token.h"

namespace Tessel::Platform {
namespace {

struct ErrorText {
    DWORD error;
    std::string_view text;
};

// The platform's texts, in ascending order of the error number.
constexpr ErrorText kTexts[] = {
    {ERROR_SUCCESS, "The operation completed successfully.\r\n"},
    {ERROR_INVALID_FUNCTION, "Incorrect function.\r\n"},
    {ERROR_FILE_NOT_FOUND, "The system cannot find the file specified.\r\n"},
    {ERROR_PATH_NOT_FOUND, "The system cannot find the path specified.\r\n"},
    {ERROR_TOO_MANY_OPEN_FILES, "The system cannot open the file.\r\n"},
    {ERROR_ACCESS_DENIED, "Access is denied.\r\n"},
    {ERROR_INVALID_HANDLE, "The handle is invalid.\r\n"},
    {ERROR_NOT_ENOUGH_MEMORY,
     "Not enough memory resources are available to process this command.\r\n"},
    {ERROR_OUTOFMEMORY,
     "Not enough memory resources are available to complete this operation.\r\n"},
    {ERROR_NOT_READY, "The device is not ready.\r\n"},
    {ERROR_WRITE_FAULT, "The system cannot write to the specified device.\r\n"},
    {ERROR_READ_FAULT, "The system cannot read from the specified device.\r\n"},
    {ERROR_SHARING_VIOLATION,
     "The process cannot access the file because it is being used by another process.\r\n"},
    {ERROR_LOCK_VIOLATION,
     "The process cannot access the file because another process has locked a portion of the "
     "file.\r\n"},
    {ERROR_HANDLE_EOF, "Reached the end of the file.\r\n"},
    {ERROR_NOT_SUPPORTED, "The request is not supported.\r\n"},
    {ERROR_BAD_NETPATH, "The network path was not found.\r\n"},
    {ERROR_FILE_EXISTS, "The file exists.\r\n"},
    {ERROR_INVALID_PARAMETER, "The parameter is incorrect.\r\n"},
    {ERROR_BROKEN_PIPE, "The pipe has been ended.\r\n"},
    {ERROR_DISK_FULL, "There is not enough space on the disk.\r\n"},
    {ERROR_INSUFFICIENT_BUFFER, "The data area passed to a system call is too small.\r\n"},
    {ERROR_INVALID_NAME, "The filename, directory name, or volume label syntax is incorrect.\r\n"},
    {ERROR_DIR_NOT_EMPTY, "The directory is not empty.\r\n"},
    {ERROR_BUSY, "The requested resource is in use.\r\n"},
    {ERROR_ALREADY_EXISTS, "Cannot create a file when that file already exists.\r\n"},
    {ERROR_FILENAME_EXCED_RANGE, "The filename or extension is too long.\r\n"},
    {ERROR_MORE_DATA, "More data is available.\r\n"},
    {ERROR_NO_MORE_ITEMS, "No more data is available.\r\n"},
    {ERROR_NOT_OWNER, "Attempt to release mutex not owned by caller.\r\n"},
    {ERROR_MR_MID_NOT_FOUND,
     "The system cannot find message text for message number 0x%1 in the message file for "
     "%2.\r\n"},
    {ERROR_OPERATION_ABORTED,
     "The I/O operation has been aborted because of either a thread exit or an application "
     "request.\r\n"},
    {ERROR_IO_PENDING, "Overlapped I/O operation is in progress.\r\n"},
    {ERROR_BADDB, "The configuration registry database is corrupt.\r\n"},
    {ERROR_BADKEY, "The configuration registry key is invalid.\r\n"},
    {ERROR_CANTOPEN, "The configuration registry key could not be opened.\r\n"},
    {ERROR_CANTREAD, "The configuration registry key could not be read.\r\n"},
    {ERROR_CANTWRITE, "The configuration registry key could not be written.\r\n"},
    {ERROR_KEY_DELETED,
     "Illegal operation attempted on a registry key that has been marked for deletion.\r\n"},
    {ERROR_INVALID_SERVICE_CONTROL, "The requested control is not valid for this service.\r\n"},
    {ERROR_SERVICE_REQUEST_TIMEOUT,
     "The service did not respond to the start or control request in a timely fashion.\r\n"},
    {ERROR_SERVICE_NO_THREAD, "A thread could not be created for the service.\r\n"},
    {ERROR_SERVICE_DATABASE_LOCKED, "The service database is locked.\r\n"},
    {ERROR_SERVICE_ALREADY_RUNNING, "An instance of the service is already running.\r\n"},
    {ERROR_SERVICE_DISABLED,
     "The service cannot be started, either because it is disabled or because it has no "
     "enabled devices associated with it.\r\n"},
    {ERROR_CIRCULAR_DEPENDENCY, "Circular service dependency was specified.\r\n"},
    {ERROR_SERVICE_DOES_NOT_EXIST,
     "The specified service does not exist as an installed service.\r\n"},
    {ERROR_SERVICE_NOT_ACTIVE, "The service has not been started.\r\n"},
    {ERROR_DATABASE_DOES_NOT_EXIST, "The database specified does not exist.\r\n"},
    {ERROR_PROCESS_ABORTED, "The process terminated unexpectedly.\r\n"},
    {ERROR_SERVICE_DEPENDENCY_FAIL, "The dependency service or group failed to start.\r\n"},
    {ERROR_SERVICE_LOGON_FAILED, "The service did not start due to a logon failure.\r\n"},
    {ERROR_SERVICE_MARKED_FOR_DELETE, "The specified service has been marked for deletion.\r\n"},
    {ERROR_SERVICE_EXISTS, "The specified service already exists.\r\n"},
    {ERROR_SERVICE_DEPENDENCY_DELETED,
     "The dependency service does not exist or has been marked for deletion.\r\n"},
    {ERROR_USER_MAPPED_FILE,
     "The requested operation cannot be performed on a file with a user-mapped section "
     "open.\r\n"},
    {ERROR_NOT_ALL_ASSIGNED,
     "Not all privileges or groups referenced are assigned to the caller.\r\n"},
    {ERROR_TIMEOUT, "This operation returned because the timeout period expired.\r\n"},
    {ERROR_UNSUPPORTED_TYPE, "Data of this type is not supported.\r\n"},
};

constexpr bool ascending() {
    for (std::size_t i = 1; i < std::size(kTexts); ++i) {
        if (kTexts[i - 1].error >= kTexts[i].error) {
            return false;
        }
    }
    return true;
}
static_assert(ascending(), "kTexts must be sorted by error number without duplicates");

// The internet errors, in ascending order.
constexpr ErrorText kInternetTexts[] = {
    {12001, "No more handles could be generated at this time.\r\n"},
    {12002, "The operation timed out\r\n"},
    {12003,
     "An extended error was returned from the server. This is typically a string or "
     "buffer containing a verbose error message. Call InternetGetLastResponseInfo to "
     "retrieve the error text.\r\n"},
    {12004, "An internal error occurred.\r\n"},
    {12005, "The URL is invalid.\r\n"},
    {12006, "The URL scheme could not be recognized, or is not supported.\r\n"},
    {12007, "The server name or address could not be resolved\r\n"},
    {12009,
     "A request to InternetQueryOption or InternetSetOption specified an invalid "
     "option value.\r\n"},
    {12013,
     "The request to connect and log on to an FTP server could not be completed "
     "because the supplied user name is incorrect.\r\n"},
    {12014,
     "The request to connect and log on to an FTP server could not be completed "
     "because the supplied password is incorrect.\r\n"},
    {12017,
     "The operation was canceled, usually because the handle on which the request was "
     "operating was closed before the operation completed.\r\n"},
    {12029, "A connection with the server could not be established\r\n"},
    {12030, "The connection with the server was terminated abnormally\r\n"},
    {12031, "The connection with the server was reset\r\n"},
    {12152, "The server returned an invalid or unrecognized response\r\n"},
    {12156, "The proxy server denied access.\r\n"},
};

// Error numbers in HRESULT form: 0x8007xxxx.
constexpr DWORD kWin32FacilityMask = 0xFFFF0000u;
constexpr DWORD kWin32Facility = 0x80070000u;

// The text of error in table, or null.
template <std::size_t N>
const ErrorText* find(const ErrorText (&table)[N], DWORD error) {
    if ((error & kWin32FacilityMask) == kWin32Facility) {
        error &= 0x0000FFFFu;
    }
    const auto* found =
        std::lower_bound(std::begin(table), std::end(table), error,
                         [](const ErrorText& entry, DWORD wanted) { return entry.error < wanted; });
    return found != std::end(table) && found->error == error ? found : nullptr;
}

ModuleObject* const kInternetModule =
    reinterpret_cast<ModuleObject*>(static_cast<std::uintptr_t>(0x1E7E7));

// Empties buffer where it has room, stores error as the last error and returns 0.
DWORD fail(char* buffer, DWORD size, DWORD error) {
    if (buffer != nullptr && size > 0) {
        buffer[0] = '\0';
    }
    SetLastError(error);
    return 0;
}

}  // namespace

HMODULE InternetMessageModule() {
    return kInternetModule;
}

DWORD FormatMessageA(DWORD flags, const void* source, DWORD messageId, DWORD /*languageId*/,
                     char* buffer, DWORD size, std::va_list* /*arguments*/) {
    constexpr DWORD unsupported = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING;
    const bool fromInternetModule =
        (flags & FORMAT_MESSAGE_FROM_HMODULE) != 0 && source == kInternetModule;
    if (((flags & FORMAT_MESSAGE_FROM_SYSTEM) == 0 && !fromInternetModule) ||
        ((flags & FORMAT_MESSAGE_FROM_HMODULE) != 0 && !fromInternetModule) ||
        (flags & unsupported) != 0 || buffer == nullptr) {
        return fail(buffer, size, ERROR_INVALID_PARAMETER);
    }
    const ErrorText* entry =
        fromInternetModule ? find(kInternetTexts, messageId) : find(kTexts, messageId);
    if (entry == nullptr && fromInternetModule && (flags & FORMAT_MESSAGE_FROM_SYSTEM) != 0) {
        entry = find(kTexts, messageId);
    }
    if (entry == nullptr) {
        return fail(buffer, size, ERROR_MR_MID_NOT_FOUND);
    }
    if ((flags & FORMAT_MESSAGE_IGNORE_INSERTS) == 0 &&
        entry->text.find('%') != std::string_view::npos) {
        return fail(buffer, size, ERROR_INVALID_PARAMETER);
    }
    if (entry->text.size() >= size) {
        return fail(buffer, size, ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(buffer, entry->text.data(), entry->text.size());
    buffer[entry->text.size()] = '\0';
    return static_cast<DWORD>(entry->text.size());
}

}  // namespace Tessel::Platform
