// Test support for the service-file generators: a vnet set up in a loaded
// database, the generated files' paths, the real DHCP server's syntax check,
// and child processes that a case starts and always stops again.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/vnet_util.h"

namespace plr::test {

// Paths of vnet `vnet`'s generated files under the default CONFIGDIR.
std::string DhcpConfPath(unsigned vnet);
std::string DhcpBackupPath(unsigned vnet);
std::string DhcpLeasesPath(unsigned vnet);
std::string NatConfPath(unsigned vnet);
std::string NatBackupPath(unsigned vnet);

// The database records of a vnet with a subnet, DHCP on and NAT as given.
std::string VnetRecords(unsigned vnet, const std::string& subnet, const std::string& mask,
                        bool nat);

// The text with its "# Written at: ..." line's time replaced by "<TIME>".
std::string MaskWrittenAt(const std::string& text);

// The protected block of a dhcpd.conf text (markers included), or "".
std::string DhcpBlockOf(const std::string& text);

// Upper-case hex SHA-1 of `data`.
std::string Sha1Upper(const std::string& data);

// Runs the real DHCP server's configuration check on `path`; false with its
// output in `output` when the server rejects the file.
bool DhcpdAccepts(const std::string& path, std::string* output);

// Calls `done` every 50 ms until it is true or `timeoutMs` passed.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs);

// A program started by a case. The destructor stops it (SIGTERM, then
// SIGKILL after a bounded wait) and reaps it, so nothing outlives the case.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv, const std::string& logPath);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }
  // True while the program has not exited.
  bool Running();
  void Stop();

 private:
  pid_t pid_ = -1;
};

// A case with the library loaded and a vnet's generated files at hand.
class SvcFilesTest : public LoadedLibraryTest {
 protected:
  // Log lines (time stamps removed) that contain `text`.
  int LogCount(const std::string& text) const;
};

}  // namespace plr::test
