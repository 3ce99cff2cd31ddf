#include "tests/support/api_util.h"

#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

constexpr const char* kFixtureDir = "/tmp/kavix-fixture";

}  // namespace

std::string Vnet1Records() {
  return "answer VNET_1_HOSTONLY_SUBNET 192.168.1.0\n"
         "answer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n"
         "answer VNET_1_DISPLAY_NAME Lab network\n";
}

void ApiTest::Mark() {
  struct stat st;
  logOffset_ = stat(kLogPath, &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
  markedDatabase_ = Database();
}

std::vector<std::string> ApiTest::LinesSinceMark() const {
  static const std::regex kStamp("^[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} ");
  std::string text = Log();
  text = logOffset_ <= text.size() ? text.substr(logOffset_) : "";
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(std::regex_replace(line, kStamp, ""));
  return lines;
}

bool ApiTest::LoggedSinceMark(const std::string& line) const {
  for (const std::string& l : LinesSinceMark())
    if (l == line) return true;
  return false;
}

std::string Answer(uint32_t vnet, const std::string& key) {
  const char* value = PLRGetVnetCfg(vnet, key.c_str());
  return value != nullptr ? value : "<absent>";
}

int RunBounded(const std::string& command, unsigned seconds) {
  return Run("timeout " + std::to_string(seconds) + " sh -c '" + command + "'");
}

void SetDaemonMode(const std::string& daemon, const std::string& modeLines) {
  mkdir(kFixtureDir, 0755);
  WriteFile(std::string(kFixtureDir) + "/" + daemon + ".mode", modeLines);
}

void KillFixtureDaemons() {
  for (const char* name : {"kavix-bridge", "kavix-netifup", "kavix-dhcpd", "kavix-natd"}) {
    std::ifstream in(std::string(kFixtureDir) + "/" + name + ".pids");
    int pid;
    while (in >> pid)
      if (pid > 1) kill(pid, SIGKILL);
  }
}

bool ProcessAlive(int pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(in, text)) return false;
  size_t close = text.rfind(')');
  return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}

}  // namespace plr::test
