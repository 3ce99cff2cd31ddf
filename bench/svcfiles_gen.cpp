// What generating the service files costs: dhcpd.conf for a vnet with 1k,
// 10k and 100k static mappings and nat.conf with as many port forwards (the
// cost must grow linearly), each beside a baseline that writes the same
// number of bytes with one fopen/fwrite/fclose. A generator run also
// reads the old file, copies it to the backup, hashes the block, replaces
// the file atomically and appends the new hash to the database.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "base/sha1.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

constexpr const char* kBaselinePath = "/tmp/bench-baseline.conf";
#define PLR_BENCH_DHCP_DIR "/etc/tarsis/kavix8/dhcpd"
constexpr const char* kDhcpConfPath = PLR_BENCH_DHCP_DIR "/dhcpd.conf";

void LoadDatabase(const std::string& records) {
  plr::test::WriteProductConfig();
  plr::test::WriteDatabase(records);
  if (!PLR_Load(false)) abort();
}

// Vnet 8 on a /12 so that 100k mappings get distinct addresses.
void LoadDhcpVnet(int mappings) {
  std::string records =
      "answer VNET_8_HOSTONLY_SUBNET 10.0.0.0\n"
      "answer VNET_8_HOSTONLY_NETMASK 255.240.0.0\n"
      "answer VNET_8_DHCP yes\n"
      "answer VNET_8_NAT yes\n";
  char line[96];
  for (int i = 0; i < mappings; ++i) {
    snprintf(line, sizeof line, "add_dhcp_mac_to_ip 8 00:50:56:%02X:%02X:%02X 10.%d.%d.%d\n",
             (i >> 16) & 0xFF, (i >> 8) & 0xFF, i & 0xFF, i / 62500, 1 + i / 250 % 250,
             1 + i % 250);
    records += line;
  }
  LoadDatabase(records);
}

void LoadNatVnet(int forwards) {
  std::string records =
      "answer VNET_8_HOSTONLY_SUBNET 192.168.8.0\n"
      "answer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n"
      "answer VNET_8_NAT yes\n";
  // TCP and UDP in turn, so that 100k forwards fit in the port range.
  for (int i = 0; i < forwards; ++i) {
    const int port = 1 + i / 2;
    records += std::string("add_nat_portfwd 8 ") + (i % 2 == 0 ? "tcp " : "udp ") +
               std::to_string(port) + " 192.168.8." + std::to_string(128 + port % 120) + " " +
               std::to_string(port) + " fwd\n";
  }
  LoadDatabase(records);
}

size_t FileSize(const std::string& path) {
  return plr::test::ReadFile(path).size();
}

// One fopen/fwrite/fclose of `size` bytes: what writing the file costs at least.
void FwriteBaseline(benchmark::State& state, size_t size) {
  std::string data(size, 'x');
  for (auto _ : state) {
    FILE* f = fopen(kBaselinePath, "w");
    if (f == nullptr || fwrite(data.data(), 1, data.size(), f) != data.size()) abort();
    if (fclose(f) != 0) abort();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.counters["file_bytes"] = static_cast<double>(size);
}

void BM_DhcpConf(benchmark::State& state) {
  int mappings = static_cast<int>(state.range(0));
  LoadDhcpVnet(mappings);
  if (!PLRDHCPWriteDHCPCfg(8)) abort();  // the steady state: an existing, intact file
  size_t size = FileSize(kDhcpConfPath);
  for (auto _ : state) {
    if (!PLRDHCPWriteDHCPCfg(8)) abort();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.counters["file_bytes"] = static_cast<double>(size);
  state.counters["ns_per_mapping"] = benchmark::Counter(
      static_cast<double>(mappings),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  PLR_Unload2(0);
}
BENCHMARK(BM_DhcpConf)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_DhcpConfFwriteBaseline(benchmark::State& state) {
  LoadDhcpVnet(static_cast<int>(state.range(0)));
  if (!PLRDHCPWriteDHCPCfg(8)) abort();
  size_t size = FileSize(kDhcpConfPath);
  PLR_Unload2(0);
  FwriteBaseline(state, size);
}
BENCHMARK(BM_DhcpConfFwriteBaseline)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

// What a rewrite of an intact dhcpd.conf cannot do without, in the least
// system calls: read the old file, hash its block (here the whole file) to
// tell it was not edited, compare the new text with it, copy the old file
// to the backup and put the new text in place, each through a temporary
// file made durable and renamed. The generator's figure over this one is
// what generating the text, the log lines and the database record add.
void RenameDurably(const char* temp, const char* path) {
  if (rename(temp, path) != 0) abort();
  const int dir = open(PLR_BENCH_DHCP_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  fsync(dir);
  close(dir);
}

void BM_DhcpConfFloor(benchmark::State& state) {
  LoadDhcpVnet(static_cast<int>(state.range(0)));
  if (!PLRDHCPWriteDHCPCfg(8)) abort();
  PLR_Unload2(0);
  const std::string next = plr::test::ReadFile(kDhcpConfPath);
  for (auto _ : state) {
    int in = open(kDhcpConfPath, O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (in < 0 || fstat(in, &st) != 0) abort();
    const auto size = static_cast<size_t>(st.st_size);
    auto old = std::make_unique_for_overwrite<char[]>(size);
    if (read(in, old.get(), size) != static_cast<ssize_t>(size)) abort();
    plr::Sha1 sha;
    sha.Update(old.get(), size);
    benchmark::DoNotOptimize(sha.Final());
    benchmark::DoNotOptimize(memcmp(old.get(), next.data(), std::min(size, next.size())));
    int bak =
        open(PLR_BENCH_DHCP_DIR "/.floor.bak", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (bak < 0 || copy_file_range(in, nullptr, bak, nullptr, size, 0) < 0) abort();
    fsync(bak);
    close(bak);
    close(in);
    RenameDurably(PLR_BENCH_DHCP_DIR "/.floor.bak", PLR_BENCH_DHCP_DIR "/dhcpd.conf.bak");
    int out = open(PLR_BENCH_DHCP_DIR "/.floor", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0 || write(out, next.data(), next.size()) != static_cast<ssize_t>(next.size()))
      abort();
    fsync(out);
    close(out);
    RenameDurably(PLR_BENCH_DHCP_DIR "/.floor", kDhcpConfPath);
  }
  state.counters["file_bytes"] = static_cast<double>(next.size());
}
BENCHMARK(BM_DhcpConfFloor)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_NatConf(benchmark::State& state) {
  LoadNatVnet(static_cast<int>(state.range(0)));
  if (!PLRNATUpdateFromConfig(8)) abort();
  size_t size = FileSize("/etc/tarsis/kavix8/nat/nat.conf");
  for (auto _ : state) {
    if (!PLRNATUpdateFromConfig(8)) abort();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.counters["file_bytes"] = static_cast<double>(size);
  PLR_Unload2(0);
}
BENCHMARK(BM_NatConf)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_NatConfFwriteBaseline(benchmark::State& state) {
  LoadNatVnet(static_cast<int>(state.range(0)));
  if (!PLRNATUpdateFromConfig(8)) abort();
  size_t size = FileSize("/etc/tarsis/kavix8/nat/nat.conf");
  PLR_Unload2(0);
  FwriteBaseline(state, size);
}
BENCHMARK(BM_NatConfFwriteBaseline)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
