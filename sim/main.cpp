// zerva-array-sim: the array simulator as a program. Serves until SIGINT or
// SIGTERM, then closes every connection and exits 0. A bad command line
// prints the error and the usage on stderr and exits 2; --help and
// --version print on stdout and exit 0.
#include <signal.h>

#include <cstdio>
#include <string>

#include "sim/sim_server.h"
#include "sim/array_simulator.h"
#include "sim/sim_flags.h"
#include "vempub/vem_command_line.h"
#include "zerva_version.h"

int main(int argc, char** argv) {
  zerva_sim::SimFlags flags;
  std::string error;
  const bool parsed = zerva_sim::ParseSimFlags(argc, argv, &flags, &error);
  const VEMProgramTexts texts = {argv[0], zerva_sim::SimUsage(argv[0]),
                                 std::string("zerva-array-sim ") + ZERVA_VERSION};
  int status = 0;
  if (VEMAnswerCommandLine(parsed, error, flags.help, flags.version, texts, &status)) return status;
  // Block the stop signals in every thread; the main thread waits for them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  zerva_sim::ArraySimServer server(flags.options);
  bool badOption = false;
  if (!server.start(&error, &badOption)) {
    fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
    return badOption ? 2 : 1;
  }
  const zerva_sim::Topology& t = server.array().topology();
  printf("zerva-array-sim listening on %s (%zu controllers, %zu ports, %zu LUNs, %zu file systems, switch %s)\n",
         server.address().c_str(), t.controllers.size(), t.ports.size(), t.luns.size(), t.fileSystems.size(),
         server.array().switchState() == 1 ? "on" : "off");
  fflush(stdout);
  int sig = 0;
  sigwait(&stopSignals, &sig);
  server.stop();
  printf("zerva-array-sim stopped (signal %d)\n", sig);
  return 0;
}
