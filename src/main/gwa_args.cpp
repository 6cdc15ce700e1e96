#include "main/gwa_args.h"

#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gwad_commit.h"
#include "gwad_config.h"
#include "login/gwa_login.h"
#include "main/gwa_log.h"
#include "runtime/gwa_print.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_util_file.h"
#include "runtime/gwa_util_open.h"

namespace {

constexpr size_t PID_TEXT_MAX = 64;  // bytes of a pid file that are looked at
constexpr int DECIMAL = 10;

// The values point into argv; null: not given.
struct options {
    const char* remote_name = nullptr;
    const char* remote_addr = nullptr;
    const char* port = nullptr;
    const char* local = nullptr;
    const char* log = nullptr;
    const char* verbose = "7";
    const char* interface = nullptr;
    const char* device_id = nullptr;
    const char* home = nullptr;
    bool background = false;
};

constexpr char SHORT_OPTIONS[] = "r:R:p:L:l:V:i:I:bvhH:";
constexpr option LONG_OPTIONS[] = {
    {"remote_name", required_argument, nullptr, 'r'},
    {"remote_addr", required_argument, nullptr, 'R'},
    {"port", required_argument, nullptr, 'p'},
    {"local", required_argument, nullptr, 'L'},
    {"log", required_argument, nullptr, 'l'},
    {"verbose", required_argument, nullptr, 'V'},
    {"interface", required_argument, nullptr, 'i'},
    {"ID", required_argument, nullptr, 'I'},
    {"home", required_argument, nullptr, 'H'},
    {"background", no_argument, nullptr, 'b'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

// As atoi, but a number beyond an int gives the same on 32 and on 64 bits: the nearest one.
static int int_of(const char* text) {
    return static_cast<int>(std::clamp<long>(strtol(text, nullptr, DECIMAL), INT_MIN, INT_MAX));
}

// The misspelt words stay: oddity 1.
static void usage_print(const char* program) {
    printf("%s remote access client\n", program);
    printf("usage: %s options\n", program);
    puts("  -r --remote_name=domain   the remote server name");
    puts("  -R --remote_addr=IP       the remote server IP address");
    printf("  -p --port=port            the remote server listening port, default is %d\n",
           GWA_SERVER_PORT);
    puts("  -L --local=IP             the local server name or address, defualt is localhost");
    puts("  -l --log=file             the file to save logs, defualt is stderr");
    printf("  -i --interface=name       the interface which local service bind on, default is %s\n",
           GWA_DEFAULT_INTERFACE);
    puts("  -I --ID=DeviceID          the device ID string");
    puts("  -V --verbose=level        the verbose level to display debug message");
    puts("  -b --background           run as daemon in background");
    puts("  -v --version              show the programm version");
    puts("  -h --help                 show this help message");
    puts("  -H --home                 the home directory, default is /");
}

// Ends as a command that has printed what it was asked for.
[[noreturn]] static void printed_exit(int status) {
    fflush(stdout);
    gwa_process_exit(status);
}

// Takes one option; what only prints something ends the process here.
static void option_take(options& to, int letter, const char* program) {
    switch (letter) {
        case 'r': to.remote_name = optarg; return;
        case 'R': to.remote_addr = optarg; return;
        case 'p': to.port = optarg; return;
        case 'L': to.local = optarg; return;
        case 'l': to.log = optarg; return;
        case 'V': to.verbose = optarg; return;
        case 'i': to.interface = optarg; return;
        case 'I': to.device_id = optarg; return;
        case 'H': to.home = optarg; return;
        case 'b': to.background = true; return;
        case 'v':
            printf("version : " GWAD_VERSION ", git commit : %s\n", GWAD_COMMIT);
            printed_exit(0);
        case 'h': usage_print(program); printed_exit(0);
        default:
            printf("?? getopt returned character '%c' code 0x%x, %d\n", letter,
                   static_cast<unsigned>(letter), optind);
            printed_exit(1);
    }
}

static options options_read(int argc, char* argv[]) {
    options read;
    opterr = 0;  // the messages are ours
    for (int letter = 0;
         (letter = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr)) != -1;) {
        option_take(read, letter, argv[0]);
    }
    if (optind != argc) {
        printf("@err: Non-option arguments on the command line (%d, %d)!\n", optind, argc);
        usage_print(argv[0]);
        printed_exit(1);
    }
    return read;
}

static void home_init(const char* home) {
    if (home != nullptr && access(home, R_OK | W_OK | X_OK) != 0) {
        fprintf(stderr, "home dir is error %s %s\n", home, strerror(errno));
        gwa_process_exit(1);
    }
    gwa_process_paths_init(home);
    printf("the home dir is %s\n", gwa_process_paths.home);
    fflush(stdout);  // nothing is printed by these means from here on, nor flushed
}

static void background_enter() {
    if (daemon(0, 0) != 0) {
        fprintf(stderr, "daemon failed, %s\n", strerror(errno));
        gwa_process_exit(1);
    }
}

// Kills whoever the pid file names: a survivor would fight us for the same device id. A file that
// outlived a reboot may name the number that we have been given ourselves.
static void predecessor_kill(const char* path, pid_t own) {
    const scoped_fd file(gwa_open(path, O_RDONLY));
    char text[PID_TEXT_MAX + 1] = "";
    const ssize_t length = read(file.fd, text, PID_TEXT_MAX);
    const int pid = length > 0 ? int_of(text) : 0;
    if (pid > 0 && pid != own) {
        kill(pid, SIGKILL);
    }
}

static void pid_file_replace(const char* path) {
    const pid_t own = getpid();
    predecessor_kill(path, own);
    const scoped_fd file(gwa_file_replace(path));
    if (file.fd == -1) {
        fprintf(stderr, "open pid file %s failed\n", path);
        gwa_process_exit(1);
    }
    dprintf(file.fd, "%d", own);
}

// May interrupt any code of the main thread, so it formats by hand and makes one write.
static void signal_handle(int number) {
    const int saved_errno = errno;
    if (number == SIGINT || number == SIGTERM) {
        gwa_process_run.store(0, std::memory_order_relaxed);
        gwa_connection_run.store(0, std::memory_order_relaxed);
    }
    char text[] = "recv signal   \n";
    char* digit = text + sizeof "recv signal " - 1;
    if (number >= DECIMAL) {
        *digit++ = static_cast<char>('0' + number / DECIMAL);
    }
    *digit++ = static_cast<char>('0' + number % DECIMAL);
    *digit++ = '\n';
    gwa_print_signal_safe(text, static_cast<size_t>(digit - text));
    errno = saved_errno;
}

// Without SA_RESTART: a signal ends the wait that it meets, so that the flags are seen at once.
static void signals_install() {
    static_assert(std::atomic<int32_t>::is_always_lock_free, "the handler stores to the flags");
    static_assert(SIGINT < DECIMAL * DECIMAL && SIGTERM < DECIMAL * DECIMAL);
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    action.sa_handler = signal_handle;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigset_t ending;  // whoever started us may have had them blocked
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_UNBLOCK, &ending, nullptr);
}

// Nobody else may write to what we make, our sockets and what the diagnostic leaves included,
// whatever mask we were started with. One that takes more away is the operator's choice.
static void others_shut_out() {
    constexpr mode_t WRITING_OF_OTHERS = S_IWGRP | S_IWOTH;
    umask(umask(WRITING_OF_OTHERS) | WRITING_OF_OTHERS);
}

static void log_start(const options& given) {
    if (gwa_log_init(given.log, given.background) != 0) {
        if (errno == EPERM) {
            fputs("the log is not written, it may be another user's trap\n", stderr);
        }
        fputs("init log failed\n", stderr);
        gwa_process_exit(1);
    }
    if (gwa_log_level_set(int_of(given.verbose)) != 0) {
        fprintf(stderr, "log level is invalid %s\n", given.verbose);
        GWA_EXIT(1);
    }
    GWA_LOG(FATAL, "<<<<<<<<  gwad start, git commit [%s]  >>>>>>>>", GWAD_COMMIT);
}

void args_parse(int argc, char* argv[]) {
    const options given = options_read(argc, argv);
    home_init(given.home);
    if (given.background) {
        background_enter();
    }
    others_shut_out();
    gwa_print_init();                              // after daemon, which replaces standard output
    pid_file_replace(gwa_process_paths.pid_file);  // after daemon, which gives us a new number
    signals_install();
    log_start(given);
    if (gwa_login_init(given.remote_name, given.remote_addr, given.port, given.local,
                       given.interface, given.device_id) != 0) {
        GWA_LOG(ERROR, "init login failed");
        GWA_EXIT(1);
    }
}
