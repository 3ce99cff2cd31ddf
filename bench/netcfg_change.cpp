// One change as the API's write bracket makes it (lock, change, unlock)
// beside bare write() calls of the same record bytes, and one step of a
// port-forward enumeration at growing table sizes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "netcfg/db-internal.h"
#include "tests/support/sandbox.h"

namespace {

constexpr const char* kPath = "/etc/tarsis/networking";

void BM_AnswerChangeUnderLock(benchmark::State& state) {
  plr::test::WriteFile(kPath, "VERSION=1,0\nanswer VNET_1_DISPLAY_NAME first\n");
  if (!PLRNetCfgLoad(kPath, nullptr, false, false)) state.SkipWithError("load failed");
  const char* values[] = {"network one", "network two"};
  size_t i = 0;
  for (auto _ : state) {
    bool ok = PLRNetCfgLockConfig(nullptr);
    ok = PLRNetCfgAddAnswerString(nullptr, "VNET_1_DISPLAY_NAME", values[i++ & 1]) && ok;
    ok = PLRNetCfgUnlockConfig(nullptr) && ok;
    if (!ok) state.SkipWithError("change failed");
  }
  PLRNetCfgUnload(nullptr, false);
}
BENCHMARK(BM_AnswerChangeUnderLock);

// Baseline: the two records of that change as two bare writes at the end of
// the file.
void BM_AnswerChangeBaselineWrite(benchmark::State& state) {
  plr::test::WriteFile(kPath, "VERSION=1,0\n");
  int fd = open(kPath, O_WRONLY | O_APPEND | O_CLOEXEC);
  const std::string remove = "remove_answer VNET_1_DISPLAY_NAME\n";
  const std::string add[] = {"answer VNET_1_DISPLAY_NAME network one\n",
                             "answer VNET_1_DISPLAY_NAME network two\n"};
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(write(fd, remove.data(), remove.size()));
    const std::string& record = add[i++ & 1];
    benchmark::DoNotOptimize(write(fd, record.data(), record.size()));
  }
  close(fd);
}
BENCHMARK(BM_AnswerChangeBaselineWrite);

// One cursor step; constant cost per step whatever the table size.
void BM_EnumPortFwdStep(benchmark::State& state) {
  plr::test::WriteFile(kPath, "VERSION=1,0\n");
  PLRNetworkConfigurationDB* db = nullptr;
  if (!PLRNetCfgLoad(kPath, &db, false, true)) state.SkipWithError("load failed");
  const int n = static_cast<int>(state.range(0));
  for (int port = 1; port <= n; ++port)
    PLRNetCfgAddNATPortFwd(db, 8, true, static_cast<uint16_t>(port), "192.168.120.128",
                           static_cast<uint16_t>(port), "forward", false);
  uint32_t cursor = 0;
  uint16_t hostPort = 0, vmPort = 0;
  char ip[16], desc[128];
  for (auto _ : state) {
    uint32_t descLength = sizeof desc;
    if (!PLRNetCfgEnumNATPortFwd(db, 8, true, &cursor, &hostPort, ip, sizeof ip, &vmPort, desc,
                                 &descLength))
      cursor = 0;
    benchmark::DoNotOptimize(hostPort);
  }
  PLRNetCfgUnload(&db, false);
}
BENCHMARK(BM_EnumPortFwdStep)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace
