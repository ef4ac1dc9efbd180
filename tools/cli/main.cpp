// zelvanor: send tracker scripts, inspect pending-record files, validate record JSON.
#include <iostream>
#include <string>
#include <vector>

#include "cli.hpp"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  try {
    return zelvanor::cli::runCli(args, std::cout, std::cerr);
  } catch (const std::exception& e) {
    std::cerr << "zelvanor: " << e.what() << "\n";
  } catch (...) {
    std::cerr << "zelvanor: unexpected failure\n";
  }
  return zelvanor::cli::kRuntime;
}
