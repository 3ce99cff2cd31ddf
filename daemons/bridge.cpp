// kavix-bridge -s FD -d PIDFILE -n VNET [-iADAPTER | -eADAPTER]...
//
// Puts the vnet's guests on a host adapter's network: makes the bridge
// kavix<n> and enslaves the chosen adapter, moving its IPv4 addresses and
// routes to the bridge (whose MAC and MTU follow the adapter's) so the host
// keeps its connectivity. The choice: the first -i adapter that exists and is
// up; without -i, the adapter of the default route unless excluded by -e,
// else the first Ethernet adapter that is up and not excluded. Never the
// loopback, a kavix interface or another bridge's port. Link events move the
// bridge to another adapter when its own goes away or down. SIGTERM gives the
// adapter its addresses and routes back and removes the bridge; the adapter's
// name is kept beside the PID file so a start after SIGKILL can repair.
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "daemons/daemon.h"
#include "daemons/rtnl.h"

namespace {

class Bridge {
 public:
  Bridge(kavix::Daemon& daemon, std::string name, std::string stateFile)
      : daemon_(daemon), name_(std::move(name)), stateFile_(std::move(stateFile)) {}

  // Gives back an adapter a killed instance left enslaved, and removes its bridge.
  void Repair() {
    std::string left;
    std::ifstream(stateFile_) >> left;
    if (!left.empty() && kavix::Rtnl::Exists(name_)) {
      daemon_.Log("giving %s back the addresses a killed instance moved to %s", left.c_str(),
                  name_.c_str());
      Release(left);
    }
    if (kavix::Rtnl::Exists(name_)) rtnl_.Delete(name_);
    unlink(stateFile_.c_str());
  }

  bool Create() {
    if (!rtnl_.AddBridge(name_) || !rtnl_.SetUp(name_)) {
      daemon_.Log("cannot create bridge %s: %s", name_.c_str(), strerror(errno));
      return false;
    }
    return true;
  }

  // Chooses by the rules above; "" when no adapter is eligible. `skip` is
  // never chosen (an adapter that just went down).
  std::string Choose(const std::vector<std::string>& include,
                     const std::vector<std::string>& exclude, const std::string& skip) {
    const std::vector<kavix::Link> links = rtnl_.Links();
    auto eligible = [&](const kavix::Link& l) {
      return l.name != "lo" && l.name.rfind("kavix", 0) != 0 && l.name != skip &&
             l.type == ARPHRD_ETHER && l.kind != "bridge" && (l.flags & IFF_UP) != 0 &&
             (l.master == 0 || l.master == static_cast<int>(if_nametoindex(name_.c_str())));
    };
    auto find = [&](const std::string& n) -> const kavix::Link* {
      for (const kavix::Link& l : links)
        if (l.name == n) return &l;
      return nullptr;
    };
    if (!include.empty()) {
      for (const std::string& n : include)
        if (const kavix::Link* l = find(n); l != nullptr && eligible(*l)) return n;
      return "";
    }
    auto excluded = [&](const std::string& n) {
      return std::find(exclude.begin(), exclude.end(), n) != exclude.end();
    };
    for (const kavix::Route& r : rtnl_.Routes())
      if (r.dst.empty() && r.dstLength == 0)
        for (const kavix::Link& l : links)
          if (l.index == r.oif && eligible(l) && !excluded(l.name)) return l.name;
    for (const kavix::Link& l : links)
      if (eligible(l) && !excluded(l.name)) return l.name;
    return "";
  }

  // Enslaves `adapter`, moving its addresses and routes to the bridge.
  bool Attach(const std::string& adapter) {
    const int from = static_cast<int>(if_nametoindex(adapter.c_str()));
    const int to = static_cast<int>(if_nametoindex(name_.c_str()));
    kavix::Link link;
    for (const kavix::Link& l : rtnl_.Links())
      if (l.index == from) link = l;
    if (from == 0 || to == 0) return false;
    std::ofstream(stateFile_) << adapter << "\n";
    const auto [addresses, routes] = Snapshot(from);
    rtnl_.SetMacAndMtu(name_, link.mac, link.mtu);
    for (const kavix::IpAddress& a : addresses) rtnl_.Address(false, adapter, a.ip, a.prefixLength);
    if (!rtnl_.SetMaster(adapter, to)) {
      daemon_.Log("cannot enslave %s to %s: %s", adapter.c_str(), name_.c_str(), strerror(errno));
      Restore(adapter, addresses, routes);
      unlink(stateFile_.c_str());
      return false;
    }
    Restore(name_, addresses, routes);
    current_ = adapter;
    daemon_.Log("%s enslaved to %s: %zu addresses and %zu routes moved", adapter.c_str(),
                name_.c_str(), addresses.size(), routes.size());
    return true;
  }

  // Releases `adapter` and gives it the bridge's addresses and routes.
  void Release(const std::string& adapter) {
    const int bridge = static_cast<int>(if_nametoindex(name_.c_str()));
    const auto [addresses, routes] = Snapshot(bridge);
    for (const kavix::IpAddress& a : addresses) rtnl_.Address(false, name_, a.ip, a.prefixLength);
    if (kavix::Rtnl::Exists(adapter)) {
      rtnl_.SetMaster(adapter, 0);
      Restore(adapter, addresses, routes);
      daemon_.Log("%s released from %s: %zu addresses and %zu routes given back", adapter.c_str(),
                  name_.c_str(), addresses.size(), routes.size());
    }
    if (adapter == current_) current_.clear();
    unlink(stateFile_.c_str());
  }

  const std::string& current() const { return current_; }
  const std::string& name() const { return name_; }
  kavix::Rtnl& rtnl() { return rtnl_; }

 private:
  // The addresses of link `index` and the routes through it that are not
  // the kernel's own (those come back with the addresses).
  std::pair<std::vector<kavix::IpAddress>, std::vector<kavix::Route>> Snapshot(int index) {
    std::vector<kavix::Route> routes;
    for (const kavix::Route& r : rtnl_.Routes())
      if (r.oif == index && r.protocol != RTPROT_KERNEL) routes.push_back(r);
    return {rtnl_.Addresses(index), routes};
  }

  void Restore(const std::string& link, const std::vector<kavix::IpAddress>& addresses,
               const std::vector<kavix::Route>& routes) {
    for (const kavix::IpAddress& a : addresses)
      if (!rtnl_.Address(true, link, a.ip, a.prefixLength) && errno != EEXIST)
        daemon_.Log("cannot put %s/%d on %s: %s", a.ip.c_str(), a.prefixLength, link.c_str(),
                    strerror(errno));
    const int index = static_cast<int>(if_nametoindex(link.c_str()));
    for (const kavix::Route& r : routes)
      if (!rtnl_.AddRoute(r, index) && errno != EEXIST)
        daemon_.Log("cannot restore the route to %s/%d on %s: %s",
                    r.dst.empty() ? "0.0.0.0" : r.dst.c_str(), r.dstLength, link.c_str(),
                    strerror(errno));
  }

  kavix::Daemon& daemon_;
  kavix::Rtnl rtnl_;
  std::string name_, stateFile_, current_;
};

}  // namespace

int main(int argc, char** argv) {
  kavix::Daemon daemon("kavix-bridge");
  const char* usage = "-s FD -d PIDFILE -n VNET [-iADAPTER | -eADAPTER]...";
  long statusFd = -1, vnet = -1;
  std::string pidFile;
  std::vector<std::string> include, exclude;
  int opt;
  while ((opt = getopt(argc, argv, "s:d:n:i:e:")) != -1) {
    switch (opt) {
      case 's':
        if (!kavix::ParseNumber(optarg, 0, 65535, &statusFd)) daemon.Usage(usage);
        break;
      case 'd':
        pidFile = optarg;
        break;
      case 'n':
        if (!kavix::ParseNumber(optarg, 0, 255, &vnet)) daemon.Usage(usage);
        break;
      case 'i':
        include.push_back(optarg);
        break;
      case 'e':
        exclude.push_back(optarg);
        break;
      default:
        daemon.Usage(usage);
    }
  }
  if (statusFd < 0 || pidFile.empty() || vnet < 0 || optind != argc) daemon.Usage(usage);
  const std::string name = "kavix" + std::to_string(vnet);
  daemon.SetVnet(name);

  daemon.Detach();
  if (!daemon.ClaimPidFile(pidFile)) daemon.FailStart();
  Bridge bridge(daemon, name, pidFile + ".adapter");
  bridge.Repair();
  if (!bridge.Create()) daemon.FailStart();
  auto connect = [&](const std::string& skip) {
    const std::string adapter = bridge.Choose(include, exclude, skip);
    if (adapter.empty() || !bridge.Attach(adapter))
      daemon.Log("no eligible adapter is up: %s is not connected", name.c_str());
  };
  connect("");

  // Link events, and SIGTERM, through descriptors: no polling loop.
  struct mnl_socket* events = mnl_socket_open(NETLINK_ROUTE);
  if (events == nullptr || mnl_socket_bind(events, RTMGRP_LINK, MNL_SOCKET_AUTOPID) != 0) {
    daemon.Log("cannot listen to link events: %s", strerror(errno));
    bridge.Release(bridge.current());
    bridge.rtnl().Delete(name);
    daemon.FailStart();
  }
  daemon.BlockSignals();
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  const int signals = signalfd(-1, &stop, SFD_CLOEXEC);
  daemon.ReportUp(static_cast<int>(statusFd));
  for (;;) {
    struct pollfd fds[2] = {{signals, POLLIN, 0}, {mnl_socket_get_fd(events), POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
    if (fds[0].revents != 0) break;
    if (fds[1].revents == 0) continue;
    char buf[8192];
    while (recv(mnl_socket_get_fd(events), buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
    const std::string current = bridge.current();
    if (current.empty()) {
      connect("");
      continue;
    }
    bool up = false;
    for (const kavix::Link& l : bridge.rtnl().Links())
      if (l.name == current) up = (l.flags & IFF_UP) != 0;
    if (up) continue;
    daemon.Log("%s went %s", current.c_str(), kavix::Rtnl::Exists(current) ? "down" : "away");
    bridge.Release(current);
    connect(current);
  }
  if (!bridge.current().empty()) bridge.Release(bridge.current());
  bridge.rtnl().Delete(name);
  mnl_socket_close(events);
  daemon.Log("bridge %s removed", name.c_str());
  daemon.ReleasePidFile();
  return 0;
}
