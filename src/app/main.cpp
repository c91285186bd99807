#include <cstdlib>

#include "app/command_line.h"
#include "app/process.h"
#include "app/service_cycle.h"

int main(int argc, char** argv) {
  qs_ns::blockSignals();
  qs_ns::startUp();
  if (argc > 1) {
    qs_ns::runCommandLine(argc, argv);
    qs_ns::endProcess(EXIT_SUCCESS);
  }
  qs_ns::runServiceCycles();
}
