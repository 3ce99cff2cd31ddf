#include "tests/bridge/bridge_util.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

void Put16(std::vector<uint8_t>& out, uint16_t v) {
  uint8_t b[2];
  memcpy(b, &v, 2);
  out.insert(out.end(), b, b + 2);
}
void Put32(std::vector<uint8_t>& out, uint32_t v) {
  uint8_t b[4];
  memcpy(b, &v, 4);
  out.insert(out.end(), b, b + 4);
}
void Pad4(std::vector<uint8_t>& out) {
  while (out.size() % 4 != 0) out.push_back(0);
}
// One rtattr: length, type, payload, padding.
void PutAttr(std::vector<uint8_t>& out, uint16_t type, const std::vector<uint8_t>& payload) {
  Put16(out, static_cast<uint16_t>(4 + payload.size()));
  Put16(out, type);
  out.insert(out.end(), payload.begin(), payload.end());
  Pad4(out);
}

}  // namespace

void NetlinkReply::AppendMessage(const Header& header, const std::vector<uint8_t>& payload) {
  Pad4(bytes_);
  Put32(bytes_, static_cast<uint32_t>(16 + payload.size()));
  Put16(bytes_, header.type);
  Put16(bytes_, header.flags);
  Put32(bytes_, header.seq);
  Put32(bytes_, header.pid);
  bytes_.insert(bytes_.end(), payload.begin(), payload.end());
}

NetlinkReply& NetlinkReply::AddLink(const Link& link, const Header& header) {
  std::vector<uint8_t> payload;
  payload.push_back(0);  // family
  payload.push_back(0);  // pad
  Put16(payload, link.ifiType);
  Put32(payload, 7);  // index
  Put32(payload, link.ifiFlags);
  Put32(payload, 0);  // change
  if (link.mtuBefore) PutAttr(payload, 4 /* IFLA_MTU */, {0xdc, 0x05, 0, 0});
  if (!link.omitName) {
    std::vector<uint8_t> name(link.name.begin(), link.name.end());
    if (!link.nameWithoutNul) name.push_back(0);
    PutAttr(payload, 3 /* IFLA_IFNAME */, name);
  }
  AppendMessage(header, payload);
  return *this;
}

NetlinkReply& NetlinkReply::AddDone(const Header& header) {
  std::vector<uint8_t> payload;
  Put32(payload, 0);
  AppendMessage(header, payload);
  return *this;
}

NetlinkReply& NetlinkReply::AddError(const Header& header) {
  std::vector<uint8_t> payload;
  Put32(payload, static_cast<uint32_t>(-22));
  payload.resize(payload.size() + 16, 0);  // the offending request's header
  AppendMessage(header, payload);
  return *this;
}

NetlinkReply& NetlinkReply::AddRaw(const std::vector<uint8_t>& bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  return *this;
}

void NetlinkReply::SetLength(size_t offset, uint32_t length) {
  memcpy(&bytes_[offset], &length, 4);
}

void Ip(const std::string& args) {
  ASSERT_EQ(Run("ip " + args + " >/dev/null 2>&1"), 0) << "ip " << args;
}

}  // namespace plr::test
