#include "analyze/Main.h"

int main(int argc, char* argv[]) { return orvane::analyze::Main(argc, argv); }
