// What the exported frame costs: PLR_SetVnetMTU end to end (frame, checks,
// lock, remove + answer records appended, unlock) beside a bare write() of
// the same record bytes; and PLR_EnumNATPortForward over 10k forwards, per
// enumeration step. Logging is at the default mask, as in production.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

void LoadDatabase(const std::string& records) {
  plr::test::WriteProductConfig();
  plr::test::WriteDatabase(records);
  if (!PLR_Load(false)) abort();
}

void BM_SetVnetMTU(benchmark::State& state) {
  LoadDatabase("answer VNET_1_MTU 1500\n");
  uint32_t mtu = 1500;
  for (auto _ : state) benchmark::DoNotOptimize(PLR_SetVnetMTU("kavix1", mtu ^= 1));
  PLR_Unload2(0);
}
BENCHMARK(BM_SetVnetMTU);

// The same two records the setter appends, written with one write() each to
// an O_APPEND file, as the unbuffered database stream does.
void BM_BareWriteOfSameRecords(benchmark::State& state) {
  int fd = open("/tmp/bench-records", O_WRONLY | O_CREAT | O_APPEND | O_TRUNC, 0644);
  const std::string remove = "remove_answer VNET_1_MTU\n";
  const std::string add = "answer VNET_1_MTU 1501\n";
  for (auto _ : state) {
    benchmark::DoNotOptimize(write(fd, remove.data(), remove.size()));
    benchmark::DoNotOptimize(write(fd, add.data(), add.size()));
  }
  close(fd);
}
BENCHMARK(BM_BareWriteOfSameRecords);

void BM_EnumNATPortForward10k(benchmark::State& state) {
  std::string records;
  for (int port = 1; port <= 10000; ++port)
    records += "add_nat_portfwd 1 tcp " + std::to_string(port) + " 192.168.1.9 80 fwd\n";
  LoadDatabase("answer VNET_1_HOSTONLY_SUBNET 192.168.1.0\n" + records);
  uint32_t offset = 0;
  int64_t found = 0;
  for (auto _ : state) {
    uint16_t hostPort, vmPort;
    char ip[16], desc[128];
    uint32_t ipLen = sizeof ip, descLen = sizeof desc;
    if (PLR_EnumNATPortForward("kavix1", true, &offset, &hostPort, ip, &ipLen, &vmPort, desc,
                               &descLen)) {
      ++found;
    } else {
      offset = 0;  // the walk reached the end: start again
    }
  }
  state.SetItemsProcessed(state.iterations());
  // Nearly every step must return a forward; a broken table would show here.
  state.counters["found_per_step"] =
      benchmark::Counter(static_cast<double>(found) / static_cast<double>(state.iterations()));
  PLR_Unload2(0);
}
BENCHMARK(BM_EnumNATPortForward10k);

}  // namespace
