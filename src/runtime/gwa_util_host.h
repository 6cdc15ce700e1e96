// gwa_util_host.h - what concerns the host rather than a socket: the allocator, names, interfaces,
// the firmware file, whole files, descriptors, threads, and two formatters.
//
// Threads: stateless but for the size formatter's fallback buffer; any thread may call.
// Results: 0, or -1 after the reason has been logged, unless said otherwise.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <new>

// The only allocator. Returns gwa_round_up(size) bytes, not cleared, released with free(); never
// null: when there is no memory it logs and ends the process with status 1. A size below 1 is a bug
// of the caller and ends the process. Use GWA_MALLOC and GWA_NEW, which name the caller.
void* gwa_malloc(int size, const char* file, int line, const char* function);
#define GWA_MALLOC(size) gwa_malloc(static_cast<int>(size), GWA_FILE_NAME, __LINE__, __func__)
// A default-made record on the heap; trivially destructible, so free() releases it.
#define GWA_NEW(type) (new (GWA_MALLOC(sizeof(type))) type{})

// The size that gwa_malloc takes: powers of two from 32 to 8192, larger ones as they are; 0
// (logged) for a size below 1.
int gwa_round_up(int size);

// Resolves `host` to its first IPv4 address, in network byte order into `address` and dotted into
// `text`; either may be null. 0, -1, or getaddrinfo's own non-zero result. May block for long.
int gwa_getaddrinfo(const char* host, uint32_t* address, char* text, size_t text_size);

// The hardware address of an interface. 0 or -1. SIOCGIFHWADDR, netdevice(7).
int gwa_interface_mac_get(const char* name, uint8_t (*mac)[6]);
// The IPv4 address of an interface, in network byte order; 0.0.0.0 when it has none. 0 or -1. Its
// messages go to standard output. SIOCGIFADDR, netdevice(7).
int gwa_interface_addr_get(const char* name, uint8_t (*address)[4]);

constexpr size_t GWA_FIRMWARE_VALUE_SIZE =
    32;  // visible length; the buffers hold a terminator more
using gwa_firmware_value = char[GWA_FIRMWARE_VALUE_SIZE + 1];
// Reads the firmware version file of the home directory. Values that are not there stay as they
// are. 0 when all three keys were read, else -1.
int gwa_fwver_get(gwa_firmware_value& version, gwa_firmware_value& component,
                  gwa_firmware_value& terminal);

// Opens a file, emptied or new, for writing; the descriptor is the caller's. -1: errno says why.
// Neither this nor a write to it ever waits, should a pipe without a reader bear the name.
int gwa_file_replace(const char* path);
// Replaces a file's content. 0, or -1 when it cannot be opened.
int gwa_file_write(const char* path, const void* data, size_t length);

// Closes every descriptor up to the limit, for a child that is about to execute. Makes only
// async-signal-safe calls and is quick under any limit. Always 0.
int gwa_close_all_fds();

// Prints bytes as rows of 16 to standard output.
void gwa_hexdump(const void* data, size_t length);

// A byte count for people: "512", "1.500K", "1.000M". A null buffer uses a static one (not
// thread-safe); one of less than 16 bytes gives "ERROR" and is not touched. Returns the text.
const char* gwa_size_format(uint64_t value, char* buffer, size_t size);

// The calling thread's kernel thread id.
uint32_t gwa_gettid();

// Starts a thread with a stack of GWA_THREAD_STACK bytes that takes no SIGINT or SIGTERM: those
// belong to the main thread, whose waits they interrupt. 0 or the error number, as pthread_create.
constexpr size_t GWA_THREAD_STACK = 256 * 1024;  // the resolver is the deepest caller
int gwa_thread_create(pthread_t* thread, void* (*run)(void*), void* argument);
