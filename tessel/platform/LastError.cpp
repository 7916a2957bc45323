#include "tessel/platform/LastError.h"

#include <cerrno>

namespace Tessel::Platform {
namespace {
thread_local DWORD t_lastError = ERROR_SUCCESS;
}

DWORD GetLastError() {
    return t_lastError;
}

void SetLastError(DWORD error) {
    t_lastError = error;
}

DWORD ErrnoToError(int e) {
    switch (e) {
        case 0:
            return ERROR_SUCCESS;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case EACCES:
        case EPERM:
        case EROFS:
            return ERROR_ACCESS_DENIED;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EIO:
            return ERROR_WRITE_FAULT;
        case EWOULDBLOCK:
            return ERROR_LOCK_VIOLATION;
        case ENOSYS:
        case EOPNOTSUPP:
            return ERROR_NOT_SUPPORTED;
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        case EPIPE:
            return ERROR_BROKEN_PIPE;
        case ENOSPC:
            return ERROR_DISK_FULL;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case ENOTEMPTY:
            return ERROR_DIR_NOT_EMPTY;
        case EBUSY:
            return ERROR_BUSY;
        case ETIMEDOUT:
            return ERROR_TIMEOUT;
        case ECANCELED:
            return ERROR_OPERATION_ABORTED;
        default:
            return ERROR_INVALID_FUNCTION;
    }
}

DWORD SetLastErrorFromErrno(int e) {
    const DWORD error = ErrnoToError(e);
    t_lastError = error;
    return error;
}

}  // namespace Tessel::Platform
