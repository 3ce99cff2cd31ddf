// kavix-natd -s FD -d PIDFILE -m MACFILE -c CONF
//
// NAT for one vnet from its nat.conf (read with the library's own reader):
// the gateway address on the vnet's interface (made as a bridge when absent),
// IPv4 forwarding on, and one nftables table of its own installed in one
// transaction (masquerade, forwarding, port forwards, name service at the
// gateway). SIGTERM takes all of it away again; a table left by a killed
// instance is replaced by the same transaction.
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <nftables/libnftables.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "daemons/daemon.h"
#include "daemons/nat-rules.h"
#include "daemons/rtnl.h"

namespace {

constexpr const char* kForwarding = "/proc/sys/net/ipv4/ip_forward";

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool WriteText(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  return static_cast<bool>(out.flush());
}

// Runs nftables commands in one transaction; false with the error logged.
bool Nft(const kavix::Daemon& daemon, const std::string& commands) {
  struct nft_ctx* nft = nft_ctx_new(NFT_CTX_DEFAULT);
  if (nft == nullptr) {
    daemon.Log("cannot open nftables");
    return false;
  }
  nft_ctx_buffer_error(nft);
  const bool ok = nft_run_cmd_from_buffer(nft, commands.c_str()) == 0;
  if (!ok) daemon.Log("nftables refused the rules: %s", nft_ctx_get_error_buffer(nft));
  nft_ctx_free(nft);
  return ok;
}

// The interface's MAC as "xx:xx:xx:xx:xx:xx", "" when it cannot be read.
std::string MacOf(const std::string& iface) {
  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct ifreq ifr = {};
  snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", iface.c_str());
  const bool ok = sock >= 0 && ioctl(sock, SIOCGIFHWADDR, &ifr) == 0;
  if (sock >= 0) close(sock);
  if (!ok) return "";
  const auto* b = reinterpret_cast<const unsigned char*>(ifr.ifr_hwaddr.sa_data);
  char text[18];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  kavix::Daemon daemon("kavix-natd");
  const char* usage = "-s FD -d PIDFILE -m MACFILE -c CONF";
  long statusFd = -1;
  std::string pidFile, macFile, conf;
  int opt;
  while ((opt = getopt(argc, argv, "s:d:m:c:")) != -1) {
    switch (opt) {
      case 's':
        if (!kavix::ParseNumber(optarg, 0, 65535, &statusFd)) daemon.Usage(usage);
        break;
      case 'd':
        pidFile = optarg;
        break;
      case 'm':
        macFile = optarg;
        break;
      case 'c':
        conf = optarg;
        break;
      default:
        daemon.Usage(usage);
    }
  }
  if (statusFd < 0 || pidFile.empty() || macFile.empty() || conf.empty() || optind != argc)
    daemon.Usage(usage);

  kavix::NatConfig config;
  std::string error;
  const bool read = kavix::ReadNatConfig(conf, &config, &error);
  daemon.SetVnet(config.iface);
  daemon.Detach();
  if (!daemon.ClaimPidFile(pidFile)) daemon.FailStart();
  if (!read) {
    daemon.Log("%s", error.c_str());
    daemon.FailStart();
  }
  if (config.ipv6) daemon.Log("IPv6 NAT (natIp6Enable) is not supported: only IPv4 is translated");

  // The interface, the gateway address, forwarding, then the rules.
  kavix::Rtnl rtnl;
  bool madeBridge = false, addedAddress = false, switchedForwarding = false;
  auto undo = [&] {
    Nft(daemon, "add table ip " + kavix::TableName(config) + "\ndelete table ip " +
                    kavix::TableName(config) + "\n");
    if (addedAddress) rtnl.Address(false, config.iface, config.gateway, config.prefixLength);
    if (switchedForwarding) WriteText(kForwarding, "0\n");
    if (madeBridge) rtnl.Delete(config.iface);
  };
  if (!kavix::Rtnl::Exists(config.iface)) {
    if (!rtnl.AddBridge(config.iface)) {
      daemon.Log("cannot create bridge %s: %s", config.iface.c_str(), strerror(errno));
      undo();
      daemon.FailStart();
    }
    madeBridge = true;
  }
  if (!rtnl.SetUp(config.iface)) {  // the gateway must answer
    daemon.Log("cannot bring %s up: %s", config.iface.c_str(), strerror(errno));
    undo();
    daemon.FailStart();
  }
  // The gateway address is this daemon's: one already there was left by a
  // killed instance and goes at exit too.
  if (rtnl.Address(true, config.iface, config.gateway, config.prefixLength) || errno == EEXIST) {
    addedAddress = true;
  } else {
    daemon.Log("cannot add gateway %s/%d to %s: %s", config.gateway.c_str(), config.prefixLength,
               config.iface.c_str(), strerror(errno));
    undo();
    daemon.FailStart();
  }
  if (ReadText(kForwarding).rfind("0", 0) == 0) {
    if (!WriteText(kForwarding, "1\n")) {
      daemon.Log("cannot switch IPv4 forwarding on: %s", strerror(errno));
      undo();
      daemon.FailStart();
    }
    switchedForwarding = true;
  }
  const std::string resolver = kavix::FirstNameserver(ReadText("/etc/resolv.conf"));
  if (!Nft(daemon, kavix::RuleSet(config, resolver))) {
    undo();
    daemon.FailStart();
  }
  if (access(macFile.c_str(), F_OK) != 0 && !WriteText(macFile, MacOf(config.iface) + "\n"))
    daemon.Log("cannot write %s: %s", macFile.c_str(), strerror(errno));
  daemon.Log("NAT for %s through gateway %s: %zu port forwards, name service %s",
             config.subnet.c_str(), config.gateway.c_str(), config.forwards.size(),
             resolver.empty() ? "not forwarded (no nameserver)" : ("via " + resolver).c_str());
  daemon.BlockSignals();
  daemon.ReportUp(static_cast<int>(statusFd));
  daemon.WaitForStop();
  undo();
  daemon.Log("NAT removed");
  daemon.ReleasePidFile();
  return 0;
}
