// What the service layer costs over the bare system calls: one start/stop
// cycle of a fixture daemon through the library against a bare
// fork/exec/waitpid of the same program (status read, SIGTERM, wait for it to
// go), and one status query against a bare kill(pid, 0).
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

constexpr uint32_t kVnet = 2;
constexpr const char* kPidFile = "/var/run/kavix-natd-2.pid";

// Loads the library once on a fixture BINDIR; detached daemons (through their
// nanny process) become our children, reaped after every cycle.
void LoadOnce() {
  static bool loaded = false;
  if (loaded) return;
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  plr::test::WriteProductConfig();
  plr::test::WriteDatabase("");
  loaded = PLR_Load(0);
}

void ReapEnded() {
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
}

pid_t PidIn(const char* path) {
  std::ifstream in(path);
  pid_t pid = -1;
  in >> pid;
  return pid;
}

void BM_LibraryStartStop(benchmark::State& state) {
  LoadOnce();
  for (auto _ : state) {
    if (!PLRServiceStart(kVnet, PLR_SERVICE_NAT) || !PLRServiceStop(kVnet, PLR_SERVICE_NAT)) {
      state.SkipWithError("start/stop failed");
      break;
    }
    ReapEnded();
  }
}
BENCHMARK(BM_LibraryStartStop)->Unit(benchmark::kMillisecond)->Iterations(20);

// The same daemon with the same command line, started and stopped by hand:
// the stop polls every millisecond instead of every 50.
void BM_BareForkExecWaitpid(benchmark::State& state) {
  LoadOnce();
  const std::string path = std::string(plr::test::FixtureBinDir()) + "/kavix-natd";
  for (auto _ : state) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) break;
    std::string fd = std::to_string(fds[1]);
    std::vector<const char*> argv = {path.c_str(),
                                     "-s",
                                     fd.c_str(),
                                     "-d",
                                     kPidFile,
                                     "-m",
                                     "/etc/tarsis/kavix2/nat.mac",
                                     "-c",
                                     "/etc/tarsis/kavix2/nat/nat.conf",
                                     nullptr};
    pid_t child = fork();
    if (child == 0) {
      fcntl(fds[1], F_SETFD, 0);
      execv(path.c_str(), const_cast<char* const*>(argv.data()));
      _exit(1);
    }
    close(fds[1]);
    waitpid(child, nullptr, 0);
    unsigned char status[2];
    ssize_t n = read(fds[0], status, sizeof status);
    close(fds[0]);
    pid_t daemon = PidIn(kPidFile);
    if (n <= 0 || daemon <= 1) {
      state.SkipWithError("bare start failed");
      break;
    }
    kill(daemon, SIGTERM);
    while (kill(daemon, 0) == 0) usleep(1000);
    unlink(kPidFile);
    ReapEnded();
  }
}
BENCHMARK(BM_BareForkExecWaitpid)->Unit(benchmark::kMillisecond)->Iterations(20);

void BM_LibraryStatus(benchmark::State& state) {
  LoadOnce();
  if (!PLRServiceStart(kVnet, PLR_SERVICE_NAT)) {
    state.SkipWithError("start failed");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(PLRServiceStatus(kVnet, PLR_SERVICE_NAT));
  PLRServiceStop(kVnet, PLR_SERVICE_NAT);
  ReapEnded();
}
BENCHMARK(BM_LibraryStatus)->Unit(benchmark::kMicrosecond);

void BM_BareKill0(benchmark::State& state) {
  LoadOnce();
  if (!PLRServiceStart(kVnet, PLR_SERVICE_NAT)) {
    state.SkipWithError("start failed");
    return;
  }
  pid_t pid = PidIn(kPidFile);
  for (auto _ : state) benchmark::DoNotOptimize(kill(pid, 0));
  PLRServiceStop(kVnet, PLR_SERVICE_NAT);
  ReapEnded();
}
BENCHMARK(BM_BareKill0)->Unit(benchmark::kMicrosecond);

}  // namespace
