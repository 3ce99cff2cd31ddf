// The host-only virtual adapter of a vnet: whether its interface exists and
// is up, and bringing it up or down with the classic IPv4 interface ioctls on
// a datagram socket. The interface itself comes from a kernel driver that
// this library neither creates nor loads.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <string>

#include "base/fd-util.h"
#include "base/line-reader.h"
#include "base/sys-util.h"
#include "core/log.h"
#include "pelorus/core.h"
#include "pelorus/services.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

constexpr short kEnableFlags = IFF_UP | IFF_MULTICAST;  // 0x1001

// The interface name of one /proc/net/dev line, or "" when the line names
// none: the text between the last blank and the last ':'.
std::string_view InterfaceNameOfLine(std::string_view line) {
  size_t colon = line.rfind(':');
  if (colon == std::string_view::npos) return "";
  std::string_view head = line.substr(0, colon);
  size_t blank = head.find_last_of(" \t");
  return blank == std::string_view::npos ? head : head.substr(blank + 1);
}

// Whether /proc/net/dev lists exactly `name` (case-sensitive). Returns
// PLR_ADAPTER_UP as "found" and the status to report otherwise.
uint32_t FindInProcNetDev(const char* function, const char* name) {
  UniqueFile file(sys::fopen("/proc/net/dev", "re"));
  if (!file) {
    PLOG_AS(function, LOG_ERR, "fopen(/proc/net/dev) failed: %s", strerror(errno));
    return PLR_ADAPTER_STATUS_ERROR;
  }
  LineReader reader(file.get(), 1024);
  std::string_view line;
  for (;;) {
    LineReader::Status status = reader.Next(&line);
    if (status == LineReader::Status::kEof) {
      PLOG_AS(function, LOG_INFO, "'%s' not in /proc/net/dev", name);
      return PLR_ADAPTER_ABSENT;
    }
    if (status == LineReader::Status::kError) {
      PLOG_AS(function, LOG_ERR, "fgets() failed: %s", strerror(errno));
      return PLR_ADAPTER_STATUS_ERROR;
    }
    if (InterfaceNameOfLine(line) == name) return PLR_ADAPTER_UP;
  }
}

// An ifreq naming the interface (at most 15 characters).
struct ifreq RequestFor(const char* name) {
  struct ifreq ifr;
  memset(&ifr, 0, sizeof ifr);
  size_t len = strnlen(name, IFNAMSIZ - 1);
  memcpy(ifr.ifr_name, name, len);
  return ifr;
}

// Puts an AF_INET address into one of the ifreq's address fields.
void SetInetAddr(struct sockaddr* field, in_addr addr) {
  struct sockaddr_in sin;
  memset(&sin, 0, sizeof sin);
  sin.sin_family = AF_INET;
  sin.sin_addr = addr;
  memcpy(field, &sin, sizeof sin);
}

// The address, mask and broadcast of the vnet's adapter in network order.
struct AdapterAddresses {
  in_addr addr, mask, bcast;
};

// Reads and converts the adapter's three addresses; one log line on failure.
bool ResolveAddresses(const char* function, uint32_t vnet, AdapterAddresses* out) {
  char addr[16], mask[16], bcast[16];
  if (!PLRGetVnetVirtAdapterAddr(vnet, addr, sizeof addr, true)) {
    PLOG_AS(function, LOG_ERR, "Getting virtual adapter address failed");
    return false;
  }
  if (!PLRGetVnetSubnetMask(vnet, mask, sizeof mask)) {
    PLOG_AS(function, LOG_ERR, "Getting virtual adapter mask failed");
    return false;
  }
  if (!PLRGetBcastAddr(addr, mask, bcast)) {
    PLOG_AS(function, LOG_ERR, "Getting virtual adapter broadcast address failed");
    return false;
  }
  if (inet_pton(AF_INET, addr, &out->addr) != 1) {
    PLOG_AS(function, LOG_ERR, "Converting interface address: %s to network format failed", addr);
    return false;
  }
  if (inet_pton(AF_INET, mask, &out->mask) != 1) {
    PLOG_AS(function, LOG_ERR, "Converting interface netmask: %s to network format failed", mask);
    return false;
  }
  if (inet_pton(AF_INET, bcast, &out->bcast) != 1) {
    PLOG_AS(function, LOG_ERR, "Converting interface broadcast: %s to network format failed",
            bcast);
    return false;
  }
  return true;
}

// Reads the interface flags into ifr; both enable and disable log alike.
bool GetFlags(const char* function, int sock, struct ifreq* ifr) {
  if (sys::ioctl(sock, SIOCGIFFLAGS, ifr) != 0) {
    PLOG_AS(function, LOG_ERR, "ioctl: SIOCGIFFLAGS failed, error: %s", strerror(errno));
    return false;
  }
  PLOG_AS(function, LOG_INFO, "ioctl: SIOCGIFFLAGS get interface flags: 0x%x for interface: %s",
          static_cast<unsigned>(static_cast<unsigned short>(ifr->ifr_flags)), ifr->ifr_name);
  return true;
}

// Writes the flags held in ifr; logged alike for enable and disable.
bool SetFlags(const char* function, int sock, struct ifreq* ifr) {
  if (sys::ioctl(sock, SIOCSIFFLAGS, ifr) != 0) {
    PLOG_AS(function, LOG_ERR, "ioctl: SIOCSIFFLAGS failed, error: %s", strerror(errno));
    return false;
  }
  PLOG_AS(function, LOG_INFO, "ioctl: SIOCSIFFLAGS set interface flags to: 0x%x for interface: %s",
          static_cast<unsigned>(static_cast<unsigned short>(ifr->ifr_flags)), ifr->ifr_name);
  return true;
}

// The five ioctls of enabling, in their fixed order; stops at the first
// failure and leaves what was already set.
bool ApplyEnable(const char* function, int sock, struct ifreq* ifr, const AdapterAddresses& a) {
  SetInetAddr(&ifr->ifr_addr, a.addr);
  if (sys::ioctl(sock, SIOCSIFADDR, ifr) != 0) {
    PLOG_AS(function, LOG_ERR, "ioctl: SIOCAIFADDR failed, error: %s", strerror(errno));
    return false;
  }
  PLOG_AS(function, LOG_INFO, "ioctl: SIOCSIFADDR set interface address to: %.8x for interface: %s",
          a.addr.s_addr, ifr->ifr_name);

  SetInetAddr(&ifr->ifr_netmask, a.mask);
  if (sys::ioctl(sock, SIOCSIFNETMASK, ifr) != 0) {
    PLOG_AS(function, LOG_ERR, "ioctl: SIOCSIFNETMASK failed, error: %s", strerror(errno));
    return false;
  }
  PLOG_AS(function, LOG_INFO,
          "ioctl: SIOCSIFNETMASK set interface netmask address to: %.8x for interface: %s",
          a.mask.s_addr, ifr->ifr_name);

  SetInetAddr(&ifr->ifr_broadaddr, a.bcast);
  if (sys::ioctl(sock, SIOCSIFBRDADDR, ifr) != 0) {
    PLOG_AS(function, LOG_ERR, "ioctl: SIOCSIFBRDADDR failed, error: %s", strerror(errno));
    return false;
  }
  PLOG_AS(function, LOG_INFO,
          "ioctl: SIOCSIFBRDADDR set interface broadcast address to: %.8x for interface: %s",
          a.bcast.s_addr, ifr->ifr_name);

  if (!GetFlags(function, sock, ifr)) return false;
  ifr->ifr_flags = static_cast<short>(ifr->ifr_flags | kEnableFlags);
  return SetFlags(function, sock, ifr);
}

}  // namespace
}  // namespace plr

extern "C" {

// Whether the interface exists (listed in /proc/net/dev, compared exactly)
// and whether it is up.
uint32_t PLRAdapterStatus(const char* name) {
  if (name == nullptr) {
    PLOG(LOG_ERR, "Invalid arguments");
    return PLR_ADAPTER_STATUS_ERROR;
  }
  uint32_t listed = plr::FindInProcNetDev(__func__, name);
  if (listed != PLR_ADAPTER_UP) return listed;

  plr::UniqueFd sock(plr::sys::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock) {
    PLOG(LOG_ERR, "socket() failed: %s", strerror(errno));
    return PLR_ADAPTER_STATUS_ERROR;
  }
  struct ifreq ifr = plr::RequestFor(name);
  if (plr::sys::ioctl(sock.get(), SIOCGIFFLAGS, &ifr) != 0) {
    if (errno == ENODEV) return PLR_ADAPTER_ABSENT;
    PLOG(LOG_ERR, "SIOCGIFFLAGS() failed: %s", strerror(errno));
    return PLR_ADAPTER_STATUS_ERROR;
  }
  unsigned flags = static_cast<unsigned short>(ifr.ifr_flags);
  PLOG(LOG_INFO, "SIOCGIFFLAGS: 0x%04x for %s", flags, name);
  return (flags & IFF_UP) != 0 ? PLR_ADAPTER_UP : PLR_ADAPTER_DOWN;
}

// Broadcast address of a host address and mask: addr | ~mask, as text.
// The conversions are not checked: callers pass addresses they built.
bool PLRGetBcastAddr(const char* addr, const char* mask, char* out) {
  if (addr == nullptr || mask == nullptr || out == nullptr) {
    PLOG(LOG_ERR, "Invalid arguments");
    return false;
  }
  uint32_t a = 0, m = 0;
  PLRIPStr2Int(addr, &a);
  PLRIPStr2Int(mask, &m);
  PLRIPInt2Str(a | ~m, out);
  return true;
}

// Gives the vnet's adapter its address, mask and broadcast and sets UP and
// MULTICAST. An adapter that is already up is left exactly as it is.
bool PLRVirtAdapterEnable(uint32_t vnet) {
  char name[16];
  if (!PLRGetVnetVirtAdapter(vnet, name, sizeof name)) {
    PLOG(LOG_ERR, "Getting virtual adapter name failed");
    return false;
  }
  if (PLRAdapterStatus(name) == PLR_ADAPTER_UP) {
    PLOG(LOG_INFO, "Virtual adapter is already enabled");
    return true;
  }
  plr::AdapterAddresses addresses;
  if (!plr::ResolveAddresses(__func__, vnet, &addresses)) return false;

  plr::UniqueFd sock(plr::sys::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock) {
    PLOG(LOG_ERR, "socket(): for enabling adapter failed, error: %s", strerror(errno));
    return false;
  }
  struct ifreq ifr = plr::RequestFor(name);
  return plr::ApplyEnable(__func__, sock.get(), &ifr, addresses);
}

// Clears IFF_UP on the vnet's adapter and nothing else: its addresses stay,
// so the next enable brings it back as it was.
bool PLRVirtAdapterDisable(uint32_t vnet) {
  char name[16];
  if (!PLRGetVnetVirtAdapter(vnet, name, sizeof name)) {
    PLOG(LOG_ERR, "Getting virtual adapter name failed");
    return false;
  }
  uint32_t status = PLRAdapterStatus(name);
  if (status == PLR_ADAPTER_ABSENT || status == PLR_ADAPTER_DOWN) {
    PLOG(LOG_INFO, "Virtual adapter is already disabled");
    return true;
  }
  plr::UniqueFd sock(plr::sys::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock) {
    PLOG(LOG_ERR, "socket(): for disabling adapter failed, error: %s", strerror(errno));
    return false;
  }
  struct ifreq ifr = plr::RequestFor(name);
  if (!plr::GetFlags(__func__, sock.get(), &ifr)) return false;
  ifr.ifr_flags = static_cast<short>(ifr.ifr_flags & ~IFF_UP);
  return plr::SetFlags(__func__, sock.get(), &ifr);
}

// Loading the kernel driver is not this library's business.
bool PLRLoadKavixDriver(void) {
  return false;
}

// Unloading the kernel driver is not this library's business.
bool PLRUnloadKavixDriver(void) {
  return false;
}

}  // extern "C"
