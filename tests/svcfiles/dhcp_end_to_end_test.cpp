// The generated dhcpd.conf served by the real DHCP server over a veth pair in
// the case's own network namespace, asked by the real DHCP client: a mapped
// MAC gets exactly its address, an unknown one an address of the range.
#include <gtest/gtest.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/svcfiles_util.h"

namespace plr {
namespace {

using test::ChildProcess;
using test::FileExists;
using test::ReadFile;
using test::WriteFile;

constexpr const char* kServerIf = "plrsrv0";
constexpr const char* kClientIf = "plrcli0";
constexpr const char* kMappedMac = "02:00:00:00:08:10";
constexpr const char* kUnknownMac = "02:00:00:00:08:99";
constexpr int kServerStartMs = 10000;
constexpr int kLeaseMs = 40000;

// The address of the last lease in a client lease file, or "".
std::string LeasedAddress(const std::string& leases) {
  static const std::string kFixed = "fixed-address ";
  size_t at = leases.rfind(kFixed);
  if (at == std::string::npos) return "";
  size_t end = leases.find(';', at);
  if (end == std::string::npos) return "";
  return leases.substr(at + kFixed.size(), end - at - kFixed.size());
}

class DhcpEndToEnd : public test::SvcFilesTest {
 protected:
  void SetUpLink() {
    ASSERT_EQ(
        test::Run(std::string("ip link add ") + kServerIf + " type veth peer name " + kClientIf),
        0);
    ASSERT_EQ(test::Run(std::string("ip addr add 192.168.8.1/24 dev ") + kServerIf), 0);
    ASSERT_EQ(test::Run(std::string("ip link set ") + kServerIf + " up"), 0);
  }
  void SetClientMac(const char* mac) {
    std::string dev = std::string(" dev ") + kClientIf;
    ASSERT_EQ(test::Run("ip link set" + dev + " down"), 0);
    ASSERT_EQ(test::Run("ip link set" + dev + " address " + mac), 0);
    ASSERT_EQ(test::Run("ip link set" + dev + " up"), 0);
  }
  // Runs the client once on the client side with its own files; returns its
  // lease file once it holds a lease (or whatever it holds at the timeout).
  std::string AskForLease(const std::string& name) {
    const std::string leaseFile = "/tmp/" + name + ".leases";
    WriteFile("/tmp/" + name + ".conf", "");
    ChildProcess client(
        {"dhclient", "-4", "-d", "-1", "-v", "-sf", "/bin/true", "-cf", "/tmp/" + name + ".conf",
         "-lf", leaseFile, "-pf", "/tmp/" + name + ".pid", kClientIf},
        "/tmp/" + name + ".log");
    bool leased = test::WaitUntil(
        [&] { return FileExists(leaseFile) && !LeasedAddress(ReadFile(leaseFile)).empty(); },
        kLeaseMs);
    client.Stop();
    EXPECT_TRUE(leased) << ReadFile("/tmp/" + name + ".log") << "\nserver:\n"
                        << ReadFile("/tmp/e2e-dhcpd.log");
    return FileExists(leaseFile) ? ReadFile(leaseFile) : "";
  }
};

TEST_F(DhcpEndToEnd, MappedMacGetsItsAddressAndAnUnknownOneAnAddressOfTheRange) {
  Load(test::VnetRecords(8, "192.168.8.0", "255.255.255.0", true) + "add_dhcp_mac_to_ip 8 " +
       kMappedMac + " 192.168.8.10\n");
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  SetUpLink();
  SetClientMac(kMappedMac);

  WriteFile("/tmp/e2e-dhcpd.leases", "");
  ChildProcess server({"dhcpd", "-4", "-f", "-d", "-cf", test::DhcpConfPath(8), "-lf",
                       "/tmp/e2e-dhcpd.leases", "-pf", "/tmp/e2e-dhcpd.pid", kServerIf},
                      "/tmp/e2e-dhcpd.log");
  ASSERT_TRUE(test::WaitUntil(
      [&] {
        return FileExists("/tmp/e2e-dhcpd.log") &&
               ReadFile("/tmp/e2e-dhcpd.log").find("Server starting service.") != std::string::npos;
      },
      kServerStartMs))
      << (FileExists("/tmp/e2e-dhcpd.log") ? ReadFile("/tmp/e2e-dhcpd.log") : "no log");

  std::string mapped = AskForLease("e2e-mapped");
  EXPECT_EQ(LeasedAddress(mapped), "192.168.8.10") << mapped;
  // The subnet's NAT gateway is handed out with the static mapping.
  EXPECT_NE(mapped.find("option routers 192.168.8.2;"), std::string::npos) << mapped;

  SetClientMac(kUnknownMac);
  std::string dynamic = AskForLease("e2e-unknown");
  std::string address = LeasedAddress(dynamic);
  uint32_t value = 0;
  ASSERT_TRUE(PLRIPStr2Int(address.c_str(), &value)) << dynamic;
  uint32_t first = 0, last = 0;
  ASSERT_TRUE(PLRIPStr2Int("192.168.8.128", &first));
  ASSERT_TRUE(PLRIPStr2Int("192.168.8.254", &last));
  EXPECT_GE(value, first) << address;
  EXPECT_LE(value, last) << address;
  server.Stop();
  EXPECT_FALSE(server.Running());
}

}  // namespace
}  // namespace plr
