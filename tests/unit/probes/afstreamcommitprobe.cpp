// afstreamcommitprobe DESTINATION: writes one line to DESTINATION through an
// afstream and commits it, so that a test can watch the system calls of one
// real commit (strace) without the noise of a test runner around it.
#include <exception>
#include <iostream>

#include "orvaner/run/afstream.h"

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "usage: afstreamcommitprobe DESTINATION\n";
    return 2;
  }
  try {
    orvane::afstream stream;
    stream.open(argv[1]);
    stream << "committed\n";
    stream.commit();
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
  return 0;
}
