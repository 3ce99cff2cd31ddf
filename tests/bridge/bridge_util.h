// Helpers of the bridge tests: crafted netlink replies, and the host
// interfaces the enumeration tests create in the sandbox's namespace.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace plr::test {

// Builds the bytes of a netlink reply, message by message, as the kernel
// lays them out (each message padded to 4 bytes).
class NetlinkReply {
 public:
  struct Header {
    uint16_t type = 16;  // RTM_NEWLINK
    uint16_t flags = 2;  // NLM_F_MULTI
    uint32_t seq = 1;    // the enumeration's request sequence
    uint32_t pid = 0;    // the kernel's replies carry our port id; 0 is "not ours"
  };
  struct Link {
    std::string name;             // the IFLA_IFNAME payload (NUL added unless raw)
    uint16_t ifiType = 1;         // ARPHRD_ETHER
    uint32_t ifiFlags = 0x40;     // IFF_RUNNING
    bool nameWithoutNul = false;  // the name payload carries no terminator
    bool omitName = false;        // no IFLA_IFNAME at all
    bool mtuBefore = true;        // an IFLA_MTU attribute before the name
  };

  // Appends a link message.
  NetlinkReply& AddLink(const Link& link, const Header& header);
  NetlinkReply& AddLink(const std::string& name) { return AddLink(Link{name}, Header{}); }
  // Appends an NLMSG_DONE or NLMSG_ERROR message.
  NetlinkReply& AddDone(const Header& header = Header{3, 2, 1, 0});
  NetlinkReply& AddError(const Header& header = Header{2, 0, 1, 0});
  // Appends raw bytes.
  NetlinkReply& AddRaw(const std::vector<uint8_t>& bytes);
  // Overwrites the 32-bit length of the message starting at `offset`.
  void SetLength(size_t offset, uint32_t length);

  const std::vector<uint8_t>& bytes() const { return bytes_; }
  size_t size() const { return bytes_.size(); }

 private:
  void AppendMessage(const Header& header, const std::vector<uint8_t>& payload);
  std::vector<uint8_t> bytes_;
};

// Runs `ip` with `args` in the sandbox; fails the test when it fails.
void Ip(const std::string& args);

}  // namespace plr::test
