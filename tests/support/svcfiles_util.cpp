#include "tests/support/svcfiles_util.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "base/sha1.h"
#include "base/str-util.h"
#include "tests/support/sandbox.h"

namespace plr::test {

namespace {
std::string VnetPath(unsigned vnet, const char* rest) {
  return "/etc/tarsis/kavix" + std::to_string(vnet) + rest;
}
}  // namespace

std::string DhcpConfPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.conf");
}
std::string DhcpBackupPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.conf.bak");
}
std::string DhcpLeasesPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.leases");
}
std::string NatConfPath(unsigned vnet) {
  return VnetPath(vnet, "/nat/nat.conf");
}
std::string NatBackupPath(unsigned vnet) {
  return VnetPath(vnet, "/nat/nat.conf.bak");
}

std::string VnetRecords(unsigned vnet, const std::string& subnet, const std::string& mask,
                        bool nat) {
  std::string n = std::to_string(vnet);
  return "answer VNET_" + n + "_HOSTONLY_SUBNET " + subnet + "\n" + "answer VNET_" + n +
         "_HOSTONLY_NETMASK " + mask + "\n" + "answer VNET_" + n + "_DHCP yes\n" + "answer VNET_" +
         n + "_NAT " + (nat ? "yes" : "no") + "\n";
}

std::string MaskWrittenAt(const std::string& text) {
  static const std::string kPrefix = "# Written at: ";
  std::string out = text;
  for (size_t at = out.find(kPrefix); at != std::string::npos;
       at = out.find(kPrefix, at + kPrefix.size())) {
    size_t end = out.find('\n', at);
    if (end == std::string::npos) break;
    out.replace(at + kPrefix.size(), end - at - kPrefix.size(), "<TIME>");
  }
  return out;
}

std::string DhcpBlockOf(const std::string& text) {
  static const std::string kStart = "###### KAVIX DHCP Configuration. Start of";
  static const std::string kEnd =
      "####### KAVIX DHCP Configuration. End of \"DO NOT MODIFY SECTION\" #######\n";
  size_t start = text.find(kStart);
  size_t end = text.find(kEnd);
  if (start == std::string::npos || end == std::string::npos || end < start) return "";
  return text.substr(start, end + kEnd.size() - start);
}

std::string Sha1Upper(const std::string& data) {
  std::string hex = Sha1Hex(data);
  for (char& c : hex) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return hex;
}

bool DhcpdAccepts(const std::string& path, std::string* output) {
  std::string out = Capture("dhcpd -4 -t -cf '" + path + "' 2>&1; echo \"rc=$?\"");
  if (output != nullptr) *output = out;
  return out.size() >= 5 && out.compare(out.size() - 5, 5, "rc=0\n") == 0;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
  for (int waited = 0;; waited += 50) {
    if (done()) return true;
    if (waited >= timeoutMs) return false;
    usleep(50 * 1000);
  }
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& logPath) {
  pid_ = ::fork();
  if (pid_ != 0) return;
  FILE* log = freopen(logPath.c_str(), "w", stdout);
  if (log != nullptr) dup2(fileno(stdout), STDERR_FILENO);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

ChildProcess::~ChildProcess() {
  Stop();
}

bool ChildProcess::Running() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

void ChildProcess::Stop() {
  if (!Running()) return;
  kill(pid_, SIGTERM);
  if (!WaitUntil([this] { return !Running(); }, 3000)) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
}

int SvcFilesTest::LogCount(const std::string& text) const {
  return CountOf(Log(), text);
}

}  // namespace plr::test
