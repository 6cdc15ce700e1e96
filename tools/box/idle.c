// The smallest program there is: what of its memory is resident is the C library's own.
#include <unistd.h>

int main(void) {
    pause();
    return 0;
}
