// Whole-database costs: export of a 100k-record database to a buffer beside
// a bare memcpy of the compacted file's bytes, import of a 100k-record
// backup, and the feature search over 256 configured vnets.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <span>
#include <string>

#include "netcfg/whole-db.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

constexpr const char* kBackupPath = "/tmp/bench-backup";

// 100,000 add records, all of which an import keeps: 7,168 answers (28
// known per-vnet fields of 256 vnets), 60,000 port forwards, 20,000 DHCP
// mappings and 12,832 bridge mappings.
std::string HundredThousandRecords() {
  // The first 28 fields an import keeps.
  const auto kFields = std::span(plr::kNetCfgKnownVnetFields).first<28>();
  std::string out;
  out.reserve(6 << 20);
  int records = 0;
  for (int vnet = 0; vnet < 256; ++vnet)
    for (const char* field : kFields)
      out += "answer VNET_" + std::to_string(vnet) + "_" + field + " value-" +
             std::to_string(records++) + "\n";
  for (int i = 0; i < 60000; ++i, ++records)
    out += "add_nat_portfwd " + std::to_string(i / 6000) + (i % 2 ? " tcp " : " udp ") +
           std::to_string(1 + i % 6000 / 2) + " 10.0.0." + std::to_string(1 + i % 250) +
           " 80 forward " + std::to_string(i) + "\n";
  for (int i = 0; i < 20000; ++i, ++records) {
    char mac[18];
    snprintf(mac, sizeof mac, "02:7A:3E:%02X:%02X:%02X", i >> 16 & 0xff, i >> 8 & 0xff, i & 0xff);
    out += "add_dhcp_mac_to_ip " + std::to_string(20 + i / 1000) + " " + mac + " 10.1." +
           std::to_string(i / 250) + "." + std::to_string(1 + i % 250) + "\n";
  }
  for (int i = 0; records < 100000; ++i, ++records)
    out += "add_bridge_mapping eth" + std::to_string(i) + " " + std::to_string(i % 256) + "\n";
  return out;
}

// Loads the 100k database and returns the bytes of its compacted file.
std::string LoadHundredThousand() {
  plr::test::WriteProductConfig();
  plr::test::WriteDatabase(HundredThousandRecords());
  if (!PLR_Load(false)) return std::string();
  PLR_VnetCfgAddAnswer("VNET_0_MTU", "1500");  // modified: the unload compacts
  PLR_Unload();
  std::string compacted = plr::test::ReadFile(plr::test::kDatabasePath);
  if (!PLR_Load(false)) return std::string();
  return compacted;
}

void BM_ExportToBuffer(benchmark::State& state) {
  const std::string compacted = LoadHundredThousand();
  size_t bytes = 0;
  for (auto _ : state) {
    char* buffer = nullptr;
    if (!PLRNetCfgExportConfigToBuffer(nullptr, &buffer, false, true))
      state.SkipWithError("export");
    bytes = strlen(buffer);
    benchmark::DoNotOptimize(buffer);
    free(buffer);
  }
  if (bytes != compacted.size()) state.SkipWithError("buffer differs from the compacted file");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  PLR_Unload();
}
BENCHMARK(BM_ExportToBuffer)->Unit(benchmark::kMillisecond);

void BM_MemcpyCompactedFile(benchmark::State& state) {
  const std::string compacted = LoadHundredThousand();
  PLR_Unload();
  for (auto _ : state) {
    char* buffer = static_cast<char*>(malloc(compacted.size() + 1));
    memcpy(buffer, compacted.data(), compacted.size() + 1);
    benchmark::DoNotOptimize(buffer);
    benchmark::ClobberMemory();
    free(buffer);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * compacted.size()));
}
BENCHMARK(BM_MemcpyCompactedFile)->Unit(benchmark::kMillisecond);

void BM_Import100kBackup(benchmark::State& state) {
  plr::test::WriteProductConfig();
  plr::test::WriteFile(kBackupPath, "BACKUP_VERSION=1,0\n" + HundredThousandRecords());
  for (auto _ : state) {
    state.PauseTiming();
    plr::test::WriteDatabase();
    state.ResumeTiming();
    if (!PLRNetCfgImportConfig(kBackupPath, plr::test::kDatabasePath))
      state.SkipWithError("import");
  }
}
BENCHMARK(BM_Import100kBackup)->Unit(benchmark::kMillisecond);

// 256 vnets with subnets and NAT; only vnet 255 has DHCP, so a search for
// DHCP from vnet 0 looks at every vnet.
void BM_FindVnetWithFeatures(benchmark::State& state) {
  std::string records;
  for (int vnet = 0; vnet < 256; ++vnet)
    records += "answer VNET_" + std::to_string(vnet) + "_HOSTONLY_SUBNET 10." +
               std::to_string(vnet) + ".0.0\nanswer VNET_" + std::to_string(vnet) + "_NAT yes\n";
  records += "answer VNET_255_DHCP yes\nanswer PLR_DEFAULT_BRIDGE_VNET -1\n";
  plr::test::WriteProductConfig();
  plr::test::WriteDatabase(records);
  if (!PLR_Load(false)) state.SkipWithError("load");
  for (auto _ : state) {
    PLR_VnetFeatures ft;
    memset(&ft, 0, sizeof ft);
    ft.version = 1;
    ft.netId = PLR_NetworkID{1, 1, 0};
    ft.configFeatures[PLR_FEATURE_CFG_DHCP] = PLR_FEATURE_PRESENT;
    if (!PLR_FindVnetWithFeatures(&ft) || ft.netId.vnet != 255) state.SkipWithError("search");
  }
  PLR_Unload();
}
BENCHMARK(BM_FindVnetWithFeatures)->Unit(benchmark::kMicrosecond);

}  // namespace
