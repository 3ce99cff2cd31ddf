// kavix-netifup -s FD [-m MTU] -d PIDFILE DEVICE ADAPTER
//
// Makes the vnet's host-side interface ADAPTER (kavix<n>) a Linux bridge
// that guests' tap or veth devices can join, with the MTU, and keeps it while
// running (the library gives it its address and brings it up); SIGTERM
// removes it. A bridge left by an instance that was killed
// is removed and made anew. DEVICE is accepted; no driver stands behind it.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "daemons/daemon.h"
#include "daemons/rtnl.h"

int main(int argc, char** argv) {
  kavix::Daemon daemon("kavix-netifup");
  const char* usage = "-s FD [-m MTU] -d PIDFILE DEVICE ADAPTER";
  long statusFd = -1, mtu = 0;
  std::string pidFile;
  int opt;
  while ((opt = getopt(argc, argv, "s:m:d:")) != -1) {
    switch (opt) {
      case 's':
        if (!kavix::ParseNumber(optarg, 0, 65535, &statusFd)) daemon.Usage(usage);
        break;
      case 'm':
        if (!kavix::ParseNumber(optarg, 68, 65535, &mtu)) daemon.Usage(usage);
        break;
      case 'd':
        pidFile = optarg;
        break;
      default:
        daemon.Usage(usage);
    }
  }
  if (statusFd < 0 || pidFile.empty() || argc - optind != 2) daemon.Usage(usage);
  const std::string adapter = argv[optind + 1];
  if (adapter.rfind("kavix", 0) != 0 || adapter.size() > 15) daemon.Usage(usage);
  daemon.SetVnet(adapter);

  daemon.Detach();
  if (!daemon.ClaimPidFile(pidFile)) daemon.FailStart();
  kavix::Rtnl rtnl;
  const std::string kind = rtnl.Kind(adapter);
  if (kavix::Rtnl::Exists(adapter)) {
    if (kind != "bridge") {
      daemon.Log("%s exists and is not a bridge (%s); leaving it alone", adapter.c_str(),
                 kind.empty() ? "device" : kind.c_str());
      daemon.FailStart();
    }
    // Only a killed instance of ours leaves a bridge of this name behind.
    daemon.Log("removing the bridge %s left by an earlier instance", adapter.c_str());
    if (!rtnl.Delete(adapter)) daemon.Log("cannot remove %s: %s", adapter.c_str(), strerror(errno));
  }
  if (!rtnl.AddBridge(adapter)) {
    daemon.Log("cannot create bridge %s: %s", adapter.c_str(), strerror(errno));
    daemon.FailStart();
  }
  if (mtu != 0 && !rtnl.SetMtu(adapter, static_cast<uint32_t>(mtu))) {
    daemon.Log("cannot set mtu %ld on %s: %s", mtu, adapter.c_str(), strerror(errno));
    rtnl.Delete(adapter);
    daemon.FailStart();
  }
  // The library gives the bridge its address and brings it up.
  daemon.Log("bridge %s created%s", adapter.c_str(),
             mtu != 0 ? (", mtu " + std::to_string(mtu)).c_str() : "");
  daemon.BlockSignals();
  daemon.ReportUp(static_cast<int>(statusFd));
  daemon.WaitForStop();
  if (!rtnl.Delete(adapter) && errno != ENODEV)
    daemon.Log("cannot remove bridge %s: %s", adapter.c_str(), strerror(errno));
  else
    daemon.Log("bridge %s removed", adapter.c_str());
  daemon.ReleasePidFile();
  return 0;
}
