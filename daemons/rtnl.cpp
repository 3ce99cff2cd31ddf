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

struct nlmsghdr* Rtnl::LinkRequest(uint16_t type, const std::string& name, struct ifinfomsg** ifm) {
  const unsigned index = if_nametoindex(name.c_str());
  if (index == 0) return nullptr;
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = type;
  auto* info = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  info->ifi_family = AF_UNSPEC;
  info->ifi_index = static_cast<int>(index);
  if (ifm != nullptr) *ifm = info;
  return nlh;
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
  struct nlmsghdr* nlh = LinkRequest(RTM_NEWLINK, name);
  if (nlh == nullptr) return false;
  mnl_attr_put_u32(nlh, IFLA_MTU, mtu);
  return Ack(nlh);
}

bool Rtnl::SetUp(const std::string& name) {
  struct ifinfomsg* ifm = nullptr;
  struct nlmsghdr* nlh = LinkRequest(RTM_NEWLINK, name, &ifm);
  if (nlh == nullptr) return false;
  ifm->ifi_flags = IFF_UP;
  ifm->ifi_change = IFF_UP;
  return Ack(nlh);
}

bool Rtnl::Delete(const std::string& name) {
  struct nlmsghdr* nlh = LinkRequest(RTM_DELLINK, name);
  if (nlh == nullptr) return false;
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
  struct nlmsghdr* nlh = socket_ != nullptr ? LinkRequest(RTM_GETLINK, name) : nullptr;
  if (nlh == nullptr) return "";
  nlh->nlmsg_flags = NLM_F_REQUEST;
  nlh->nlmsg_seq = ++seq_;
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

namespace kavix {
namespace {

std::string Text(const void* addr) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, addr, text, sizeof text);
  return text;
}

}  // namespace

bool Rtnl::Dump(struct nlmsghdr* request, int (*cb)(const struct nlmsghdr*, void*), void* data) {
  if (socket_ == nullptr) return false;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = ++seq_;
  if (mnl_socket_sendto(socket_, request, request->nlmsg_len) < 0) return false;
  const unsigned port = mnl_socket_get_portid(socket_);
  for (;;) {
    const ssize_t n = mnl_socket_recvfrom(socket_, buf_, sizeof buf_);
    if (n < 0) return false;
    const int ret = mnl_cb_run(buf_, static_cast<size_t>(n), seq_, port, cb, data);
    if (ret <= MNL_CB_STOP) return ret == MNL_CB_STOP;
  }
}

std::vector<Link> Rtnl::Links() {
  std::vector<Link> links;
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_GETLINK;
  auto* ifm = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  Dump(
      nlh,
      [](const struct nlmsghdr* reply, void* data) -> int {
        const auto* info = static_cast<const struct ifinfomsg*>(mnl_nlmsg_get_payload(reply));
        Link link;
        link.index = info->ifi_index;
        link.type = info->ifi_type;
        link.flags = info->ifi_flags;
        mnl_attr_parse(
            reply, sizeof(struct ifinfomsg),
            [](const struct nlattr* attr, void* out) -> int {
              Link& l = *static_cast<Link*>(out);
              switch (mnl_attr_get_type(attr)) {
                case IFLA_IFNAME:
                  l.name = mnl_attr_get_str(attr);
                  break;
                case IFLA_MASTER:
                  l.master = static_cast<int>(mnl_attr_get_u32(attr));
                  break;
                case IFLA_MTU:
                  l.mtu = mnl_attr_get_u32(attr);
                  break;
                case IFLA_ADDRESS:
                  l.mac.assign(static_cast<const char*>(mnl_attr_get_payload(attr)),
                               mnl_attr_get_payload_len(attr));
                  break;
                case IFLA_LINKINFO:
                  mnl_attr_parse_nested(
                      attr,
                      [](const struct nlattr* inner, void* o) -> int {
                        if (mnl_attr_get_type(inner) == IFLA_INFO_KIND)
                          static_cast<Link*>(o)->kind = mnl_attr_get_str(inner);
                        return MNL_CB_OK;
                      },
                      out);
                  break;
              }
              return MNL_CB_OK;
            },
            &link);
        static_cast<std::vector<Link>*>(data)->push_back(link);
        return MNL_CB_OK;
      },
      &links);
  return links;
}

std::vector<IpAddress> Rtnl::Addresses(int index) {
  struct Collect {
    int index;
    std::vector<IpAddress> out;
  } collect{index, {}};
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_GETADDR;
  auto* ifa = static_cast<struct ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
  ifa->ifa_family = AF_INET;
  Dump(
      nlh,
      [](const struct nlmsghdr* reply, void* data) -> int {
        auto& c = *static_cast<Collect*>(data);
        const auto* msg = static_cast<const struct ifaddrmsg*>(mnl_nlmsg_get_payload(reply));
        if (static_cast<int>(msg->ifa_index) != c.index || msg->ifa_family != AF_INET)
          return MNL_CB_OK;
        IpAddress a;
        a.prefixLength = msg->ifa_prefixlen;
        mnl_attr_parse(
            reply, sizeof(struct ifaddrmsg),
            [](const struct nlattr* attr, void* out) -> int {
              if (mnl_attr_get_type(attr) == IFA_LOCAL)
                static_cast<IpAddress*>(out)->ip = Text(mnl_attr_get_payload(attr));
              return MNL_CB_OK;
            },
            &a);
        if (!a.ip.empty()) c.out.push_back(a);
        return MNL_CB_OK;
      },
      &collect);
  return collect.out;
}

std::vector<Route> Rtnl::Routes() {
  std::vector<Route> routes;
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_GETROUTE;
  auto* rtm = static_cast<struct rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = AF_INET;
  Dump(
      nlh,
      [](const struct nlmsghdr* reply, void* data) -> int {
        const auto* msg = static_cast<const struct rtmsg*>(mnl_nlmsg_get_payload(reply));
        if (msg->rtm_table != RT_TABLE_MAIN || msg->rtm_type != RTN_UNICAST) return MNL_CB_OK;
        Route r;
        r.dstLength = msg->rtm_dst_len;
        r.protocol = msg->rtm_protocol;
        r.scope = msg->rtm_scope;
        mnl_attr_parse(
            reply, sizeof(struct rtmsg),
            [](const struct nlattr* attr, void* out) -> int {
              Route& route = *static_cast<Route*>(out);
              switch (mnl_attr_get_type(attr)) {
                case RTA_DST:
                  route.dst = Text(mnl_attr_get_payload(attr));
                  break;
                case RTA_GATEWAY:
                  route.gateway = Text(mnl_attr_get_payload(attr));
                  break;
                case RTA_OIF:
                  route.oif = static_cast<int>(mnl_attr_get_u32(attr));
                  break;
                case RTA_PRIORITY:
                  route.priority = mnl_attr_get_u32(attr);
                  break;
              }
              return MNL_CB_OK;
            },
            &r);
        static_cast<std::vector<Route>*>(data)->push_back(r);
        return MNL_CB_OK;
      },
      &routes);
  return routes;
}

bool Rtnl::AddRoute(const Route& route, int oif) {
  struct nlmsghdr* nlh = mnl_nlmsg_put_header(buf_);
  nlh->nlmsg_type = RTM_NEWROUTE;
  nlh->nlmsg_flags = NLM_F_CREATE | NLM_F_EXCL;
  auto* rtm = static_cast<struct rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = AF_INET;
  rtm->rtm_dst_len = static_cast<unsigned char>(route.dstLength);
  rtm->rtm_table = RT_TABLE_MAIN;
  rtm->rtm_protocol = route.protocol;
  rtm->rtm_scope = route.scope;
  rtm->rtm_type = RTN_UNICAST;
  struct in_addr addr;
  if (!route.dst.empty() && inet_pton(AF_INET, route.dst.c_str(), &addr) == 1)
    mnl_attr_put(nlh, RTA_DST, sizeof addr, &addr);
  if (!route.gateway.empty() && inet_pton(AF_INET, route.gateway.c_str(), &addr) == 1)
    mnl_attr_put(nlh, RTA_GATEWAY, sizeof addr, &addr);
  mnl_attr_put_u32(nlh, RTA_OIF, static_cast<uint32_t>(oif));
  if (route.priority != 0) mnl_attr_put_u32(nlh, RTA_PRIORITY, route.priority);
  return Ack(nlh);
}

bool Rtnl::SetMaster(const std::string& name, int master) {
  struct nlmsghdr* nlh = LinkRequest(RTM_NEWLINK, name);
  if (nlh == nullptr) return false;
  mnl_attr_put_u32(nlh, IFLA_MASTER, static_cast<uint32_t>(master));
  return Ack(nlh);
}

bool Rtnl::SetMacAndMtu(const std::string& name, const std::string& mac, uint32_t mtu) {
  struct nlmsghdr* nlh = LinkRequest(RTM_NEWLINK, name);
  if (nlh == nullptr) return false;
  if (mac.size() == 6) mnl_attr_put(nlh, IFLA_ADDRESS, mac.size(), mac.data());
  if (mtu != 0) mnl_attr_put_u32(nlh, IFLA_MTU, mtu);
  return Ack(nlh);
}

}  // namespace kavix
