// netlink - datagrams about addresses and links: one in a block of exactly its size, at any
// alignment, and the same through a socket.
#include <sys/epoll.h>
#include <sys/socket.h>

#include <string>

#include "connection/gwa_connection.h"
#include "reporters/gwa_link.h"
#include "support/network.h"
#include "support/process.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    process_run([=] {
        input_text input(bytes, size);
        const size_t shift = input.byte() % 4;
        exact_bytes datagram(input.rest);
        const exact_bytes shifted(std::string(shift, '\0').append(input.rest));
        const bool restarts = gwa_link_walk(datagram.unsigned_data(), datagram.size);
        must(restarts == gwa_link_walk(shifted.unsigned_data() + shift, datagram.size));

        const fd_pair pair(SOCK_DGRAM);
        send(pair.theirs.fd, datagram.data(), datagram.size, MSG_NOSIGNAL);
        int fd = pair.ours.fd;
        if (!restarts) {  // who would be restarted is not there
            gwa_link_handle(EPOLLIN, &fd);
        }
    });
    return 0;
}
