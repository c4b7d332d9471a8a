// vekd.cpp: the program. Everything else is in the library, where tests can reach it.
#include "daemon.h"

int main(int argc, char **argv) { return vekd_main(argc, argv); }
