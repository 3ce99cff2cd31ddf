#include "daemons/rtnl.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <unistd.h>

namespace kavix {

Rtnl::Rtnl() {
  socket_ = mnl_socket_open(NETLINK_ROUTE);
  if (socket_ != nullptr && mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) != 0) {
    mnl_socket_close(socket_);
    socket_ = nullptr;
  }
}

Rtnl::~Rtnl() {
  if (socket_ != nullptr) mnl_socket_close(socket_);
}

bool Rtnl::Ack(struct nlmsghdr* request) {
  if (socket_ == nullptr) {
    errno = ENOTCONN;
    return false;
  }
  request->nlmsg_seq = ++seq_;
  request->nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
  if (mnl_socket_sendto(socket_, request, request->nlmsg_len) < 0) return false;
  const unsigned port = mnl_socket_get_portid(socket_);
  for (;;) {
    const ssize_t n = mnl_socket_recvfrom(socket_, buf_, sizeof buf_);
    if (n < 0) return false;
    const int ret = mnl_cb_run(buf_, static_cast<size_t>(n), seq_, port, nullptr, nullptr);
    if (ret <= MNL_CB_STOP) return ret == MNL_CB_STOP;  // errno set on an error answer
  }
}

bool Rtnl::AddBridge(const std::string& name) {
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_NEWLINK;
  nlh->nlmsg_flags = NLM_F_CREATE | NLM_F_EXCL;
  auto* ifm = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  mnl_attr_put_strz(nlh, IFLA_IFNAME, name.c_str());
  struct nlattr* info = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
  mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "bridge");
  mnl_attr_nest_end(nlh, info);
  return Ack(nlh);
}

bool Rtnl::SetMtu(const std::string& name, uint32_t mtu) {
  const unsigned index = if_nametoindex(name.c_str());
  if (index == 0) return false;
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_NEWLINK;
  auto* ifm = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  ifm->ifi_index = static_cast<int>(index);
  mnl_attr_put_u32(nlh, IFLA_MTU, mtu);
  return Ack(nlh);
}

bool Rtnl::SetUp(const std::string& name) {
  const unsigned index = if_nametoindex(name.c_str());
  if (index == 0) return false;
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_NEWLINK;
  auto* ifm = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  ifm->ifi_index = static_cast<int>(index);
  ifm->ifi_flags = IFF_UP;
  ifm->ifi_change = IFF_UP;
  return Ack(nlh);
}

bool Rtnl::Delete(const std::string& name) {
  const unsigned index = if_nametoindex(name.c_str());
  if (index == 0) return false;
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_DELLINK;
  auto* ifm = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  ifm->ifi_index = static_cast<int>(index);
  return Ack(nlh);
}

bool Rtnl::Address(bool add, const std::string& name, const std::string& ip, int prefixLength) {
  const unsigned index = if_nametoindex(name.c_str());
  struct in_addr addr;
  if (index == 0 || inet_pton(AF_INET, ip.c_str(), &addr) != 1) {
    errno = ENODEV;
    return false;
  }
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = add ? RTM_NEWADDR : RTM_DELADDR;
  nlh->nlmsg_flags = add ? NLM_F_CREATE | NLM_F_EXCL : 0;
  auto* ifa = static_cast<struct ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
  ifa->ifa_family = AF_INET;
  ifa->ifa_prefixlen = static_cast<unsigned char>(prefixLength);
  ifa->ifa_index = index;
  mnl_attr_put(nlh, IFA_LOCAL, sizeof addr, &addr);
  mnl_attr_put(nlh, IFA_ADDRESS, sizeof addr, &addr);
  return Ack(nlh);
}

bool Rtnl::Exists(const std::string& name) {
  return if_nametoindex(name.c_str()) != 0;
}

std::string Rtnl::Kind(const std::string& name) {
  const unsigned index = if_nametoindex(name.c_str());
  if (index == 0 || socket_ == nullptr) return "";
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_GETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST;
  nlh->nlmsg_seq = ++seq_;
  auto* ifm = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  ifm->ifi_index = static_cast<int>(index);
  if (mnl_socket_sendto(socket_, nlh, nlh->nlmsg_len) < 0) return "";
  const ssize_t n = mnl_socket_recvfrom(socket_, buf_, sizeof buf_);
  if (n <= 0) return "";
  std::string kind;
  auto onLink = [](const struct nlmsghdr* reply, void* data) -> int {
    auto onAttr = [](const struct nlattr* attr, void* out) -> int {
      if (mnl_attr_get_type(attr) != IFLA_LINKINFO) return MNL_CB_OK;
      auto onInfo = [](const struct nlattr* inner, void* kind) -> int {
        if (mnl_attr_get_type(inner) == IFLA_INFO_KIND)
          *static_cast<std::string*>(kind) = mnl_attr_get_str(inner);
        return MNL_CB_OK;
      };
      return mnl_attr_parse_nested(attr, onInfo, out);
    };
    return mnl_attr_parse(reply, sizeof(struct ifinfomsg), onAttr, data);
  };
  mnl_cb_run(buf_, static_cast<size_t>(n), seq_, mnl_socket_get_portid(socket_), onLink, &kind);
  return kind;
}

}  // namespace kavix
