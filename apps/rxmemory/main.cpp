// rxmemory: the memory of a running rxbroker from a shell. All the work is in
// the rxmemorycli library (cli.h), where the tests reach it.
#include <iostream>

#include "cli.h"

int main(int argc, char** argv) {
  rxcli::Cli cli(std::cout, std::cerr);
  return cli.run(argc, argv);
}
