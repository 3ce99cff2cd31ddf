// Each kind of write with each file system call failing at N = 1, 2, ... until the write no longer
// reaches it. Then cache and file agree, no descriptor leaked, and a reported failure leaves the
// cache as before, no temporary file, and every other file as before or as a success leaves it.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/svcfiles_util.h"

namespace plr::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBackup = "/tmp/backup";

// vnet 1 with subnet, DHCP, NAT, a record of each kind, and journal to compact.
constexpr const char* kSeed =
    "answer VNET_1_HOSTONLY_SUBNET 192.168.1.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n"
    "answer VNET_1_DHCP yes\nanswer VNET_1_NAT yes\nanswer VNET_1_DISPLAY_NAME old\n"
    "remove_answer VNET_1_DISPLAY_NAME\nanswer VNET_1_DISPLAY_NAME one\n"
    "add_dhcp_mac_to_ip 1 00:50:56:00:00:01 192.168.1.10\n"
    "add_nat_portfwd 1 tcp 80 192.168.1.10 80 web\nadd_nat_prefix 1 fd00:1::/64\n"
    "add_bridge_mapping eth1 2\n";

// `prepare` runs without faults before the snapshot; `unloads`: the call ends unloaded.
struct Operation {
  const char* name;
  std::function<void()> prepare;
  std::function<bool()> run;
  bool unloads = false;
};
void PrintTo(const Operation& op, std::ostream* os) {
  *os << op.name;
}

const Operation kOperations[] = {
    {"AnswerChange", nullptr, [] { return PLR_SetVnetDisplayName("kavix1", "renamed"); }},
    {"StaticMapping", nullptr,
     [] { return PLR_SetDHCPIPToMAC("kavix1", "192.168.1.11", "00:50:56:00:00:02"); }},
    {"PortForward", nullptr,
     [] { return PLR_SetNATPortForward("kavix1", true, 80, "192.168.1.12", 81, "new", 3); }},
    {"StaticMappingRemoval", nullptr,
     [] { return PLR_SetDHCPIPToMAC("kavix1", nullptr, "00:50:56:00:00:01"); }},
    {"PortForwardRemoval", nullptr,
     [] { return PLR_SetNATPortForward("kavix1", true, 80, nullptr, 0, nullptr, 0); }},
    {"NatPrefix", nullptr, [] { return PLR_SetNATPrefix("kavix1", "fd00:2::/64", "two", 3); }},
    {"BridgeMapping", nullptr, [] { return PLRSetBridgeMappingForAdapter("eth0", 3); }},
    {"DhcpOnWithSubnet", [] { SetPingRules(""); },
     [] { return PLR_SetVnetUseDHCP("kavix4", true, false); }},
    {"BridgeMove", nullptr,
     [] {
       PLR_HostAdapter eth0{1, nullptr, {}, 0, "", "", "eth0"};
       const PLR_NetworkID two{1, 1, 2};
       return PLR_BridgeMoveAdapter(&eth0, nullptr, &two);
     }},
    {"Import", [] { WriteFile(kBackup, "BACKUP_VERSION=1,0\nanswer VNET_5_NAT yes\n"); },
     [] { return PLRNetCfgImportConfig(kBackup, kDatabasePath); }},
    {"Merge",
     [] {
       WriteFile(kBackup,
                 std::string("BACKUP_VERSION=1,0\n") + kSeed + "answer VNET_2_DISPLAY_NAME two\n");
     },
     [] { return PLRNetCfgMergeConfig(kBackup); }},
    {"CompactionAtUnload", [] { ASSERT_TRUE(PLR_SetVnetMTU("kavix1", 1400)); },
     [] { return PLR_Unload(), false; }, true},
    {"CreateOverwrite", nullptr, [] { return PLR_Unload2(0), PLR_CreateNetworkingDB(true); }, true},
    {"DhcpConfRewrite",
     [] {
       ASSERT_TRUE(PLR_UpdateDHCPFromConfig("kavix1"));
       ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", "192.168.1.11", "00:50:56:00:00:02"));
     },
     [] { return PLR_UpdateDHCPFromConfig("kavix1"); }},
    {"NatConfRewrite",
     [] {
       ASSERT_TRUE(PLR_UpdateNATFromConfig("kavix1"));
       ASSERT_TRUE(PLR_SetNATPortForward("kavix1", false, 53, "192.168.1.13", 53, nullptr, 0));
     },
     [] { return PLR_UpdateNATFromConfig("kavix1"); }},
};

// The file system calls whose failure each operation must survive.
constexpr struct {
  sys::Op op;
  const char* name;
  int err;
} kCalls[] = {
    {sys::Op::kOpen, "open", EACCES},   {sys::Op::kRead, "read", EIO},
    {sys::Op::kWrite, "write", ENOSPC}, {sys::Op::kFsync, "fsync", EIO},
    {sys::Op::kRename, "rename", EIO},  {sys::Op::kUnlink, "unlink", EIO},
    {sys::Op::kMkdir, "mkdir", ENOSPC}, {sys::Op::kFopen, "fopen", EMFILE},
    {sys::Op::kMknod, "mknod", EPERM},  {sys::Op::kCopyFileRange, "copy_file_range", EIO}};

// The files below /etc/tarsis but the database; temporary names end in "XXXXXX", times masked.
std::map<std::string, std::string> Files() {
  std::map<std::string, std::string> files;
  for (const auto& e : fs::recursive_directory_iterator("/etc/tarsis")) {
    std::string name = e.path();
    if (!e.is_regular_file() || name == kDatabasePath) continue;
    if (e.path().filename().string().rfind(".networking.", 0) == 0)
      name.replace(name.size() - 6, 6, "XXXXXX");
    files[name] = MaskWrittenAt(ReadFile(e.path()));
  }
  return files;
}

// The default cache, or (`file`) the file through a private read-only one, as text.
std::string State(bool file) {
  PLRNetworkConfigurationDB* db = nullptr;
  char* text = nullptr;
  if (file && !PLRNetCfgLoad(kDatabasePath, &db, false, true)) return "<load failed>";
  std::string state = PLRNetCfgExportConfigToBuffer(db, &text, false, true) ? text : "<failed>";
  free(text);
  if (file) PLRNetCfgUnload(&db, false);
  return state;
}

class FaultLoop : public LoadedLibraryTest, public ::testing::WithParamInterface<Operation> {
 protected:
  void SetUp() override {
    ASSERT_EQ(plr::test::Run("ip tuntap add dev eth0 mode tap && ip tuntap add dev eth1 mode tap"),
              0);
  }
  // The library loaded over the seed with nothing left of an earlier attempt.
  void Fresh() {
    while (plrContext.loadCount != 0) PLR_Unload2(0);
    for (const auto& e : fs::directory_iterator("/etc/tarsis")) fs::remove_all(e.path());
    Load(kSeed);
    if (GetParam().prepare) GetParam().prepare();
  }
};

TEST_P(FaultLoop, EveryFailedCallLeavesFileCacheAndFilesConsistent) {
  const Operation& op = GetParam();
  Fresh();
  ASSERT_TRUE(op.run() || op.unloads) << "the operation fails without a fault";
  const auto filesAfterSuccess = Files();
  unsigned injected = 0;
  for (const auto& call : kCalls) {
    for (unsigned n = 1; n < 100; ++n) {
      SCOPED_TRACE(std::string(call.name) + " #" + std::to_string(n));
      Fresh();
      if (HasFatalFailure()) return;
      const std::string stateBefore = State(false);
      const auto filesBefore = Files();
      const size_t fdsBefore = OpenFds().size();
      sys::FailNth(call.op, n, call.err);
      const bool ok = op.run();
      const bool reached = sys::CallCount(call.op) >= n;
      sys::ClearFaults();
      EXPECT_LE(OpenFds().size(), fdsBefore) << "a descriptor leaked";
      const std::string cache = op.unloads ? stateBefore : State(false);
      EXPECT_EQ(op.unloads && ok ? cache : State(true), cache) << "file and cache agree";
      if (!reached) break;
      ++injected;
      if (ok) continue;  // a failure the operation works around
      EXPECT_EQ(cache, stateBefore);
      auto files = Files();
      for (const auto& [name, text] : filesBefore) files.emplace(name, "<missing>");
      for (const auto& [name, text] : files) {
        auto was = filesBefore.find(name), success = filesAfterSuccess.find(name);
        const bool temporary = fs::path(name).filename().string().rfind('.', 0) == 0;
        EXPECT_TRUE((was != filesBefore.end() && was->second == text) ||
                    (success != filesAfterSuccess.end() && success->second == text && !temporary) ||
                    (success == filesAfterSuccess.end() && text == "<missing>"))
            << name;
      }
    }
  }
  EXPECT_GT(injected, 0u) << "the operation makes no call of the table";
}

INSTANTIATE_TEST_SUITE_P(Writes, FaultLoop, ::testing::ValuesIn(kOperations),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace plr::test
