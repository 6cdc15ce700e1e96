#include "main/gwa_main.h"

int main(int argc, char* argv[]) { return gwa_main(argc, argv); }
