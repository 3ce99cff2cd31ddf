// The pelorus command, run as a user runs it: one scenario per command
// family judged by what `show --json` and the files say afterwards, the exit
// statuses and error lines, the sandbox option and two processes at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr::test {
namespace {

using nlohmann::json;

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs the built pelorus with `args` (as user `uid` when given) and collects
// its exit status and output; the run is bounded.
Result Pelorus(const std::vector<std::string>& args, uid_t uid = 0) {
  int out[2], err[2];
  Result r;
  if (pipe(out) != 0 || pipe(err) != 0) return r;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    if (uid != 0 && setresuid(uid, uid, uid) != 0) _exit(126);
    std::vector<char*> argv{const_cast<char*>(PLR_CLI_PATH)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  for (int open = 2; open > 0;) {
    if (poll(fds, 2, 30000) <= 0) break;  // a hung command fails the test below
    for (auto& fd : fds) {
      if (fd.fd < 0 || fd.revents == 0) continue;
      char buf[4096];
      const ssize_t n = read(fd.fd, buf, sizeof buf);
      if (n <= 0) {
        close(fd.fd);
        fd.fd = -1;
        --open;
      } else {
        (&fd == &fds[0] ? r.out : r.err).append(buf, static_cast<size_t>(n));
      }
    }
  }
  kill(pid, SIGKILL);  // only if it is still running
  int status = 0;
  waitpid(pid, &status, 0);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// Runs a command that must succeed and returns its output as JSON.
json Json(std::vector<std::string> args) {
  args.insert(args.begin(), "--json");
  const Result r = Pelorus(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return json::parse(r.out, nullptr, false);
}

// Runs a command that must succeed.
void Ok(const std::vector<std::string>& args) {
  const Result r = Pelorus(args);
  EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
}

// The entry of `list --json` for `vnet`, or null.
json Listed(const std::string& vnet) {
  for (const json& v : Json({"list"}))
    if (v["name"] == vnet) return v;
  return json();
}

class Cli : public ::testing::Test {
 protected:
  void SetUp() override { WriteProductConfig(); }
};

TEST_F(Cli, VnetsAreCreatedShownChangedAndDeleted) {
  Ok({"create", "kavix8", "--subnet", "10.8.0.0/24", "--adapter", "--dhcp", "--nat", "--mtu",
      "1400", "--name", "Lab net"});
  json v = Json({"show", "8"});
  EXPECT_EQ(v["name"], "kavix8");
  EXPECT_EQ(v["displayName"], "Lab net");
  EXPECT_EQ(v["subnet"], "10.8.0.0");
  EXPECT_EQ(v["prefixLength"], 24);
  EXPECT_EQ(v["mtu"], 1400);
  EXPECT_TRUE(v["dhcp"].get<bool>() && v["nat"].get<bool>() &&
              v["adapter"]["configured"].get<bool>());
  EXPECT_EQ(v["adapter"]["address"], "10.8.0.1");
  EXPECT_EQ(v["services"]["dhcp"], "stopped");
  EXPECT_TRUE(FileExists(v["files"]["dhcpdConf"].get<std::string>()));
  EXPECT_EQ(Listed("kavix8")["subnet"], "10.8.0.0");
  // get and set, key by key.
  const struct {
    const char *key, *value;
    json read;
  } kKeys[] = {{"name", "Other name", "Other name"},
               {"mtu", "1500", 1500},
               {"subnet", "10.9.0.0/16", "10.9.0.0"},
               {"netmask", "255.255.255.0", "255.255.255.0"},
               {"adapter-address", "10.9.0.7", "10.9.0.7"}};
  for (const auto& k : kKeys) {
    SCOPED_TRACE(k.key);
    Ok({"set", "kavix8", k.key, k.value});
    EXPECT_EQ(Json({"get", "kavix8", k.key})["value"], k.read);
  }
  Ok({"delete", "kavix8"});
  EXPECT_TRUE(Listed("kavix8").is_null());
  EXPECT_FALSE(FileExists(v["files"]["dhcpdConf"].get<std::string>()));
  EXPECT_EQ(Pelorus({"show", "kavix8"}).status, 1);
}

TEST_F(Cli, MappingsForwardsParametersAndPrefixes) {
  Ok({"create", "kavix8", "--subnet", "192.168.8.0/24", "--dhcp", "--nat"});
  Ok({"dhcp", "kavix8", "map", "add", "00:50:56:00:00:10", "192.168.8.10"});
  Ok({"nat", "kavix8", "forward", "add", "tcp", "8080", "192.168.8.10:80", "--description",
      "web server"});
  Ok({"nat", "kavix8", "forward", "add", "udp", "5353", "192.168.8.10:53"});
  Ok({"dhcp", "kavix8", "param", "set", "domain-name", "example.com"});
  Ok({"nat", "kavix8", "param", "set", "udp-timeout", "120"});
  Ok({"nat", "kavix8", "prefix", "add", "fd00:8::/64"});
  json v = Json({"show", "kavix8"});
  EXPECT_EQ(v["mappings"], json::parse(R"([{"mac":"00:50:56:00:00:10","ip":"192.168.8.10"}])"));
  EXPECT_EQ(v["forwards"], json::parse(R"([
      {"protocol":"tcp","hostPort":8080,"guestIp":"192.168.8.10","guestPort":80,
       "description":"web server"},
      {"protocol":"udp","hostPort":5353,"guestIp":"192.168.8.10","guestPort":53,
       "description":""}])"));
  auto param = [](const json& params, const std::string& name) {
    for (const json& p : params)
      if (p["name"] == name) return p;
    return json();
  };
  EXPECT_EQ(param(v["dhcpParams"], "domain-name"),
            json({{"name", "domain-name"}, {"value", "\"example.com\""}, {"default", false}}));
  EXPECT_EQ(param(v["natParams"], "udp-timeout")["value"], "120");
  EXPECT_EQ(param(v["dhcpParams"], "routers"),
            json({{"name", "routers"}, {"value", "192.168.8.2"}, {"default", true}}));
  EXPECT_EQ(Listed("kavix8")["portForwards"], 2);
  // And back.
  Ok({"dhcp", "kavix8", "param", "unset", "domain-name"});
  Ok({"dhcp", "kavix8", "map", "remove", "00:50:56:00:00:10"});
  Ok({"nat", "kavix8", "forward", "remove", "tcp", "8080"});
  Ok({"nat", "kavix8", "prefix", "remove", "fd00:8::/64"});
  EXPECT_EQ(param(Json({"dhcp", "kavix8", "param", "list"}), "domain-name")["default"], true);
  EXPECT_EQ(Json({"dhcp", "kavix8", "map", "list"}), json::array());
  EXPECT_EQ(Json({"nat", "kavix8", "forward", "list"}).size(), 1u);
  // Tables for people: one tab between fields when stdout is not a terminal.
  EXPECT_EQ(Pelorus({"nat", "kavix8", "forward", "list"}).out,
            "PROTO\tHOSTPORT\tGUEST\tDESCRIPTION\nudp\t5353\t192.168.8.10:53\t-\n");
}

// Usage errors exit 2, failed operations 1, each with one line on stderr
// saying why; nothing of a refused change reaches the database.
TEST_F(Cli, ExitStatusesAndErrorLines) {
  Ok({"create", "kavix8", "--subnet", "192.168.8.0/24", "--dhcp", "--nat"});
  const std::string database = ReadFile(kDatabasePath);
  const struct {
    std::vector<std::string> args;
    int status;
    const char* line;
  } kRuns[] = {
      {{"frobnicate"}, 2, "pelorus: unknown command: frobnicate"},
      {{"show"}, 2, "vnet is required"},
      {{"show", "kavix256"}, 2, "pelorus: not a vnet: kavix256"},
      {{"get", "kavix8", "colour"}, 2, "colour"},
      {{"nat", "kavix8", "forward", "add", "tcp", "80", "192.168.8.10"},
       2,
       "pelorus: not GUESTIP:GUESTPORT: 192.168.8.10"},
      {{"dhcp", "kavix8", "param", "set", "colour", "red"},
       2,
       "pelorus: unknown parameter: colour"},
      {{"create", "kavix9", "--subnet", "10.0.0.0/33"}, 2, "pelorus: not a subnet: 10.0.0.0/33"},
      {{"show", "kavix9"}, 1, "pelorus: kavix9 is not configured\n"},
      {{"create", "kavix8"}, 1, "pelorus: kavix8 is already configured\n"},
      {{"dhcp", "kavix8", "map", "add", "zz", "192.168.8.10"},
       1,
       "pelorus: cannot add the mapping: MAC address is not valid: zz\n"},
      {{"dhcp", "kavix8", "param", "set", "domain-name", "x; option routers 10.6.6.6"},
       1,
       "pelorus: cannot set domain-name: Invalid domain name: x; option routers 10.6.6.6"},
      {{"set", "kavix8", "netmask", "255.0.255.0"}, 1, "pelorus: cannot set netmask"},
  };
  for (const auto& run : kRuns) {
    SCOPED_TRACE(run.args[0] + (run.args.size() > 1 ? " " + run.args[1] : ""));
    const Result r = Pelorus(run.args);
    EXPECT_EQ(r.status, run.status);
    EXPECT_NE(r.err.find(run.line), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "");
  }
  EXPECT_EQ(ReadFile(kDatabasePath), database);
  // Without root a change is refused before anything is loaded.
  const Result r =
      Pelorus({"nat", "kavix8", "forward", "add", "tcp", "80", "192.168.8.10:80"}, 65534);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "pelorus: changing the configuration needs root\n");
  EXPECT_EQ(ReadFile(kDatabasePath), database);
}

// A create that cannot finish leaves the database byte for byte as it was.
TEST_F(Cli, CreateThatFailsLeavesNothingBehind) {
  Ok({"create", "kavix1", "--subnet", "10.1.0.0/24"});
  const std::string database = ReadFile(kDatabasePath);
  SetPingRules("* 0\n");  // every candidate subnet answers: all are taken
  Result r = Pelorus({"create", "kavix5", "--dhcp", "--nat"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("pelorus: no free subnet found"), std::string::npos) << r.err;
  EXPECT_EQ(ReadFile(kDatabasePath), database);
  // A step that fails after others were written takes them back: here the
  // vnet's directory cannot be made, so dhcpd.conf cannot be written.
  WriteFile("/etc/tarsis/kavix6", "in the way\n");
  r = Pelorus(
      {"create", "kavix6", "--subnet", "10.6.0.0/24", "--mtu", "1400", "--name", "six", "--dhcp"});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_TRUE(Listed("kavix6").is_null());
}

// --sandbox keeps its state between invocations and never touches the host.
TEST_F(Cli, SandboxKeepsStateAndLeavesTheHostAlone) {
  WriteDatabase("answer VNET_1_DISPLAY_NAME host net\n");
  const std::string host = ReadFile(kDatabasePath);
  Ok({"--sandbox", "/tmp/sb", "create", "kavix3", "--subnet", "10.3.0.0/24"});
  const json v = Json({"--sandbox", "/tmp/sb", "show", "kavix3"});
  EXPECT_EQ(v["subnet"], "10.3.0.0");
  EXPECT_TRUE(FileExists("/tmp/sb/tarsis/networking"));
  EXPECT_EQ(ReadFile(kDatabasePath), host);
  EXPECT_EQ(Pelorus({"show", "kavix3"}).status, 1) << "the host has no kavix3";
}

// Two pelorus processes adding 100 forwards each at the same time lose none.
TEST_F(Cli, TwoProcessesAtOnceLoseNothing) {
  Ok({"create", "kavix8", "--subnet", "192.168.8.0/24", "--nat"});
  std::vector<pid_t> writers;
  for (int w = 0; w < 2; ++w) {
    const pid_t pid = fork();
    if (pid == 0) {
      int failures = 0;
      for (int i = 0; i < 100; ++i)
        failures += Pelorus({"nat", "kavix8", "forward", "add", w == 0 ? "tcp" : "udp",
                             std::to_string(1000 + i), "192.168.8.10:" + std::to_string(i + 1)})
                        .status != 0;
      _exit(failures == 0 ? 0 : 1);
    }
    writers.push_back(pid);
  }
  for (pid_t pid : writers) {
    int status = -1;
    ASSERT_TRUE(WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 100000));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(Json({"nat", "kavix8", "forward", "list"}).size(), 200u);
}

}  // namespace
}  // namespace plr::test
