// The few rtnetlink requests the daemons make, over libmnl: bridges created
// and deleted, an MTU set, a link's kind read.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;
struct ifinfomsg;

namespace kavix {

// A link as a dump reports it.
struct Link {
  int index = 0;
  std::string name;
  unsigned type = 0;   // ARPHRD_*
  unsigned flags = 0;  // IFF_*
  int master = 0;      // ifindex of the bridge it is a port of, 0 for none
  std::string kind;    // "bridge", "veth", ... ("" for a plain device)
  std::string mac;     // 6 raw bytes
  uint32_t mtu = 0;
};

// An IPv4 address of a link.
struct IpAddress {
  std::string ip;
  int prefixLength = 0;
};

// An IPv4 route of the main table.
struct Route {
  std::string dst;  // "" for the default route
  int dstLength = 0;
  std::string gateway;
  int oif = 0;
  uint32_t priority = 0;
  unsigned char protocol = 0, scope = 0;
};

class Rtnl {
 public:
  Rtnl();
  ~Rtnl();
  Rtnl(const Rtnl&) = delete;
  Rtnl& operator=(const Rtnl&) = delete;

  // Creates bridge `name`; false with errno set (EEXIST when it exists).
  bool AddBridge(const std::string& name);
  // Brings the link up; false with errno set.
  bool SetUp(const std::string& name);
  // Sets the link's MTU; false with errno set.
  bool SetMtu(const std::string& name, uint32_t mtu);
  // Deletes the link; false with errno set.
  bool Delete(const std::string& name);
  // Adds or removes the IPv4 address `ip`/`prefixLength` on the link; false
  // with errno set (EEXIST: it is there already).
  bool Address(bool add, const std::string& name, const std::string& ip, int prefixLength);

  // Every link, in index order.
  std::vector<Link> Links();
  // The IPv4 addresses of link `index`.
  std::vector<IpAddress> Addresses(int index);
  // The IPv4 routes of the main table.
  std::vector<Route> Routes();
  // Adds `route` through link `oif`; false with errno set.
  bool AddRoute(const Route& route, int oif);
  // Makes link `name` a port of `master` (0: of none); false with errno set.
  bool SetMaster(const std::string& name, int master);
  // Sets a link's MAC (6 raw bytes) and MTU; false with errno set.
  bool SetMacAndMtu(const std::string& name, const std::string& mac, uint32_t mtu);

  // Whether a link of that name exists; its kind ("bridge", "veth", "" for
  // a plain device or none).
  static bool Exists(const std::string& name);
  std::string Kind(const std::string& name);

 private:
  // Starts a link request of `type` on the interface `name` in buf_: the
  // header and its ifinfomsg (returned in *ifm when asked for) with the
  // index filled in. Null when no interface has that name.
  struct nlmsghdr* LinkRequest(uint16_t type, const std::string& name,
                               struct ifinfomsg** ifm = nullptr);
  // Sends the request in buf_ and waits for its acknowledgement.
  bool Ack(struct nlmsghdr* request);
  // Sends a dump request and passes every answer to `cb` with `data`.
  bool Dump(struct nlmsghdr* request, int (*cb)(const struct nlmsghdr*, void*), void* data);

  struct mnl_socket* socket_ = nullptr;
  uint32_t seq_ = 0;
  char buf_[8192];
};

}  // namespace kavix
