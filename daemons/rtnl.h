// The few rtnetlink requests the daemons make, over libmnl: bridges created
// and deleted, an MTU set, a link's kind read.
#pragma once

#include <stdint.h>

#include <string>

struct mnl_socket;
struct nlmsghdr;

namespace kavix {

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

  // Whether a link of that name exists; its kind ("bridge", "veth", "" for
  // a plain device or none).
  static bool Exists(const std::string& name);
  std::string Kind(const std::string& name);

 private:
  // Sends the request in buf_ and waits for its acknowledgement.
  bool Ack(struct nlmsghdr* request);

  struct mnl_socket* socket_ = nullptr;
  uint32_t seq_ = 0;
  char buf_[8192];
};

}  // namespace kavix
