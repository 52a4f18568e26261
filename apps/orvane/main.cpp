#include "orvaner/run/Main.h"

int main(int argc, char* argv[], char* envp[]) { return orvane::Main(argc, argv, envp); }
