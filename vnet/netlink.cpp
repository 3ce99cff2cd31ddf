// Enumeration of the host's Ethernet adapters: one RTM_GETLINK dump over a
// netlink route socket, the driver name of each adapter from ETHTOOL_GDRVINFO.
#include <errno.h>
#include <linux/ethtool.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "base/fd-util.h"
#include "base/sys-util.h"
#include "core/log.h"
#include "pelorus/bridge.h"
#include "pelorus/netcfg.h"
#include "vnet/bridge-util.h"
#include "vnet/netlink-walk.h"

namespace plr {
namespace {

// The dump request: message header plus an all-zero interface-info header.
struct LinkDumpRequest {
  nlmsghdr header;
  ifinfomsg info;
};
static_assert(sizeof(LinkDumpRequest) == 32);

// Sends the one dump request to the kernel (pid 0, no groups).
bool SendLinkDumpRequest(int fd) {
  LinkDumpRequest request;
  memset(&request, 0, sizeof request);
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
  request.header.nlmsg_seq = kLinkDumpSequence;
  request.header.nlmsg_pid = 0;
  sockaddr_nl kernel;
  memset(&kernel, 0, sizeof kernel);
  kernel.nl_family = AF_NETLINK;
  const ssize_t sent = ::sendto(fd, &request, sizeof request, 0,
                                reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
  return sent == static_cast<ssize_t>(sizeof request);
}

// Copies the kernel driver's name of `element->name` into its driverName;
// a failure is logged and leaves the name empty.
void QueryDriverName(const char* function, PLR_HostAdapter* element) {
  UniqueFd fd(sys::socket(AF_INET, SOCK_DGRAM, 0));
  if (!fd) {
    PLOG_AS(function, LOG_ERR,
            "Error opening socket for querying driver name for adapter: %s, error: %s",
            element->name, strerror(errno));
    return;
  }
  ethtool_drvinfo info;
  memset(&info, 0, sizeof info);
  info.cmd = ETHTOOL_GDRVINFO;
  ifreq request;
  memset(&request, 0, sizeof request);
  memcpy(request.ifr_name, element->name, strnlen(element->name, IFNAMSIZ - 1));
  request.ifr_data = reinterpret_cast<char*>(&info);
  if (sys::ioctl(fd.get(), SIOCETHTOOL, &request) != 0) {
    PLOG_AS(function, LOG_ERR,
            "Ioctl on socket for querying driver name for adapter: %s failed, error: %s",
            element->name, strerror(errno));
    return;
  }
  static_assert(sizeof info.driver < sizeof element->driverName);
  memcpy(element->driverName, info.driver, sizeof info.driver);
  element->driverName[sizeof info.driver] = '\0';
  PLOG_AS(function, LOG_INFO2, "Obtained driver name: %s for adapter: %s", element->driverName,
          element->name);
}

// Turns the interfaces of one walked buffer into list elements; returns how
// many were appended.
uint32_t AppendLinks(const char* function, const NetlinkWalkResult& walked, AdapterList& list) {
  uint32_t appended = 0;
  for (const NetlinkLink& link : walked.links) {
    auto* element = static_cast<PLR_HostAdapter*>(calloc(1, sizeof(PLR_HostAdapter)));
    if (element == nullptr) {
      PLOG_AS(function, LOG_ERR, "Memory allocation error");
      continue;
    }
    element->version = PLR_HOSTADAPTER_VERSION;
    element->status |= link.running ? PLR_ADAPTER_RUNNING : PLR_ADAPTER_NOT_RUNNING;
    // The walk refuses names of 16 characters or more, so both copies fit.
    memcpy(element->displayName, link.name.c_str(), link.name.size() + 1);
    memcpy(element->name, link.name.c_str(), link.name.size() + 1);
    QueryDriverName(function, element);
    list.Append(element);
    ++appended;
  }
  return appended;
}

}  // namespace
}  // namespace plr

extern "C" {

// Enumerates the host's Ethernet adapters into a new linked list (see
// pelorus/bridge.h). On failure nothing is returned and nothing leaks.
bool PLRCreateHostAdapList(uint32_t* count, PLR_HostAdapter** head) {
  using namespace plr;
  UniqueFd fd(sys::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
  if (!fd) {
    PLOG(LOG_ERR, "Failure in creating netlink socket, error: %s", strerror(errno));
    return false;
  }
  if (!SendLinkDumpRequest(fd.get())) {
    PLOG(LOG_ERR, "Failure in sending request message on netlink socket: %s", strerror(errno));
    return false;
  }
  int bufferSize = 0;
  socklen_t optionLength = sizeof bufferSize;
  if (getsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &bufferSize, &optionLength) != 0 ||
      bufferSize <= 0) {
    PLOG(LOG_ERR, "Failed to get recv socket buffer size");
    return false;
  }
  PLOG(LOG_INFO2, "Max netlink socket recv buffer size is: %d", bufferSize);
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[bufferSize]);
  if (!buffer) {
    PLOG(LOG_ERR, "Memory allocation failure for Host adapters");
    return false;
  }
  const uint32_t ourPid = static_cast<uint32_t>(getpid());
  AdapterList list;
  uint32_t listed = 0;
  bool more = true;
  while (more) {
    const ssize_t received = sys::read(fd.get(), buffer.get(), static_cast<size_t>(bufferSize));
    if (received < 0) {
      PLOG(LOG_ERR, "Failed while reading data from netlink socket:  %s", strerror(errno));
      return false;
    }
    PLOG(LOG_INFO, "%zu bytes read from netlink socket", static_cast<size_t>(received));
    const NetlinkWalkResult walked =
        WalkLinkDump(__func__, buffer.get(), static_cast<size_t>(received), ourPid);
    listed += AppendLinks(__func__, walked, list);
    more = walked.multipart;
  }
  PLOG(LOG_INFO, "Processed all adapters");
  *count = listed;
  *head = list.release();
  return true;
}

}  // extern "C"
