// What a pelorus command costs beside a bare process that only loads and
// unloads the library: `list --json` over 256 configured vnets, and `show`
// of one of them. Both run as whole processes, as a user runs them.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace {

// A database of 256 vnets, each with a subnet, DHCP, NAT, a name, a static
// mapping and two port forwards.
void WriteVnets() {
  static bool written = false;
  if (written) return;
  std::string records;
  for (int v = 0; v < 256; ++v) {
    const std::string n = std::to_string(v), net = "10." + n + ".0.";
    records += "answer VNET_" + n + "_HOSTONLY_SUBNET " + net + "0\nanswer VNET_" + n +
               "_HOSTONLY_NETMASK 255.255.255.0\nanswer VNET_" + n + "_DHCP yes\nanswer VNET_" + n +
               "_NAT yes\nanswer VNET_" + n + "_DISPLAY_NAME net " + n + "\nadd_dhcp_mac_to_ip " +
               n + " 00:50:56:00:00:10 " + net + "10\nadd_nat_portfwd " + n + " tcp 8080 " + net +
               "10 80 web\nadd_nat_portfwd " + n + " udp 53 " + net + "10 53\n";
  }
  plr::test::WriteProductConfig();
  plr::test::WriteDatabase(records);
  written = true;
}

// Runs `argv` with its output thrown away; false unless it exits 0.
bool RunQuietly(std::vector<const char*> argv) {
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
    execv(argv[0], const_cast<char* const*>(argv.data()));
    _exit(127);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void Measure(benchmark::State& state, std::vector<const char*> argv) {
  WriteVnets();
  for (auto _ : state)
    if (!RunQuietly(argv)) {
      state.SkipWithError("the command failed");
      break;
    }
}

void BM_CliListJson256(benchmark::State& state) {
  Measure(state, {PLR_CLI_PATH, "--json", "list"});
}
BENCHMARK(BM_CliListJson256)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CliShow(benchmark::State& state) {
  Measure(state, {PLR_CLI_PATH, "show", "kavix200"});
}
BENCHMARK(BM_CliShow)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BareLoadUnloadProcess(benchmark::State& state) {
  Measure(state, {PLR_LOAD_UNLOAD_PATH});
}
BENCHMARK(BM_BareLoadUnloadProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
