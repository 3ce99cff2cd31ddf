#include "cli/session.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace pelorus_cli {

void UsageError(const std::string& line) {
  throw CommandError(kExitUsage, line);
}

Vnet ParseVnet(const std::string& text) {
  std::string digits = text;
  if (digits.rfind("kavix", 0) == 0) digits = digits.substr(5);
  const bool numeric = !digits.empty() && digits.size() <= 3 &&
                       digits.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long number = numeric ? std::stoul(digits) : PLR_MAX_VNETS;
  if (number >= PLR_MAX_VNETS || (digits.size() > 1 && digits[0] == '0'))
    UsageError("not a vnet: " + text + " (kavix0 to kavix" + std::to_string(PLR_MAX_VNETS - 1) +
               ", or its number)");
  return Vnet{static_cast<uint32_t>(number), "kavix" + std::to_string(number)};
}

Session::Session(bool writes) {
  if (writes && geteuid() != 0)
    throw CommandError(kExitFailed, "changing the configuration needs root");
  if (writes && !PLR_NetworkingDBExists() && !PLR_CreateNetworkingDB(false))
    throw CommandError(kExitFailed, "cannot create the networking database");
  if (!writes && !PLR_NetworkingDBExists())
    throw CommandError(kExitFailed,
                       "no networking database yet (/etc/tarsis/networking); "
                       "create a vnet first");
  if (!PLR_Load(writes ? 0 : 1))
    throw CommandError(kExitFailed, "cannot load the networking database (see the log)");
  // The log the library writes to, wherever it was configured to be.
  if (plrContext.logStream != nullptr)
    logPath_ = "/proc/self/fd/" + std::to_string(fileno(plrContext.logStream));
}

Session::~Session() {
  PLR_Unload();
}

void Session::Mark() {
  struct stat st;
  logMark_ = !logPath_.empty() && stat(logPath_.c_str(), &st) == 0 ? st.st_size : 0;
}

std::vector<Session::LogLine> Session::LoggedSinceMark() const {
  std::vector<LogLine> lines;
  std::ifstream log(logPath_);
  log.seekg(logMark_);
  for (std::string line; std::getline(log, line);) {
    if (line.size() > 16) line = line.substr(16);  // "Mon DD HH:MM:SS "
    const size_t dash = line.find(" - ");
    if (dash != std::string::npos && line.find(' ') == dash)
      lines.push_back({line.substr(0, dash), line.substr(dash + 3)});
    else
      lines.push_back({"", line});
  }
  return lines;
}

void Session::Check(bool ok, const std::string& what) {
  if (ok) return;
  // The API function's own line says what was wrong in the caller's terms;
  // the lines of the layers below it name details, the ones after it only
  // repeat that it failed.
  std::string reason;
  for (const LogLine& line : LoggedSinceMark()) {
    if (line.text.empty() || line.function.empty()) continue;
    if (line.function.rfind("PLR_", 0) == 0) {
      reason = line.text;
      break;
    }
    if (reason.empty()) reason = line.text;
  }
  throw CommandError(kExitFailed, reason.empty() ? what : what + ": " + reason);
}

}  // namespace pelorus_cli
