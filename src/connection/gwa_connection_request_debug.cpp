#include "connection/gwa_connection_request_debug.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "connection/gwa_connection_data_addr.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_util_http.h"
#include "runtime/gwa_util_open.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr size_t PARAMETER_SIZE = 128;
constexpr uint32_t ANSWER_BUFFER = 1024;
constexpr uint32_t ANSWER_CAPACITY = 1008;  // what is released for it: oddity 24
constexpr size_t MISPLACED_LENGTH_AT = 28;  // see diagnostic_header
constexpr int DIAGNOSTIC_NODES = 512;       // the header and at most 511 chunks
constexpr int DIAGNOSTIC_WAIT_S = 30;
constexpr int DIAGNOSTIC_WAIT_MIN_S = 5;
constexpr int DIAGNOSTIC_WAIT_MAX_S = 54;
constexpr int SCRIPT_POLL_US = 20000;
constexpr size_t DIAGNOSTIC_PATH_SIZE = GWA_HOME_SIZE + 64;

struct http_status {
    int code;
    const char* reason;
};
constexpr http_status HTTP_OK{200, "OK"};
constexpr http_status HTTP_NOT_FOUND{404, "File Not Found"};
constexpr http_status HTTP_UNAVAILABLE{503, "Gateway Internal Error"};

}  // namespace

static bool must_stop(const gwa_stream* stream) {
    return !gwa_connection_running() || gwa_connection_data_told_to_stop(stream->connection);
}

// A charged answer frame of the stream; the caller fills in the payload and its length.
static gwa_output_node* answer_node(const gwa_stream* stream) {
    gwa_output_node* const node = gwa_stream_frame_new(stream, ANSWER_BUFFER - GWA_HEADER_SIZE);
    gwa_protocol_build(node->data, GWA_VERSION_PLAIN, gwa_command::DATA, GWA_FLAG_STREAM,
                       stream->id, 0);
    node->capacity = ANSWER_CAPACITY;
    return node;
}

constexpr size_t ANSWER_TEXT_MAX = ANSWER_CAPACITY - GWA_HEADER_SIZE;

static char* answer_text(gwa_output_node* node) {
    return reinterpret_cast<char*>(gwa_connection_payload_of(node));
}

static uint32_t text_length(int printed) {  // what snprintf has put into the answer, cut or not
    return static_cast<uint32_t>(std::clamp<int>(printed, 0, ANSWER_TEXT_MAX - 1));
}

static void answer(const gwa_stream* stream, const http_status& status, const char* body) {
    gwa_output_node* const node = answer_node(stream);
    const uint32_t length = text_length(
        snprintf(answer_text(node), ANSWER_TEXT_MAX,
                 "HTTP/1.1 %d %s\r\nContent-Type:text/plain\r\nContent-Length:%d\r\n\r\n%s",
                 status.code, status.reason, static_cast<int>(strlen(body)), body));
    gwa_protocol_build(node->data, GWA_VERSION_PLAIN, gwa_command::DATA, GWA_FLAG_STREAM,
                       stream->id, length);
    node->remaining = GWA_HEADER_SIZE + length;
    GWA_LOG(DEBUG, "debug response [%s]", answer_text(node));
    gwa_connection_data_send(stream->connection, node);
}

// Runs the script with the shell and waits for it, or for the order to stop, which ends the script.
static void diagnostic_script(const gwa_stream* stream) {
    char command[DIAGNOSTIC_PATH_SIZE];
    snprintf(command, sizeof command, "%s/bin/diag.sh -c sysdiag.txt", gwa_process_paths.home);
    char shell[] = "sh", option[] = "-c";
    char* const arguments[] = {shell, option, command, nullptr};

    // A group of its own, so that all of it can be ended, and none of the worker's blocked signals.
    posix_spawnattr_t attributes;
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        return;  // the answer then tells of the file that is not there
    }
    while (waitpid(child, nullptr, WNOHANG) == 0) {
        if (must_stop(stream)) {
            kill(-child, SIGKILL);
            waitpid(child, nullptr, 0);
            return;
        }
        gwa_usleep(SCRIPT_POLL_US);
    }
}

// The time that the caller gives the box to write its file.
static void diagnostic_pause(const gwa_stream* stream, const char* uri) {
    constexpr std::string_view name = "timeout";
    int32_t seconds = DIAGNOSTIC_WAIT_S;
    if (gwa_uri_param_int_get(uri, name.data(), name.size(), &seconds) != GWA_OK) {
        GWA_LOG(ERROR, "not contain timeout field");
        seconds = DIAGNOSTIC_WAIT_S;
    } else if (seconds < DIAGNOSTIC_WAIT_MIN_S || seconds > DIAGNOSTIC_WAIT_MAX_S) {
        seconds = DIAGNOSTIC_WAIT_S;
    }
    for (int32_t slept = 0; slept < seconds && !must_stop(stream); slept++) {
        gwa_sleep(1);
    }
}

static bool read_exactly(int fd, uint8_t* to, size_t length) {
    size_t have = 0;
    while (have < length) {
        const ssize_t got = read(fd, to + have, length - have);
        if (got <= 0) {
            return false;
        }
        have += static_cast<size_t>(got);
    }
    return true;
}

// Exception 59: what a server asks for and does not read is bounded, too.
static bool has_room(const gwa_stream* stream) {
    return gwa_connection_memory(stream->connection) <= GWA_MEMORY_CEILING;
}

// Frames the file in chunks behind `frames`. Returns the size of the last chunk that it tried.
static int diagnostic_chunks(const gwa_stream* stream, int fd, int file_size,
                             list<gwa_output_node>* frames) {
    int chunk = 0;
    int have = 0;
    for (int nodes = 1; have < file_size && nodes < DIAGNOSTIC_NODES && has_room(stream); nodes++) {
        chunk = std::min<int>(file_size - have, GWA_PAYLOAD_MAX);
        gwa_output_node* const node = gwa_stream_frame_new(stream, static_cast<uint32_t>(chunk));
        GWA_LOG(DEBUG, "mem size = %d, read_size = %d, read_cnt = %d",
                static_cast<int>(node->capacity), chunk, have);
        if (!read_exactly(fd, gwa_connection_payload_of(node), static_cast<size_t>(chunk))) {
            GWA_LOG(ERROR, "read diag file failed");
            gwa_connection_data_node_drop(stream->connection, node);
            break;
        }
        frames->push_back(*node);
        have += chunk;
    }
    return chunk;
}

// The HTTP head of the diagnostic. Oddity 23: Content-Length names the last chunk, and the length
// of the text goes over its characters 12 to 15 while the frame's own length field stays 0; the
// tools that fetch the diagnostic expect just that.
static void diagnostic_header(gwa_output_node* node, const http_status& status, int last_chunk) {
    const uint32_t length = text_length(
        snprintf(answer_text(node), ANSWER_TEXT_MAX,
                 "HTTP/1.1 %d %s\r\nContent-Type:text/plain\r\nContent-Length:%d\r\n\r\n",
                 status.code, status.reason, last_chunk));
    store_be32(node->data + MISPLACED_LENGTH_AT, length);
    node->remaining = GWA_HEADER_SIZE + length;
}

// Runs the diagnostic and answers with the file that its script has written.
static void gwa_http_get_file(const gwa_stream* stream, const char* uri) {
    diagnostic_script(stream);
    diagnostic_pause(stream, uri);

    char path[DIAGNOSTIC_PATH_SIZE];
    snprintf(path, sizeof path, "%s/tmp/wkr/sysdiag.txt", gwa_process_paths.home);
    struct stat file {};
    const bool known = stat(path, &file) == 0;
    const int file_size = known ? static_cast<int>(std::min<off_t>(file.st_size, INT32_MAX)) : 0;
    GWA_LOG(DEBUG, "file size %d", file_size);
    http_status status = HTTP_OK;
    // Another user may have made the folder, and put a link there to what only we may read.
    const scoped_fd fd(gwa_open(path, O_RDONLY));
    if (fd.fd == -1) {
        status = errno == ENOENT ? HTTP_NOT_FOUND : HTTP_UNAVAILABLE;
        GWA_LOG(ERROR, "open diag file field, %s", path);
    }

    list<gwa_output_node> frames;
    gwa_output_node* const head = answer_node(stream);
    frames.push_back(*head);
    const int last_chunk = diagnostic_chunks(stream, fd.fd, file_size, &frames);
    diagnostic_header(head, status, last_chunk);
    while (gwa_output_node* const node = frames.first()) {
        list_unlink(*node);
        gwa_connection_data_send(stream->connection, node);
    }
}

static void set_log_level(const gwa_stream* stream, const char* uri) {
    constexpr std::string_view name = "loglv";
    int32_t level = 0;
    if (gwa_uri_param_int_get(uri, name.data(), name.size(), &level) != GWA_OK) {
        GWA_LOG(ERROR, "not contain loglv field");
        answer(stream, HTTP_NOT_FOUND, "not contain loglv field");
        return;
    }
    gwa_log_level_set(level);  // oddity 25: answered alike, whatever comes of it
    answer(stream, HTTP_OK, "OK");
}

void gwa_self_debug(const gwa_stream* stream, const char* uri) {
    if (!has_room(stream)) {
        GWA_LOG(ERROR, "too much waits for the server, conn %d, no answer", stream->connection->id);
        return;
    }
    constexpr std::string_view name = "x-qv-gwad-opt";
    char operation[PARAMETER_SIZE];
    size_t size = sizeof operation;
    if (gwa_uri_param_str_get(uri, name.data(), name.size(), operation, &size) != GWA_OK) {
        GWA_LOG(ERROR, "not contain x-qv-gwad-opt field");
        answer(stream, HTTP_NOT_FOUND, "not contain x-qv-gwad-opt field");
    } else if (strcmp(operation, "log") == 0) {
        set_log_level(stream, uri);
    } else if (strcmp(operation, "echo") == 0) {
        GWA_LOG(REFUSAL, "echo ...");
        answer(stream, HTTP_OK, "echo");
    } else if (strcmp(operation, "diag") == 0) {
        GWA_LOG(REFUSAL, "diagnostic ...");
        gwa_http_get_file(stream, uri);
    } else {
        answer(stream, HTTP_NOT_FOUND, "File Not Found");
    }
}
