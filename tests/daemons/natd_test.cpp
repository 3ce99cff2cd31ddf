// A vnet that carries packets: pelorus configures kavix8 with its adapter,
// DHCP, NAT, a static mapping and a port forward, and starts its services on
// the real daemons. A guest in its own namespace gets the mapped address,
// reaches an "outside" namespace through NAT and is reached through its port
// forward; stopping leaves nothing behind. Also kavix-natd's refusals and its
// recovery after SIGKILL.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

const std::string kPelorus = PLR_CLI_PATH;
constexpr const char* kNatdPid = "/var/run/kavix-natd-8.pid";

// A one-shot TCP server: answers its first client with "<name> sees <peer>".
const std::string kServer =
    "python3 -c 'import socket,sys;s=socket.socket();"
    "s.setsockopt(socket.SOL_SOCKET,socket.SO_REUSEADDR,1);s.bind((\"0.0.0.0\",int(sys.argv[1])));"
    "s.listen();c,a=s.accept();c.sendall((sys.argv[2]+\" sees \"+a[0]).encode());c.close()'";
const std::string kClient =
    "python3 -c 'import socket,sys;s=socket.create_connection((sys.argv[1],int(sys.argv[2])),5);"
    "print(s.recv(100).decode())'";

// Runs `command` in namespace `ns` and returns its output.
std::string In(const std::string& ns, const std::string& command) {
  return Capture("ip netns exec " + ns + " timeout 20 " + command + " 2>&1");
}

// A name server that knows one name, outside.test = 10.99.0.77, answering
// one query on UDP 53; and a client asking `server` for that name.
const std::string kNameServer =
    "python3 -c 'import socket;s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM);"
    "s.bind((\"0.0.0.0\",53));q,a=s.recvfrom(512);"
    "s.sendto(q[:2]+bytes([0x81,0x80,0,1,0,1,0,0,0,0])+q[12:]+bytes([0xc0,12,0,1,0,1,0,0,0,60,0,4,"
    "10,99,0,77]),a)'";
const std::string kResolve =
    "python3 -c 'import "
    "socket,sys;s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM);s.settimeout(5);"
    "n=b\"\".join(bytes([len(p)])+p.encode() for p in \"outside.test\".split(\".\"));"
    "s.sendto(bytes([0x12,0x34,1,0,0,1,0,0,0,0,0,0])+n+bytes([0,0,1,0,1]),(sys.argv[1],53));"
    "r=s.recv(512);print(\".\".join(str(b) for b in r[-4:]))'";

int Pelorus(const std::string& args) {
  return test::Run(kPelorus + " " + args + " >>/tmp/pelorus.out 2>&1");
}

class VnetPackets : public LoadedLibraryTest {
 protected:
  void SetUp() override {
    LoadedLibraryTest::SetUp();
    WriteProductConfig(PLR_DAEMONS_BINDIR);
    WriteFile("/etc/resolv.conf", "nameserver 10.99.0.2\n");  // the host's resolver is outside
    // The outside world: a namespace behind the host's ext0 (10.99.0.1).
    ASSERT_EQ(
        test::Run("ip link set lo up && ip netns add outside && ip link add ext0 type veth peer "
                  "name ext1 && ip link set ext1 netns outside && ip addr add 10.99.0.1/24 dev "
                  "ext0 && ip link set ext0 up && ip netns exec outside sh -c 'ip addr add "
                  "10.99.0.2/24 dev ext1 && ip link set ext1 up && ip link set lo up'"),
        0);
  }
  void TearDown() override {
    Pelorus("service kavix8 stop");
    KillStragglers();
    LoadedLibraryTest::TearDown();
  }
  static std::string Tables() { return Capture("nft list tables 2>&1"); }
};

TEST_F(VnetPackets, GuestGetsItsAddressReachesOutAndIsReachedThroughItsForward) {
  Watchdog guard(120);
  ASSERT_EQ(Pelorus("create kavix8 --subnet 192.168.8.0/24 --adapter --dhcp --nat"), 0);
  ASSERT_EQ(Pelorus("dhcp kavix8 map add 02:11:22:33:44:55 192.168.8.10"), 0);
  ASSERT_EQ(Pelorus("nat kavix8 forward add tcp 8080 192.168.8.10:80 --description web"), 0);
  ASSERT_EQ(Pelorus("service kavix8 start"), 0) << ReadFile("/tmp/pelorus.out") << LogText();
  EXPECT_NE(Tables().find("table ip kavix8"), std::string::npos);

  // The guest: a veth port on the vnet's bridge, the real DHCP client.
  ASSERT_EQ(
      test::Run("ip netns add guest && ip link add gv0 type veth peer name gv1 && ip link set "
                "gv1 netns guest && ip link set gv0 master kavix8 up && ip netns exec guest sh -c "
                "'ip link set gv1 address 02:11:22:33:44:55 && ip link set gv1 up && ip link set "
                "lo up'"),
      0);
  const int rc = test::Run(
      "ip netns exec guest timeout 40 dhclient -sf /bin/true -lf /tmp/guest.leases -pf "
      "/tmp/guest.pid -1 gv1 >/tmp/dhclient.out 2>&1");
  if (const pid_t client = PidInFile("/tmp/guest.pid"); client > 1) kill(client, SIGTERM);
  ASSERT_EQ(rc, 0) << ReadFile("/tmp/dhclient.out");
  const std::string lease = ReadFile("/tmp/guest.leases");
  EXPECT_NE(lease.find("fixed-address 192.168.8.10;"), std::string::npos) << lease;
  EXPECT_NE(lease.find("option routers 192.168.8.2;"), std::string::npos) << lease;
  EXPECT_NE(lease.find("option domain-name-servers 192.168.8.2;"), std::string::npos) << lease;
  // The script stays a no-op: the address and route are set as dhclient would.
  ASSERT_EQ(
      test::Run("ip netns exec guest sh -c 'ip addr add 192.168.8.10/24 dev gv1 && ip route add "
                "default via 192.168.8.2'"),
      0);

  // Out through NAT: the outside sees the host's address.
  ServeIn("outside", kServer + " 8000 outside", 8000);
  EXPECT_EQ(In("guest", kClient + " 10.99.0.2 8000"), "outside sees 10.99.0.1\n");
  // Names through the gateway: a name only the outside name server knows.
  ServeIn("outside", kNameServer, 53);
  EXPECT_EQ(In("guest", kResolve + " 192.168.8.2"), "10.99.0.77\n");
  // In through the port forward: host 8080 reaches the guest's port 80.
  ServeIn("guest", kServer + " 80 guest", 80);
  EXPECT_EQ(In("outside", kClient + " 10.99.0.1 8080"), "guest sees 10.99.0.2\n");

  // Stopping takes everything away and leaves no daemon running.
  std::vector<pid_t> daemons;
  for (const char* file :
       {"/var/run/kavix-netifup-kavix8.pid", kNatdPid, "/var/run/kavix-dhcpd-kavix8.pid",
        "/var/run/kavix-dhcpd-kavix8.pid.server"})
    daemons.push_back(PidInFile(file));
  ASSERT_EQ(Pelorus("service kavix8 stop"), 0) << ReadFile("/tmp/pelorus.out");
  EXPECT_EQ(Tables().find("kavix8"), std::string::npos) << Tables();
  EXPECT_NE(Capture("ip link show kavix8 2>&1").find("does not exist"), std::string::npos);
  for (pid_t pid : daemons) {
    EXPECT_GT(pid, 1);
    EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(pid); }, 1000)) << pid;
  }
}

TEST_F(VnetPackets, NatdRefusesABrokenConfigAndRecoversFromSigkill) {
  Watchdog guard(60);
  ASSERT_EQ(Pelorus("create kavix8 --subnet 192.168.8.0/24 --nat"), 0);
  ASSERT_EQ(Pelorus("nat kavix8 forward add udp 5353 192.168.8.10:53"), 0);
  ASSERT_EQ(PLR_Load(0), true);
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));  // the file with the forward
  // Broken: no status, the reason in the log, nothing installed.
  const std::string conf = "/etc/tarsis/kavix8/nat/nat.conf";
  const std::string good = ReadFile(conf);
  WriteFile(conf, "[host]\nip = 192.168.8.2\ndevice = /dev/kavix8\n");
  EXPECT_FALSE(PLRServiceStart(8, PLR_SERVICE_NAT));
  EXPECT_TRUE(LogHas("kavix-natd[kavix8]: no netmask in [host] of " + conf)) << LogText();
  EXPECT_EQ(Tables().find("kavix8"), std::string::npos);
  WriteFile(conf, good);
  // Killed, it leaves its table; the next start replaces it: one table.
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_NAT)) << LogText();
  const pid_t natd = PidInFile(kNatdPid);
  ASSERT_EQ(kill(natd, SIGKILL), 0);
  ASSERT_TRUE(WaitFor([&] { return !ProcessAlive(natd); }, 3000));
  EXPECT_NE(Tables().find("table ip kavix8"), std::string::npos);
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_NAT)) << LogText();
  const std::string tables = Tables();
  EXPECT_EQ(tables.find("kavix8"), tables.rfind("kavix8")) << tables;
  EXPECT_NE(Capture("nft list table ip kavix8").find("udp dport 5353 dnat to 192.168.8.10:53"),
            std::string::npos);
  EXPECT_TRUE(PLRServiceStop(8, PLR_SERVICE_NAT));
  EXPECT_EQ(Tables().find("kavix8"), std::string::npos);
  EXPECT_EQ(Capture("ip -4 addr show kavix8 2>&1").find("192.168.8.2"), std::string::npos);
  PLR_Unload();
}

}  // namespace
}  // namespace plr::test
