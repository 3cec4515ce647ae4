#include "cli/update_check.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/standard_streams.h"
#include "cli/version.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_support.h"

namespace {

constexpr size_t read_chunk = 4096;
// Room for "/", the longer program name and the terminator.
constexpr size_t path_suffix_room = 6;

struct exit_text {
    int code;
    const char *text;
};

constexpr exit_text curl_exit_texts[] = {
    {1, "A required feature is not supported or it is disabled"},
    {4, "A required feature is not supported or it is disabled"},
    {76, "A required feature is not supported or it is disabled"},
    {2, "Initialization error"},
    {3, "Error in parameters"},
    {48, "Error in parameters"},
    {5, "Name resolution failure"},
    {6, "Name resolution failure"},
    {7, "Failed to connect to host"},
    {8, "I/O error when receiving data from network"},
    {56, "I/O error when receiving data from network"},
    {18, "I/O error"},
    {65, "I/O error"},
    {22, "HTTP protocol error when downloading data"},
    {33, "HTTP protocol error when downloading data"},
    {36, "HTTP protocol error when downloading data"},
    {23, "I/O error when writing"},
    {26, "I/O error when reading"},
    {27, "Error when allocating memory"},
    {28, "Operation timed out"},
    {34, "Internal error"},
    {43, "Internal error"},
    {45, "Internal error"},
    {35, "SSL handshake failure"},
    {47, "HTTP request was redirected too many times"},
    {51, "Problem with peer certificate"},
    {60, "Problem with peer certificate"},
    {83, "Problem with peer certificate"},
    {90, "Problem with peer certificate"},
    {91, "Problem with peer certificate"},
    {52, "No response from host received"},
    {53, "Error when initializing SSL crypto engine"},
    {54, "Error when initializing SSL crypto engine"},
    {66, "Error when initializing SSL crypto engine"},
    {55, "I/O error when sending data to network"},
    {58, "Problem with local certificate"},
    {77, "Problem with local certificate"},
    {82, "Problem with local certificate"},
    {59, "Specified SSL cipher could not be used"},
    {63, "Maximum file size exceeded"},
    {67, "Authentication failure"},
    {78, "Resource does not exist on server"},
    {80, "Failure when shutting down SSL connection"},
};

constexpr const char *wget_exit_texts[] = {
    "Done",                   // 0
    "Generic error",          // 1
    "Parse error",            // 2
    "File I/O error",         // 3
    "Network failure",        // 4
    "SSL verification failure", // 5
    "Authentication failure", // 6
    "Protocol error(s)",      // 7
    "Server-side error",      // 8
};

const char *exit_code_text(int code, bool is_curl) {
    if (is_curl) {
        for (const auto &entry : curl_exit_texts) {
            if (entry.code == code) return entry.text;
        }
    } else if (code >= 0 && static_cast<size_t>(code) < sizeof(wget_exit_texts) / sizeof(wget_exit_texts[0])) {
        return wget_exit_texts[code];
    }
    return "Unknown error";
}

// Explains a non-zero wait status on standard error; answers the result it implies.
qfs_result explain_wait_status(int status, bool is_curl) {
    qfs_result r = QFS_ERR_UNKNOWN;
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        fprintf(stderr, "Child process exit status: %ld (%s)\n", static_cast<long>(code), exit_code_text(code, is_curl));
    } else if (WIFSIGNALED(status)) {
        fprintf(stderr, "Child process %s terminated by signal %ld.\n",
                WCOREDUMP(status) ? "dumped core after being" : "was", static_cast<long>(WTERMSIG(status)));
    } else if (WIFSTOPPED(status)) {
        fprintf(stderr, "Child process was stopped by signal %ld. It may have been traced by ptrace(2).\n",
                static_cast<long>(WSTOPSIG(status)));
        r = QFS_ERR_INTERNAL_ERROR;
    } else if (WIFCONTINUED(status)) {
        fprintf(stderr, "Child was resumed by SIGCONT.\n");
    } else {
        fprintf(stderr, "Could not interpret wait status %ld\n", static_cast<long>(status));
    }
    fflush(stderr);
    return r;
}

struct pipe_closer {
    void operator()(FILE *pipe) const {
        if (pipe) pclose(pipe);
    }
};

} // namespace

int executable_is_usable(const char *path) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        if (errno != ENOENT) {
            const qfs_result r = qfs_errno_result();
            QFS_LOG_ERROR("Error from 'stat(%s)': %lu (%s)", path, QFS_ERR_ARGS(r));
        }
        return 0;
    }
    return S_ISREG(st.st_mode) && (st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0 && access(path, X_OK) == 0;
}

char *get_curl_or_wget_pathname(int *out_is_curl, int *out_is_wget) {
    const char *path = getenv("PATH");
    if (path == nullptr) {
        QFS_LOG_ERROR("Could not get PATH environment variable");
        return nullptr;
    }
    qfs_unique<char[]> candidate;
    size_t capacity = 0;
    const char *cursor = path;
    while (*cursor != '\0') {
        if (*cursor == ':') {
            ++cursor; // empty element
            continue;
        }
        const size_t length = strcspn(cursor, ":");
        if (length + path_suffix_room > capacity) {
            void *block = nullptr;
            const qfs_result r = _qfs_malloc(0, length + path_suffix_room, &block);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while allocating memory: %lu (%s)", QFS_ERR_ARGS(r));
                return nullptr;
            }
            candidate.reset(static_cast<char *>(block));
            capacity = length + path_suffix_room;
        }
        memcpy(candidate.get(), cursor, length);
        size_t directory_length = length;
        candidate[directory_length] = '\0';
        struct stat st {};
        if (stat(candidate.get(), &st) != 0) {
            if (errno != ENOENT && errno != ENOTDIR) {
                const qfs_result r = qfs_errno_result();
                QFS_LOG_ERROR("Error from 'stat(%.*s)': %lu (%s)", static_cast<int>(length), cursor, QFS_ERR_ARGS(r));
                return nullptr;
            }
        } else if (S_ISDIR(st.st_mode)) {
            if (candidate[directory_length - 1] != '/') {
                candidate[directory_length++] = '/';
            }
            static constexpr const char *programs[] = {"curl", "wget"};
            for (int which = 0; which < 2; ++which) {
                strcpy(candidate.get() + directory_length, programs[which]);
                if (executable_is_usable(candidate.get())) {
                    *out_is_curl = which == 0;
                    *out_is_wget = which == 1;
                    return candidate.release();
                }
            }
        }
        cursor += length;
        if (*cursor != ':' && *cursor != '\0') {
            QFS_LOG_CRITICAL("Internal error: expected path separator or end of string, found 0x%02lX",
                             static_cast<unsigned long>(static_cast<unsigned char>(*cursor)));
            return nullptr;
        }
    }
    return nullptr;
}

qfs_result read_buf_from_fd(int fd, uint8_t **out_buffer, size_t *out_capacity, size_t *out_length) {
    size_t capacity = read_chunk;
    void *block = nullptr;
    qfs_result r = _qfs_malloc(0, capacity, &block);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating memory: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_buffer buffer(static_cast<uint8_t *>(block));
    size_t length = 0;
    for (;;) {
        if (length == capacity) {
            void *bigger = nullptr;
            r = _qfs_realloc(0, buffer.get(), capacity, capacity * 2, &bigger);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while reallocating memory: %lu (%s)", QFS_ERR_ARGS(r));
                return r;
            }
            buffer.release();
            buffer.reset(static_cast<uint8_t *>(bigger));
            capacity *= 2;
        }
        const size_t want = capacity - length < read_chunk ? capacity - length : read_chunk;
        const ssize_t got = read(fd, buffer.get() + length, want);
        if (got < 0) {
            if (errno == EINTR) continue;
            r = qfs_errno_result();
            QFS_LOG_ERROR("Error from 'read': %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        if (got == 0) break;
        length += static_cast<size_t>(got);
    }
    if (length > 0 && capacity * 10 > length * 15) {
        void *smaller = nullptr;
        r = _qfs_realloc(0, buffer.get(), capacity, length, &smaller);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error when reallocating memory: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        buffer.release();
        buffer.reset(static_cast<uint8_t *>(smaller));
        capacity = length;
    }
    *out_buffer = buffer.release();
    *out_capacity = capacity;
    *out_length = length;
    return QFS_OK;
}

qfs_result update_check(int *out_update_available, int32_t *out_latest_raw, char **out_latest_text) {
    int is_curl = 0, is_wget = 0;
    qfs_unique<char[]> program(get_curl_or_wget_pathname(&is_curl, &is_wget));
    if (!program) {
        QFS_LOG_ERROR("Could not find a usable wget or curl binary");
        return QFS_ERR_SYS_NO_ENTRY;
    }
    fputs("Fetching latest version information...\n", stdout);
    format_flush(stdout);

    char *command_text = nullptr;
    const char *arguments = is_curl ? "--silent --location --fail" : "-q -O -";
    if (asprintf(&command_text, "%s %s %s", program.get(), arguments, FORMAT_TARN_VERSION_URL) < 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error while allocating memory: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<char[]> command(command_text);

    errno = 0;
    std::unique_ptr<FILE, pipe_closer> pipe(popen(command.get(), "r"));
    if (!pipe) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'popen': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    uint8_t *raw_output = nullptr;
    size_t capacity = 0, length = 0;
    qfs_result r = read_buf_from_fd(fileno(pipe.get()), &raw_output, &capacity, &length);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while reading from child process: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_buffer output(raw_output);
    const int status = pclose(pipe.release());
    if (status == -1) {
        r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'pclose': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (status != 0) {
        QFS_LOG_ERROR("Unexpected child process exit status.");
        return explain_wait_status(status, is_curl != 0);
    }

    char *text = nullptr;
    r = qfs_strndup(reinterpret_cast<const char *>(output.get()), length, &text);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error when duplicating version string: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<char[]> version_text(text);
    size_t end = strlen(text);
    while (end > 0 && isspace(static_cast<unsigned char>(text[end - 1]))) {
        text[--end] = '\0';
    }
    int32_t latest = 0;
    r = format_parse_version(text, &latest);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while parsing the information about the latest version of the formatter: %lu (%s)",
                      QFS_ERR_ARGS(r));
        return r;
    }
    *out_update_available = latest > FORMAT_TARN_RAW_VERSION;
    *out_latest_raw = latest;
    *out_latest_text = version_text.release();
    return QFS_OK;
}
