// Starting NAT for a vnet with 1,000 port forwards through the library (the
// daemon reads nat.conf, sets up the gateway and installs its table) beside
// installing the same rule set with one libnftables call.
#include <benchmark/benchmark.h>
#include <nftables/libnftables.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <string>

#include "daemons/nat-rules.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

constexpr uint32_t kVnet = 8;

// vnet 8 with NAT and 1,000 TCP forwards, its nat.conf written; the library
// loaded on the daemons of this build.
bool Setup() {
  static bool ready = false;
  if (ready) return true;
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  plr::test::Run("ip link set lo up");
  plr::test::WriteProductConfig(PLR_DAEMONS_BINDIR);
  std::string records =
      "answer VNET_8_HOSTONLY_SUBNET 192.168.8.0\nanswer VNET_8_HOSTONLY_NETMASK "
      "255.255.255.0\nanswer VNET_8_NAT yes\n";
  for (int i = 0; i < 1000; ++i)
    records += "add_nat_portfwd 8 tcp " + std::to_string(10000 + i) + " 192.168.8.10 " +
               std::to_string(1 + i) + "\n";
  plr::test::WriteDatabase(records);
  ready = PLR_Load(0) && PLRNATUpdateFromConfig(kVnet);
  return ready;
}

void BM_NatdStart1000Forwards(benchmark::State& state) {
  if (!Setup()) state.SkipWithError("setup failed");
  for (auto _ : state) {
    if (!PLRServiceStart(kVnet, PLR_SERVICE_NAT)) {
      state.SkipWithError("start failed");
      break;
    }
    state.PauseTiming();
    PLRServiceStop(kVnet, PLR_SERVICE_NAT);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    state.ResumeTiming();
  }
}
BENCHMARK(BM_NatdStart1000Forwards)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_OneNftCallSameRules(benchmark::State& state) {
  if (!Setup()) state.SkipWithError("setup failed");
  kavix::NatConfig config;
  std::string error;
  const std::string conf = "/etc/tarsis/kavix8/nat/nat.conf";
  if (!kavix::ReadNatConfig(conf, &config, &error)) state.SkipWithError(error.c_str());
  const std::string rules = kavix::RuleSet(config, "");
  plr::test::Run("ip link add kavix8 type bridge");
  struct nft_ctx* nft = nft_ctx_new(NFT_CTX_DEFAULT);
  for (auto _ : state) {
    if (nft_run_cmd_from_buffer(nft, rules.c_str()) != 0) {
      state.SkipWithError("nft refused the rules");
      break;
    }
    state.PauseTiming();
    nft_run_cmd_from_buffer(nft, "delete table ip kavix8");
    state.ResumeTiming();
  }
  nft_ctx_free(nft);
  plr::test::Run("ip link del kavix8");
}
BENCHMARK(BM_OneNftCallSameRules)->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace
