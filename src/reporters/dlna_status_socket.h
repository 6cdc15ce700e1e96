// dlna_status_socket.h - the Unix stream socket on which the media server reports its state, and
// its file.
//
// Threads: main thread.
// Outside: unix(7).
#pragma once

// Listens on the socket path of gwa_process_paths, in place of a file that is left there. The
// non-blocking socket, or -1 after the reason has been logged.
int dlna_status_socket_open();
// Removes the file. The result of unlink.
int dlna_status_socket_remove();
