#include "runtime/common/win_error.h"

namespace win {

std::uint32_t FromErrno(int err) noexcept {
    switch (err) {
        case 0:
            return ERROR_SUCCESS;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EROFS:
            return ERROR_ACCESS_DENIED;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        case ENOSPC:
        case EDQUOT:
            return ERROR_DISK_FULL;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case EBUSY:
            return ERROR_BUSY;
        case EPIPE:
        case ECONNRESET:
            return ERROR_BROKEN_PIPE;
        case ETIMEDOUT:
            return ERROR_TIMEOUT;
        case ESRCH:
            return ERROR_NOT_FOUND;
        case ENOEXEC:
            return ERROR_BAD_EXE_FORMAT;
        case EIO:
            return ERROR_WRITE_FAULT;
        case ENOTSUP:
            return ERROR_NOT_SUPPORTED;
        default:
            return ERROR_INVALID_FUNCTION;
    }
}

const char* MessageText(std::uint32_t error) noexcept {
    switch (error) {
        case ERROR_SUCCESS:
            return "The operation completed successfully.";
        case ERROR_INVALID_FUNCTION:
            return "Incorrect function.";
        case ERROR_FILE_NOT_FOUND:
            return "The system cannot find the file specified.";
        case ERROR_PATH_NOT_FOUND:
            return "The system cannot find the path specified.";
        case ERROR_ACCESS_DENIED:
            return "Access is denied.";
        case ERROR_INVALID_HANDLE:
            return "The handle is invalid.";
        case ERROR_NOT_ENOUGH_MEMORY:
            return "Not enough memory resources are available to process this command.";
        case ERROR_INVALID_DATA:
            return "The data is invalid.";
        case ERROR_INVALID_PARAMETER:
            return "The parameter is incorrect.";
        case ERROR_DISK_FULL:
            return "There is not enough space on the disk.";
        case ERROR_INVALID_NAME:
            return "The filename, directory name, or volume label syntax is incorrect.";
        case ERROR_ALREADY_EXISTS:
            return "Cannot create a file when that file already exists.";
        case ERROR_FILENAME_EXCED_RANGE:
            return "The filename or extension is too long.";
        case ERROR_BADDB:
            return "The configuration registry database is corrupt.";
        case ERROR_BADKEY:
            return "The configuration registry key is invalid.";
        case ERROR_CANTOPEN:
            return "The configuration registry key could not be opened.";
        case ERROR_CANTREAD:
            return "The configuration registry key could not be read.";
        case ERROR_CANTWRITE:
            return "The configuration registry key could not be written.";
        case ERROR_KEY_DELETED:
            return "Illegal operation attempted on a registry key that has been marked for deletion.";
        case ERROR_INVALID_SERVICE_CONTROL:
            return "The requested control is not valid for this service.";
        case ERROR_SERVICE_REQUEST_TIMEOUT:
            return "The service did not respond to the start or control request in a timely fashion.";
        case ERROR_SERVICE_ALREADY_RUNNING:
            return "An instance of the service is already running.";
        case ERROR_SERVICE_DISABLED:
            return "The service cannot be started, either because it is disabled or because it has no "
                   "enabled "
                   "devices associated with it.";
        case ERROR_SERVICE_DOES_NOT_EXIST:
            return "The specified service does not exist as an installed service.";
        case ERROR_SERVICE_CANNOT_ACCEPT_CTRL:
            return "The service cannot accept control messages at this time.";
        case ERROR_SERVICE_NOT_ACTIVE:
            return "The service has not been started.";
        case ERROR_FAILED_SERVICE_CONTROLLER_CONNECT:
            return "The service process could not connect to the service controller.";
        case ERROR_SERVICE_MARKED_FOR_DELETE:
            return "The specified service has been marked for deletion.";
        case ERROR_SERVICE_EXISTS:
            return "The specified service already exists.";
        case ERROR_TIMEOUT:
            return "This operation returned because the timeout period expired.";
        default:
            return "An unexpected error occurred.";
    }
}

}  // namespace win
