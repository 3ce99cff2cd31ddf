#include "cli/commands.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "cli/output.h"
#include "cli/session.h"
#include "cli/view.h"

namespace pelorus_cli {
namespace {

// What the parser fills in; one instance lives for the whole run.
struct Args {
  std::string vnet, key, value, mac, ip, protocol, target, subnet = "auto", name, description, file,
                                                           adapter, service, action;
  uint32_t mtu = 0;
  uint16_t hostPort = 0;
  bool all = false, adapterOn = false, dhcpOn = false, natOn = false, follow = false;
  size_t lines = 20;
};
Args& A() {
  static Args args;
  return args;
}

// A leaf command: its help text, an example, and what it does.
CLI::App* Leaf(CLI::App& parent, const std::string& name, const std::string& help,
               const std::string& example, std::function<void()> run) {
  CLI::App* cmd = parent.add_subcommand(name, help);
  cmd->footer("Example:\n  " + example);
  cmd->callback(std::move(run));
  return cmd;
}

// Adds the VNET positional.
void VnetArg(CLI::App* cmd) {
  cmd->add_option("vnet", A().vnet, "kavix<n> or n")->required();
}

// A dotted netmask of `length` bits.
std::string MaskOf(int length) {
  const uint32_t bits = length == 0 ? 0 : ~uint32_t{0} << (32 - length);
  struct in_addr addr = {htonl(bits)};
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &addr, text, sizeof text);
  return text;
}

// "A.B.C.D/N" into address and mask; a usage error otherwise.
std::pair<std::string, std::string> ParseSubnet(const std::string& text) {
  const size_t slash = text.find('/');
  struct in_addr addr;
  const std::string address = text.substr(0, slash);
  const std::string length = slash == std::string::npos ? "" : text.substr(slash + 1);
  if (slash == std::string::npos || inet_pton(AF_INET, address.c_str(), &addr) != 1 ||
      length.empty() || length.size() > 2 ||
      length.find_first_not_of("0123456789") != std::string::npos || std::stoi(length) > 30 ||
      std::stoi(length) < 8)
    UsageError("not a subnet: " + text + " (A.B.C.D/N with N from 8 to 30)");
  return {address, MaskOf(std::stoi(length))};
}

// The services in the order they start (the DHCP server needs the subnet's
// address on the vnet's interface, which netifup, bridge and NAT provide).
struct Service {
  const char* name;
  uint32_t type;
  uint32_t option;
};
constexpr Service kServices[] = {
    {"netifup", PLR_SERVICE_TYPE_NETIFUP, PLR_VNET_OPTION_VIRTUAL_ADAPTER},
    {"bridge", PLR_SERVICE_TYPE_BRIDGE, PLR_VNET_OPTION_BRIDGE},
    {"nat", PLR_SERVICE_TYPE_NAT, PLR_VNET_OPTION_NAT},
    {"dhcp", PLR_SERVICE_TYPE_DHCP, PLR_VNET_OPTION_DHCP},
};

// The services a service command acts on: the named one, or every
// configured one in start order.
std::vector<Service> ServicesOf(const Vnet& vnet, const std::string& name) {
  std::vector<Service> out;
  for (const Service& s : kServices)
    if (name.empty() ? PLRVnetIsOptionConfigured(vnet.number, s.option) : name == s.name)
      out.push_back(s);
  if (!name.empty() && out.empty())
    UsageError("unknown service: " + name + " (bridge, netifup, dhcp or nat)");
  return out;
}

// The configured vnet named on the command line; a failure when it has no
// configuration (commands other than create work only on configured vnets).
Vnet ConfiguredVnet() {
  Vnet vnet = ParseVnet(A().vnet);
  if (!IsConfigured(vnet)) throw CommandError(kExitFailed, vnet.name + " is not configured");
  return vnet;
}

void PrintSummaryTable(const json& vnets) {
  Table table({"VNET", "NAME", "SUBNET", "ADAPTER", "DHCP", "NAT", "BRIDGED", "NETIFUP", "BRIDGE",
               "NATD", "DHCPD", "MAPS", "FWDS"});
  for (const json& v : vnets) {
    const json& a = v["adapter"];
    std::string adapter = !a["configured"].get<bool>()
                              ? "-"
                              : Cell(a["address"]) + (a["up"].get<bool>() ? " up" : " down");
    std::string bridged;
    for (const json& b : v["bridgedAdapters"]) bridged += (bridged.empty() ? "" : ",") + Cell(b);
    table.Add({Cell(v["name"]), Cell(v["displayName"]),
               v["subnet"].is_null() ? "-" : Cell(v["subnet"]) + "/" + Cell(v["prefixLength"]),
               adapter, Cell(v["dhcp"]), Cell(v["nat"]), bridged.empty() ? "-" : bridged,
               Cell(v["services"]["netifup"]), Cell(v["services"]["bridge"]),
               Cell(v["services"]["nat"]), Cell(v["services"]["dhcp"]), Cell(v["staticMappings"]),
               Cell(v["portForwards"])});
  }
  table.Print();
}

void PrintParams(const json& params) {
  Table table({"PARAMETER", "VALUE", "DEFAULT"});
  for (const json& p : params)
    table.Add({Cell(p["name"]), Cell(p["value"]), p["default"].get<bool>() ? "default" : "set"});
  table.Print();
}

void PrintMappings(const json& mappings) {
  Table table({"MAC", "IP"});
  for (const json& m : mappings) table.Add({Cell(m["mac"]), Cell(m["ip"])});
  table.Print();
}

void PrintForwards(const json& forwards) {
  Table table({"PROTO", "HOSTPORT", "GUEST", "DESCRIPTION"});
  for (const json& f : forwards)
    table.Add({Cell(f["protocol"]), Cell(f["hostPort"]),
               Cell(f["guestIp"]) + ":" + Cell(f["guestPort"]), Cell(f["description"])});
  table.Print();
}

// Removes the vnet's whole configuration and files: the library's delete,
// then what it keeps of an unconfigured vnet (its name, switches set to no).
// A failure of the library's delete is reported after the rest is done.
void Unconfigure(Session& session, const Vnet& vnet) {
  std::optional<CommandError> failure;
  try {
    session.Do("cannot delete " + vnet.name,
               [&] { return PLR_DeleteVnetFromDatabase(vnet.name.c_str()); });
  } catch (const CommandError& e) {
    failure = e;
  }
  std::unique_ptr<char, decltype(&free)> text(PLR_ExportDatabaseToBuffer(), free);
  std::istringstream lines(text ? text.get() : "");
  const std::string prefix = "answer VNET_" + std::to_string(vnet.number) + "_";
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(prefix, 0) != 0) continue;
    const std::string key = line.substr(7, line.find(' ', 7) - 7);
    session.Do("cannot remove " + key, [&] { return PLR_VnetCfgRemoveAnswer(key.c_str()); });
  }
  if (failure) throw *failure;
}

// ---- vnets: list, show, create, delete, get, set ----

void AddVnetCommands(CLI::App& app) {
  Leaf(app, "list", "List every configured vnet", "pelorus list --json", [] {
    Session session(false);
    json doc = json::array();
    const json adapters = HostAdapters();
    for (const Vnet& vnet : ConfiguredVnets()) doc.push_back(VnetSummary(vnet, adapters));
    Emit(doc, [&] { PrintSummaryTable(doc); });
  });

  VnetArg(Leaf(app, "show", "Show everything about one vnet", "pelorus show kavix8", [] {
    Session session(false);
    const Vnet vnet = ConfiguredVnet();
    const json doc = VnetDetails(vnet);
    Emit(doc, [&] {
      PrintSummaryTable(json::array({doc}));
      Say("\nmtu: " + Cell(doc["mtu"]));
      Say("\nDHCP parameters:");
      PrintParams(doc["dhcpParams"]);
      Say("\nNAT parameters:");
      PrintParams(doc["natParams"]);
      Say("\nStatic mappings:");
      PrintMappings(doc["mappings"]);
      Say("\nPort forwards:");
      PrintForwards(doc["forwards"]);
      Say("\nFiles:");
      for (auto& [key, path] : doc["files"].items()) Say("  " + key + ": " + Cell(path));
    });
  }));

  CLI::App* create = Leaf(
      app, "create", "Configure a new vnet (nothing starts)",
      "pelorus create kavix8 --subnet auto --adapter --dhcp --nat --name \"Lab network\"", [] {
        const Vnet vnet = ParseVnet(A().vnet);
        std::pair<std::string, std::string> subnet;
        if (!A().subnet.empty() && A().subnet != "auto") subnet = ParseSubnet(A().subnet);
        Session session(true);
        if (IsConfigured(vnet))
          throw CommandError(kExitFailed, vnet.name + " is already configured");
        const char* name = vnet.name.c_str();
        if (A().subnet == "auto") {  // probed before anything is written
          char address[PLR_IP_ADDR_MIN_LEN], mask[PLR_IP_ADDR_MIN_LEN];
          session.Do("no free subnet found", [&] {
            return PLR_GetUnusedSubnet(address, sizeof address, mask, sizeof mask);
          });
          subnet = {address, mask};
        }
        try {
          if (!subnet.first.empty()) {
            session.Do("cannot set the subnet",
                       [&] { return PLR_SetVnetSubnetAddr(name, subnet.first.c_str()); });
            session.Do("cannot set the netmask",
                       [&] { return PLR_SetVnetSubnetMask(name, subnet.second.c_str()); });
          }
          if (!A().name.empty())
            session.Do("cannot set the name",
                       [&] { return PLR_SetVnetDisplayName(name, A().name.c_str()); });
          if (A().mtu != 0)
            session.Do("cannot set the MTU", [&] { return PLR_SetVnetMTU(name, A().mtu); });
          if (A().adapterOn)
            session.Do("cannot configure the host-only adapter",
                       [&] { return PLR_SetVnetUseAdapter(name, true, false); });
          if (A().natOn)
            session.Do("cannot configure NAT",
                       [&] { return PLR_SetVnetUseNAT(name, true, false); });
          if (A().dhcpOn)
            session.Do("cannot configure DHCP",
                       [&] { return PLR_SetVnetUseDHCP(name, true, false); });
          // The services' files, so that they can start.
          if (A().natOn)
            session.Do("cannot write nat.conf", [&] { return PLR_UpdateNATFromConfig(name); });
          if (A().dhcpOn)
            session.Do("cannot write dhcpd.conf", [&] { return PLR_UpdateDHCPFromConfig(name); });
        } catch (const CommandError&) {
          try {
            Unconfigure(session, vnet);  // nothing of the new vnet stays
          } catch (const CommandError&) {
          }
          throw;
        }
        Say("created " + vnet.name);
      });
  VnetArg(create);
  create->add_option("--subnet", A().subnet,
                     "auto (the default: a free private subnet), or A.B.C.D/N");
  create->add_flag("--adapter", A().adapterOn, "configure a host-only adapter");
  create->add_flag("--dhcp", A().dhcpOn, "configure the DHCP service");
  create->add_flag("--nat", A().natOn, "configure the NAT service");
  create->add_option("--mtu", A().mtu, "MTU of the vnet's interface")->check(CLI::Range(68, 65535));
  create->add_option("--name", A().name, "display name");

  VnetArg(Leaf(app, "delete", "Stop a vnet's services and remove its whole configuration",
               "pelorus delete kavix8", [] {
                 Session session(true);
                 const Vnet vnet = ConfiguredVnet();
                 const char* name = vnet.name.c_str();
                 for (auto it = std::rbegin(kServices); it != std::rend(kServices); ++it)
                   if (ServiceStatus(vnet, it->type) == "running")
                     session.Do(std::string("cannot stop ") + it->name,
                                [&] { return PLR_StopService(name, it->type); });
                 bool present = false, up = false;
                 if (PLR_GetVnetAdapterStatus(name, &present, &up) && up)
                   session.Do("cannot bring the adapter down",
                              [&] { return PLR_DisableNetworkAdapter(name); });
                 session.Do("cannot remove the DHCP files",
                            [&] { return PLR_SetVnetUseDHCP(name, false, true); });
                 session.Do("cannot remove the NAT files",
                            [&] { return PLR_SetVnetUseNAT(name, false, true); });
                 Unconfigure(session, vnet);
                 Say("deleted " + vnet.name);
               }));

  static const std::vector<std::string> kKeys = {"name", "subnet", "netmask", "mtu",
                                                 "adapter-address"};
  CLI::App* get = Leaf(app, "get", "Print one setting", "pelorus get kavix8 subnet", [] {
    Session session(false);
    const Vnet vnet = ConfiguredVnet();
    const json details = VnetSummary(vnet, HostAdapters());
    uint32_t mtu = 0;
    json value = A().key == "name"      ? details["displayName"]
                 : A().key == "subnet"  ? details["subnet"]
                 : A().key == "netmask" ? details["netmask"]
                 : A().key == "mtu" ? (PLR_GetVnetMTU(vnet.name.c_str(), &mtu) ? json(mtu) : json())
                                    : details["adapter"]["address"];
    Emit(json{{"vnet", vnet.name}, {"key", A().key}, {"value", value}}, [&] { Say(Cell(value)); });
  });
  VnetArg(get);
  get->add_option("key", A().key, "name, subnet, netmask, mtu or adapter-address")
      ->required()
      ->check(CLI::IsMember(kKeys));

  CLI::App* set = Leaf(app, "set", "Change one setting", "pelorus set kavix8 mtu 1400", [] {
    Session session(true);
    const Vnet vnet = ConfiguredVnet();
    const char* name = vnet.name.c_str();
    const std::string& value = A().value;
    const std::string what = "cannot set " + A().key;
    if (A().key == "name") {
      session.Do(what, [&] { return PLR_SetVnetDisplayName(name, value.c_str()); });
    } else if (A().key == "subnet" && value.find('/') != std::string::npos) {
      const auto subnet = ParseSubnet(value);
      session.Do(what, [&] { return PLR_SetVnetSubnetAddr(name, subnet.first.c_str()); });
      session.Do(what, [&] { return PLR_SetVnetSubnetMask(name, subnet.second.c_str()); });
    } else if (A().key == "subnet") {
      session.Do(what, [&] { return PLR_SetVnetSubnetAddr(name, value.c_str()); });
    } else if (A().key == "netmask") {
      session.Do(what, [&] { return PLR_SetVnetSubnetMask(name, value.c_str()); });
    } else if (A().key == "mtu") {
      if (value.empty() || value.size() > 5 ||
          value.find_first_not_of("0123456789") != std::string::npos)
        UsageError("not an MTU: " + value);
      session.Do(what,
                 [&] { return PLR_SetVnetMTU(name, static_cast<uint32_t>(std::stoul(value))); });
    } else {
      session.Do(what, [&] { return PLR_SetVnetAdapterAddr(name, value.c_str()); });
    }
  });
  VnetArg(set);
  set->add_option("key", A().key, "name, subnet, netmask, mtu or adapter-address")
      ->required()
      ->check(CLI::IsMember(kKeys));
  set->add_option("value", A().value, "the new value")->required();
}

// ---- switches: adapter, dhcp, nat; mappings, forwards, parameters, prefixes ----

// "on"/"off" leaves under `parent` calling `set(name, on)`.
void AddOnOff(CLI::App* parent, const std::string& what,
              std::function<bool(const char*, bool)> set) {
  for (bool on : {true, false}) {
    const std::string word = on ? "on" : "off";
    Leaf(*parent, word, "Configure " + what + (on ? "" : " no more"),
         "pelorus " + parent->get_name() + " kavix8 " + word, [=] {
           Session session(true);
           const Vnet vnet = ConfiguredVnet();
           session.Do("cannot switch " + what + " " + word,
                      [&] { return set(vnet.name.c_str(), on); });
         });
  }
}

// "param list|set|unset" under `parent` for one parameter family.
void AddParams(CLI::App* parent, bool dhcp) {
  const std::vector<Param>& params = dhcp ? kDhcpParams : kNatParams;
  const std::string family = dhcp ? "dhcp" : "nat";
  CLI::App* param = parent->add_subcommand("param", "Parameters by name")->require_subcommand(1);
  Leaf(*param, "list", "Every parameter, defaults marked",
       "pelorus " + family + " kavix8 param list", [=] {
         Session session(false);
         const Vnet vnet = ConfiguredVnet();
         const json doc = dhcp ? DhcpParams(vnet) : NatParams(vnet);
         Emit(doc, [&] { PrintParams(doc); });
       });
  CLI::App* set = Leaf(*param, "set", "Set a parameter",
                       "pelorus " + family + " kavix8 param set " +
                           (dhcp ? "domain-name example.com" : "udp-timeout 120"),
                       [=, &params] {
                         const Param& p = FindParam(params, A().key);
                         Session session(true);
                         const Vnet vnet = ConfiguredVnet();
                         session.Locked("cannot set " + A().key, [&] {
                           return dhcp ? PLRDHCPSetParameter(vnet.number, p.id, A().value.c_str())
                                       : PLRNATSetParameter(vnet.number, p.id, A().value.c_str());
                         });
                       });
  set->add_option("name", A().key, "parameter name")->required();
  set->add_option("value", A().value, "its value")->required();
  CLI::App* unset =
      Leaf(*param, "unset", "Go back to the default",
           "pelorus " + family + " kavix8 param unset " + (dhcp ? "domain-name" : "udp-timeout"),
           [=, &params] {
             const Param& p = FindParam(params, A().key);
             Session session(true);
             const Vnet vnet = ConfiguredVnet();
             session.Locked("cannot unset " + A().key, [&] {
               return dhcp ? PLRDHCPRemoveParameter(vnet.number, p.id)
                           : PLRNATRemoveParam(vnet.number, p.id);
             });
           });
  unset->add_option("name", A().key, "parameter name")->required();
}

void AddSwitchCommands(CLI::App& app) {
  CLI::App* adapter = app.add_subcommand("adapter", "The vnet's host-only adapter");
  VnetArg(adapter);
  adapter->require_subcommand(1);
  AddOnOff(adapter, "the host-only adapter",
           [](const char* v, bool on) { return PLR_SetVnetUseAdapter(v, on, false); });
  for (bool up : {true, false})
    Leaf(*adapter, up ? "up" : "down", up ? "Bring the adapter up" : "Take the adapter down",
         std::string("pelorus adapter kavix8 ") + (up ? "up" : "down"), [up] {
           Session session(true);
           const Vnet vnet = ConfiguredVnet();
           session.Do(up ? "cannot bring the adapter up" : "cannot take the adapter down", [&] {
             return up ? PLR_EnableNetworkAdapter(vnet.name.c_str())
                       : PLR_DisableNetworkAdapter(vnet.name.c_str());
           });
         });
  Leaf(*adapter, "status", "Show the adapter's state", "pelorus adapter kavix8 status", [] {
    Session session(false);
    const json doc = VnetSummary(ConfiguredVnet(), HostAdapters())["adapter"];
    Emit(doc, [&] {
      Say("configured: " + Cell(doc["configured"]) + "\naddress: " + Cell(doc["address"]) +
          "\npresent: " + Cell(doc["present"]) + "\nup: " + Cell(doc["up"]));
    });
  });

  CLI::App* dhcp = app.add_subcommand("dhcp", "The vnet's DHCP service and its settings");
  VnetArg(dhcp);
  dhcp->require_subcommand(1);
  AddOnOff(dhcp, "DHCP", [](const char* v, bool on) { return PLR_SetVnetUseDHCP(v, on, false); });
  CLI::App* map = dhcp->add_subcommand("map", "Static MAC-to-IP mappings")->require_subcommand(1);
  CLI::App* mapAdd =
      Leaf(*map, "add", "Give a guest a fixed address",
           "pelorus dhcp kavix8 map add 00:50:56:00:00:10 192.168.8.10", [] {
             Session session(true);
             const Vnet vnet = ConfiguredVnet();
             session.Do("cannot add the mapping", [&] {
               return PLR_SetDHCPIPToMAC(vnet.name.c_str(), A().ip.c_str(), A().mac.c_str());
             });
           });
  mapAdd->add_option("mac", A().mac, "the guest's MAC address")->required();
  mapAdd->add_option("ip", A().ip, "its address")->required();
  CLI::App* mapRemove = Leaf(
      *map, "remove", "Forget a guest's fixed address",
      "pelorus dhcp kavix8 map remove 00:50:56:00:00:10", [] {
        Session session(true);
        const Vnet vnet = ConfiguredVnet();
        session.Do("cannot remove the mapping",
                   [&] { return PLR_SetDHCPIPToMAC(vnet.name.c_str(), nullptr, A().mac.c_str()); });
      });
  mapRemove->add_option("mac", A().mac, "the guest's MAC address")->required();
  Leaf(*map, "list", "List the static mappings", "pelorus dhcp kavix8 map list", [] {
    Session session(false);
    const json doc = StaticMappings(ConfiguredVnet());
    Emit(doc, [&] { PrintMappings(doc); });
  });
  AddParams(dhcp, true);

  CLI::App* nat = app.add_subcommand("nat", "The vnet's NAT service and its settings");
  VnetArg(nat);
  nat->require_subcommand(1);
  AddOnOff(nat, "NAT", [](const char* v, bool on) { return PLR_SetVnetUseNAT(v, on, false); });
  CLI::App* fwd = nat->add_subcommand("forward", "Port forwards")->require_subcommand(1);
  static const std::vector<std::string> kProtocols = {"tcp", "udp"};
  CLI::App* fwdAdd = Leaf(
      *fwd, "add", "Forward a host port to a guest",
      "pelorus nat kavix8 forward add tcp 8080 192.168.8.10:80 --description \"web server\"", [] {
        const size_t colon = A().target.rfind(':');
        const std::string ip = A().target.substr(0, colon);
        const std::string port = colon == std::string::npos ? "" : A().target.substr(colon + 1);
        if (port.empty() || port.size() > 5 ||
            port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) == 0 ||
            std::stoul(port) > 65535)
          UsageError("not GUESTIP:GUESTPORT: " + A().target);
        Session session(true);
        const Vnet vnet = ConfiguredVnet();
        const std::string& desc = A().description;
        session.Do("cannot add the port forward", [&] {
          return PLR_SetNATPortForward(vnet.name.c_str(), A().protocol == "tcp", A().hostPort,
                                       ip.c_str(), static_cast<uint16_t>(std::stoul(port)),
                                       desc.empty() ? nullptr : desc.c_str(),
                                       static_cast<uint32_t>(desc.size() + 1));
        });
      });
  fwdAdd->add_option("protocol", A().protocol, "tcp or udp")
      ->required()
      ->check(CLI::IsMember(kProtocols));
  fwdAdd->add_option("hostport", A().hostPort, "port on the host")
      ->required()
      ->check(CLI::Range(1, 65535));
  fwdAdd->add_option("target", A().target, "GUESTIP:GUESTPORT")->required();
  fwdAdd->add_option("--description", A().description, "what the forward is for");
  CLI::App* fwdRemove = Leaf(
      *fwd, "remove", "Remove a port forward", "pelorus nat kavix8 forward remove tcp 8080", [] {
        Session session(true);
        const Vnet vnet = ConfiguredVnet();
        session.Do("cannot remove the port forward", [&] {
          return PLR_SetNATPortForward(vnet.name.c_str(), A().protocol == "tcp", A().hostPort,
                                       nullptr, 0, nullptr, 0);
        });
      });
  fwdRemove->add_option("protocol", A().protocol, "tcp or udp")
      ->required()
      ->check(CLI::IsMember(kProtocols));
  fwdRemove->add_option("hostport", A().hostPort, "port on the host")
      ->required()
      ->check(CLI::Range(1, 65535));
  Leaf(*fwd, "list", "List the port forwards", "pelorus nat kavix8 forward list", [] {
    Session session(false);
    const json doc = PortForwards(ConfiguredVnet());
    Emit(doc, [&] { PrintForwards(doc); });
  });
  AddParams(nat, false);
  CLI::App* prefix = nat->add_subcommand("prefix", "IPv6 NAT prefixes")->require_subcommand(1);
  for (bool add : {true, false}) {
    CLI::App* cmd =
        Leaf(*prefix, add ? "add" : "remove", add ? "Add an IPv6 prefix" : "Remove an IPv6 prefix",
             std::string("pelorus nat kavix8 prefix ") + (add ? "add" : "remove") + " fd00:8::/64",
             [add] {
               Session session(true);
               const Vnet vnet = ConfiguredVnet();
               session.Do(add ? "cannot add the prefix" : "cannot remove the prefix", [&] {
                 return PLR_SetNATPrefix(vnet.name.c_str(), A().value.c_str(), add ? "" : nullptr,
                                         add ? 1 : 0);
               });
             });
    cmd->add_option("prefix", A().value, "ADDRESS/LENGTH")->required();
  }
  Leaf(*prefix, "list", "List the IPv6 prefixes", "pelorus nat kavix8 prefix list", [] {
    Session session(false);
    const Vnet vnet = ConfiguredVnet();
    json doc = json::array();
    uint32_t cursor = 0;
    for (char buf[128]; PLRNetCfgEnumNATPrefix(nullptr, vnet.number, &cursor, buf, sizeof buf);)
      doc.push_back(buf);
    Emit(doc, [&] {
      for (const json& p : doc) Say(Cell(p));
    });
  });
}

// ---- services, apply, bridge, db, log ----

// A generated file's text without its "Written at" time, "" when missing.
std::string Generated(uint32_t vnet, uint32_t type) {
  char path[PLR_PATH_SIZE];
  if (!PLRGetFileName(vnet, type, path, sizeof path)) return "";
  std::ifstream in(path);
  std::string text, line;
  while (std::getline(in, line))
    if (line.find("Written at") == std::string::npos) text += line + "\n";
  return text;
}

void AddServiceCommands(CLI::App& app) {
  static const std::vector<std::string> kActions = {"start", "stop", "restart", "status"};
  CLI::App* service = Leaf(
      app, "service", "Start, stop or show the vnet's services (all configured ones by default)",
      "pelorus service kavix8 start", [] {
        const bool status = A().action == "status";
        Session session(!status);
        const Vnet vnet = ConfiguredVnet();
        std::vector<Service> services = ServicesOf(vnet, A().service);
        const char* name = vnet.name.c_str();
        if (status) {
          json doc = json::object();
          for (const Service& s : services) doc[s.name] = ServiceStatus(vnet, s.type);
          Emit(doc, [&] {
            for (auto& [n, st] : doc.items()) Say(n + ": " + Cell(st));
          });
          return;
        }
        if (A().action != "start")  // stopped in reverse order
          for (auto it = services.rbegin(); it != services.rend(); ++it)
            session.Do(std::string("cannot stop ") + it->name,
                       [&] { return PLR_StopService(name, it->type); });
        if (A().action != "stop")
          for (const Service& s : services) {
            // A service starts on files that say what the database says now.
            if (s.type == PLR_SERVICE_TYPE_NAT && ServiceStatus(vnet, s.type) != "running")
              session.Do("cannot write nat.conf", [&] { return PLR_UpdateNATFromConfig(name); });
            if (s.type == PLR_SERVICE_TYPE_DHCP && ServiceStatus(vnet, s.type) != "running")
              session.Do("cannot write dhcpd.conf", [&] { return PLR_UpdateDHCPFromConfig(name); });
            session.Do(std::string("cannot start ") + s.name,
                       [&] { return PLR_StartService(name, s.type); });
            // The host-only adapter gets its address as soon as its bridge
            // exists: NAT and DHCP serve that interface.
            bool present = false, up = false;
            if (s.type == PLR_SERVICE_TYPE_NETIFUP &&
                PLR_GetVnetAdapterStatus(name, &present, &up) && present && !up)
              session.Do("cannot bring the adapter up",
                         [&] { return PLR_EnableNetworkAdapter(name); });
          }
      });
  service->add_option("vnet", A().vnet, "kavix<n> or n")->required();
  service->add_option("action", A().action, "start, stop, restart or status")
      ->required()
      ->check(CLI::IsMember(kActions));
  service->add_option("service", A().service, "bridge, netifup, dhcp or nat");

  CLI::App* apply = Leaf(
      app, "apply",
      "Regenerate dhcpd.conf and nat.conf and restart the services whose file changed",
      "pelorus apply --all", [] {
        Session session(true);
        std::vector<Vnet> vnets;
        if (A().all)
          vnets = ConfiguredVnets();
        else if (!A().vnet.empty())
          vnets = {ConfiguredVnet()};
        else
          UsageError("apply needs a vnet or --all");
        json doc = json::array();
        for (const Vnet& vnet : vnets) {
          const char* name = vnet.name.c_str();
          for (bool dhcp : {true, false}) {
            const uint32_t type = dhcp ? PLR_SERVICE_TYPE_DHCP : PLR_SERVICE_TYPE_NAT;
            const uint32_t file = dhcp ? PLR_FILE_DHCP_CONF : PLR_FILE_NAT_CONF;
            const bool running = ServiceStatus(vnet, type) == "running";
            const std::string before = Generated(vnet.number, file);
            // A running NAT daemon keeps its file: it is stopped for the rewrite.
            if (running && !dhcp)
              session.Do("cannot stop nat", [&] { return PLR_StopService(name, type); });
            session.Do(std::string("cannot regenerate ") + (dhcp ? "dhcpd.conf" : "nat.conf"), [&] {
              return dhcp ? PLR_UpdateDHCPFromConfig(name) : PLR_UpdateNATFromConfig(name);
            });
            const bool changed = Generated(vnet.number, file) != before;
            if (running && (changed || !dhcp)) {
              if (dhcp) session.Do("cannot stop dhcp", [&] { return PLR_StopService(name, type); });
              session.Do(dhcp ? "cannot start dhcp" : "cannot start nat",
                         [&] { return PLR_StartService(name, type); });
            }
            doc.push_back({{"vnet", vnet.name},
                           {"file", dhcp ? "dhcpd.conf" : "nat.conf"},
                           {"changed", changed},
                           {"restarted", running && changed}});
          }
        }
        Emit(doc, [&] {
          for (const json& r : doc)
            Say(Cell(r["vnet"]) + " " + Cell(r["file"]) +
                (r["changed"].get<bool>() ? " changed" : " unchanged") +
                (r["restarted"].get<bool>() ? ", service restarted" : ""));
        });
      });
  apply->add_option("vnet", A().vnet, "kavix<n> or n");
  apply->add_flag("--all", A().all, "every configured vnet");

  CLI::App* bridge = app.add_subcommand("bridge", "Host adapters bridged to vnets");
  bridge->require_subcommand(1);
  Leaf(*bridge, "adapters", "Host adapters with their vnet", "pelorus bridge adapters", [] {
    Session session(false);
    const json doc = HostAdapters();
    Emit(doc, [&] {
      Table table({"ADAPTER", "RUNNING", "VNET"});
      for (const json& a : doc) table.Add({Cell(a["name"]), Cell(a["running"]), Cell(a["vnet"])});
      table.Print();
    });
  });
  CLI::App* move = Leaf(
      *bridge, "move", "Bridge a host adapter to a vnet", "pelorus bridge move eth1 kavix2", [] {
        const Vnet vnet = ParseVnet(A().vnet);
        Session session(true);
        PLR_HostAdapter adapter = {};
        adapter.version = PLR_HOSTADAPTER_VERSION;
        adapter.netId = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, PLR_VNET_NONE};
        snprintf(adapter.name, sizeof adapter.name, "%s", A().adapter.c_str());
        const PLR_NetworkID to = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, vnet.number};
        session.Do("cannot move " + A().adapter,
                   [&] { return PLR_BridgeMoveAdapter(&adapter, nullptr, &to); });
      });
  move->add_option("adapter", A().adapter, "host adapter name")->required();
  move->add_option("vnet", A().vnet, "kavix<n> or n")->required();
  CLI::App* def =
      Leaf(*bridge, "default", "Show or set the default bridge vnet",
           "pelorus bridge default kavix0", [] {
             const bool setting = !A().vnet.empty();
             Session session(setting);
             PLR_NetworkID id = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, PLR_VNET_NONE};
             if (setting) {
               id.vnet = A().vnet == "none" ? PLR_VNET_NONE : ParseVnet(A().vnet).number;
               session.Do("cannot set the default bridge vnet",
                          [&] { return PLR_SetBridgeDefaultNetwork(&id); });
               return;
             }
             session.Do("cannot read the default bridge vnet",
                        [&] { return PLR_GetBridgeDefaultNetwork(&id); });
             const json value =
                 id.vnet < PLR_MAX_VNETS ? json("kavix" + std::to_string(id.vnet)) : json();
             Emit(json{{"default", value}}, [&] { Say(Cell(value)); });
           });
  def->add_option("vnet", A().vnet, "kavix0, or none");

  CLI::App* db = app.add_subcommand("db", "The whole database")->require_subcommand(1);
  CLI::App* exp =
      Leaf(*db, "export", "Write the database as a backup file (- for stdout)",
           "pelorus db export /root/networking.backup", [] {
             const bool toStdout = A().file == "-";
             Session session(!toStdout);
             if (toStdout) {
               std::unique_ptr<char, decltype(&free)> text(PLR_ExportDatabaseToBuffer(), free);
               session.Check(text != nullptr, "cannot export the database");
               fputs(text.get(), stdout);
               return;
             }
             session.Do("cannot export the database", [&] {
               return PLR_ExportDatabaseToFile(A().file.empty() ? nullptr : A().file.c_str());
             });
           });
  exp->add_option("file", A().file, "FILE or - (default /tmp/networking_export)");
  for (bool merge : {false, true}) {
    CLI::App* cmd =
        Leaf(*db, merge ? "merge" : "import",
             merge ? "Bring a backup file's vnets in" : "Replace the database by a backup file",
             std::string("pelorus db ") + (merge ? "merge" : "import") + " /root/networking.backup",
             [merge] {
               Session session(true);
               session.Do(merge ? "cannot merge the file" : "cannot import the file", [&] {
                 return merge ? PLR_MergeDatabaseFromFile(A().file.c_str())
                              : PLR_ImportDatabaseFromFile(A().file.c_str());
               });
             });
    cmd->add_option("file", A().file, "backup file")->required();
  }
  CLI::App* check =
      Leaf(*db, "check", "Report a file's version and every line it rejects, changing nothing",
           "pelorus db check /root/networking.backup", [] {
             Session session(false);
             std::ifstream in(A().file);
             std::string first;
             if (!in || !std::getline(in, first))
               throw CommandError(kExitFailed, "cannot read " + A().file);
             const bool backup = first.rfind("BACKUP_VERSION=", 0) == 0;
             PLRNetworkConfigurationDB* cache = nullptr;
             session.Mark();
             const bool loaded = PLRNetCfgLoad(A().file.c_str(), &cache, backup, true);
             json rejected = json::array();
             for (const Session::LogLine& logged : session.LoggedSinceMark()) {
               const std::string& line = logged.text;
               const size_t at = line.find("Failed to parse record at line #: ");
               if (at == std::string::npos) continue;
               std::istringstream rest(line.substr(at + 34));
               unsigned number = 0;
               std::string sep, data;
               rest >> number >> sep;
               std::getline(rest, data);
               rejected.push_back({{"line", number}, {"data", data.substr(data.find(':') + 2)}});
             }
             if (cache != nullptr) PLRNetCfgUnload(&cache, false);
             session.Check(loaded, "cannot load " + A().file);
             const json doc = {{"file", A().file},
                               {"version", first.substr(first.find('=') + 1)},
                               {"backup", backup},
                               {"rejected", rejected}};
             Emit(doc, [&] {
               Say(A().file + ": " + (backup ? "backup" : "database") + " version " +
                   Cell(doc["version"]));
               for (const json& r : rejected)
                 Say("line " + Cell(r["line"]) + " rejected: " + Cell(r["data"]));
             });
           });
  check->add_option("file", A().file, "database or backup file")->required();

  CLI::App* log = Leaf(app, "log", "Print the library's log", "pelorus log --lines 50", [] {
    std::ifstream in;
    {
      Session session(false);
      if (plrContext.logStream != nullptr)
        in.open("/proc/self/fd/" + std::to_string(fileno(plrContext.logStream)));
      // The file stays open, and readable, after the library closed its stream.
    }
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
      if (lines.size() > A().lines) lines.erase(lines.begin());
    }
    for (const std::string& line : lines) fputs((line + "\n").c_str(), stdout);
    fflush(stdout);
    while (A().follow) {  // until interrupted
      in.clear();
      for (std::string line; std::getline(in, line);) fputs((line + "\n").c_str(), stdout);
      fflush(stdout);
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
  });
  log->add_option("--lines", A().lines, "how many of the last lines");
  log->add_flag("--follow", A().follow, "keep printing new lines");
}

}  // namespace

void AddCommands(CLI::App& app) {
  AddVnetCommands(app);
  AddSwitchCommands(app);
  AddServiceCommands(app);
}

}  // namespace pelorus_cli
