// kavix-bridge puts guests on the host's own network: a "lan" namespace
// behind the host's eth0 (carrying the default route) runs the real DHCP
// server and a TCP server; eth1 is a second adapter; a guest namespace joins
// kavix0. The bridge takes eth0 with its address and routes, moves to eth1
// when eth0 goes or is mapped elsewhere, and gives everything back on stop.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

const std::string kServer =
    "python3 -c 'import socket,sys;s=socket.socket();"
    "s.setsockopt(socket.SOL_SOCKET,socket.SO_REUSEADDR,1);s.bind((\"0.0.0.0\",8000));s.listen();"
    "[(lambda c:(c[0].sendall(b\"lan server\"),c[0].close()))(s.accept()) for _ in range(3)]'";
const std::string kClient =
    "python3 -c 'import socket;s=socket.create_connection((\"10.50.0.1\",8000),5);"
    "print(s.recv(100).decode())'";

// The host's IPv4 addresses and routes, for comparing before and after.
std::string Ipv4State() {
  return Capture("ip -4 -o addr show | awk '{print $2, $4}'; ip -4 route show");
}

// The ports of a bridge, by name.
std::string PortsOf(const std::string& bridge) {
  return Capture("ip -o link show master " + bridge + " | awk -F'[ @:]+' '{print $2}'");
}

class BridgeDaemon : public LoadedLibraryTest {
 protected:
  void SetUp() override {
    LoadedLibraryTest::SetUp();
    ASSERT_EQ(
        test::Run("ip link set lo up && ip netns add lan && ip link add eth0 type veth peer name "
                  "lan0 && ip link set lan0 netns lan && ip addr add 10.50.0.5/24 dev eth0 && ip "
                  "link set eth0 up && ip route add default via 10.50.0.1 && ip link add eth1 type "
                  "veth peer name lan1 && ip link set eth1 up && ip netns exec lan sh -c 'ip addr "
                  "add 10.50.0.1/24 dev lan0 && ip link set lan0 up && ip link set lo up'"),
        0);
    WriteFile("/tmp/lan.conf",
              "subnet 10.50.0.0 netmask 255.255.255.0 {\n  range 10.50.0.100 10.50.0.150;\n"
              "  option routers 10.50.0.1;\n}\n");
    WriteFile("/tmp/lan.leases", "");
    ASSERT_EQ(
        test::Run("ip netns exec lan /usr/sbin/dhcpd -4 -q -cf /tmp/lan.conf -lf /tmp/lan.leases "
                  "-pf /tmp/lan-dhcpd.pid lan0"),
        0);
    KillAtEnd(PidInFile("/tmp/lan-dhcpd.pid"));
    ServeIn("lan", kServer, 8000);
  }
};

TEST_F(BridgeDaemon, BridgeCarriesHostAndGuestMovesAndGivesEverythingBack) {
  Load("", PLR_DAEMONS_BINDIR);
  Watchdog guard(120);
  const std::string before = Ipv4State();

  // 1. The default bridge vnet takes eth0, the adapter of the default route.
  ASSERT_TRUE(PLR_StartService("kavix0", PLR_SERVICE_TYPE_BRIDGE)) << LogText();
  EXPECT_EQ(PortsOf("kavix0"), "eth0\n");
  EXPECT_NE(Capture("ip -4 route show default").find("dev kavix0"), std::string::npos);
  EXPECT_EQ(Capture(kClient), "lan server\n") << "the host reaches the lan through the bridge";
  ASSERT_EQ(
      test::Run("ip netns add guest && ip link add gv0 type veth peer name gv1 && ip link set gv1 "
                "netns guest && ip link set gv0 master kavix0 up && ip netns exec guest sh -c "
                "'ip link set gv1 up && ip link set lo up'"),
      0);
  const int rc = test::Run(
      "ip netns exec guest timeout 40 dhclient -sf /bin/true -lf /tmp/guest.leases -pf "
      "/tmp/guest.pid -1 gv1 >/tmp/dhclient.out 2>&1");
  if (const pid_t client = PidInFile("/tmp/guest.pid"); client > 1) {
    KillAtEnd(client);
    kill(client, SIGTERM);
  }
  ASSERT_EQ(rc, 0) << ReadFile("/tmp/dhclient.out");
  const std::string lease = ReadFile("/tmp/guest.leases");
  const size_t at = lease.find("fixed-address 10.50.0.");
  ASSERT_NE(at, std::string::npos) << lease;
  const std::string guestIp = lease.substr(at + 14, lease.find(';', at) - at - 14);
  ASSERT_EQ(test::Run("ip netns exec guest ip addr add " + guestIp + "/24 dev gv1"), 0);
  EXPECT_EQ(Capture("ip netns exec guest " + kClient), "lan server\n") << "the guest is on the lan";

  // 2. eth0 mapped to vnet 2: vnet 0 takes eth1, vnet 2 takes eth0 with the route.
  const PLR_HostAdapter eth0 = [] {
    PLR_HostAdapter a = {};
    a.version = PLR_HOSTADAPTER_VERSION;
    a.netId = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, PLR_VNET_NONE};
    snprintf(a.name, sizeof a.name, "eth0");
    return a;
  }();
  const PLR_NetworkID vnet2 = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, 2};
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth0, nullptr, &vnet2)) << LogText();
  if (PLR_GetServiceStatus("kavix2", PLR_SERVICE_TYPE_BRIDGE) != PLR_SERVICE_RUNNING) {
    ASSERT_TRUE(PLR_StartService("kavix2", PLR_SERVICE_TYPE_BRIDGE)) << LogText();
  }
  EXPECT_TRUE(WaitFor([] { return PortsOf("kavix0").find("eth1") != std::string::npos; }, 3000))
      << PortsOf("kavix0");
  EXPECT_EQ(PortsOf("kavix2"), "eth0\n");
  EXPECT_NE(Capture("ip -4 route show default").find("dev kavix2"), std::string::npos);
  EXPECT_EQ(Capture(kClient), "lan server\n") << "the host keeps its route to the lan";

  // 4. Stopping every bridge service gives back exactly what was there.
  ASSERT_TRUE(PLR_StopService("kavix2", PLR_SERVICE_TYPE_BRIDGE));
  ASSERT_TRUE(PLR_StopService("kavix0", PLR_SERVICE_TYPE_BRIDGE));
  EXPECT_EQ(Ipv4State(), before);
  EXPECT_NE(Capture("ip link show kavix0 2>&1").find("does not exist"), std::string::npos);
}

// 3. Deleting the adapter the default bridge vnet uses moves it to the next one.
TEST_F(BridgeDaemon, AdapterThatGoesAwayIsReplaced) {
  Load("", PLR_DAEMONS_BINDIR);
  Watchdog guard(60);
  ASSERT_TRUE(PLR_StartService("kavix0", PLR_SERVICE_TYPE_BRIDGE)) << LogText();
  ASSERT_EQ(PortsOf("kavix0"), "eth0\n");
  ASSERT_EQ(test::Run("ip link del eth0"), 0);
  EXPECT_TRUE(WaitFor([] { return PortsOf("kavix0") == "eth1\n"; }, 3000)) << PortsOf("kavix0");
  EXPECT_TRUE(LogHas("kavix-bridge[kavix0]: eth0 went away"));
  EXPECT_TRUE(LogHas("kavix-bridge[kavix0]: eth1 enslaved to kavix0"));
  // Killed while bridged, the next start gives eth1 back first, then takes it again.
  const pid_t daemon = PidInFile("/var/run/kavix-bridge-0.pid");
  ASSERT_EQ(kill(daemon, SIGKILL), 0);
  ASSERT_TRUE(WaitFor([&] { return !ProcessAlive(daemon); }, 3000));
  ASSERT_TRUE(PLR_StartService("kavix0", PLR_SERVICE_TYPE_BRIDGE)) << LogText();
  EXPECT_TRUE(LogHas("giving eth1 back the addresses a killed instance moved to kavix0"));
  EXPECT_EQ(PortsOf("kavix0"), "eth1\n");
  EXPECT_TRUE(PLR_StopService("kavix0", PLR_SERVICE_TYPE_BRIDGE));
  EXPECT_EQ(Capture("ip -o link show eth1").find("master"), std::string::npos);
}

}  // namespace
}  // namespace plr::test
