#include "main/gwa_main.h"
#include "runtime/gwa_process.h"

// Threads may run: the process ends without the handlers that a return from main would start.
int main(int argc, char* argv[]) { gwa_process_exit(gwa_main(argc, argv)); }
