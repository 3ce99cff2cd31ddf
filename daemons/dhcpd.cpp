// kavix-dhcpd -s FD -cf CONF -lf LEASES -pf PIDFILE kavix<n>
//
// Runs the ISC DHCP server on the vnet's interface and stays as its keeper:
// the configuration is checked with `dhcpd -t` first (its own error lines are
// logged when it refuses), LEASES is created when missing and kept across
// restarts, status goes out once the server has written its PID file, and
// SIGTERM stops the server. The keeper's own PID is in PIDFILE.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemons/daemon.h"

namespace {

constexpr const char* kServer = "/usr/sbin/dhcpd";
constexpr int kServerStartMs = 10000;

// Starts `argv` with stdout and stderr into `out` (or left as they are when
// -1); the child's PID, or -1.
pid_t Spawn(const std::vector<std::string>& args, int out) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (out >= 0) {
      dup2(out, 1);
      dup2(out, 2);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

// Runs `dhcpd -t` on the configuration; its output lines are logged when it
// refuses the file.
bool ConfigAccepted(const kavix::Daemon& daemon, const std::string& conf) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return false;
  const pid_t pid = Spawn({kServer, "-t", "-4", "-cf", conf}, pipeFds[1]);
  close(pipeFds[1]);
  std::string output;
  char buf[4096];
  for (ssize_t n; (n = read(pipeFds[0], buf, sizeof buf)) > 0;) output.append(buf, n);
  close(pipeFds[0]);
  int status = -1;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  daemon.Log("dhcpd refuses %s:", conf.c_str());
  size_t at = 0;
  for (size_t end; (end = output.find('\n', at)) != std::string::npos; at = end + 1)
    if (end > at) daemon.Log("dhcpd: %s", output.substr(at, end - at).c_str());
  return false;
}

// Stops the server named by `serverPid` when it is still running, which
// only happens after its keeper was killed: its command line names that file.
void StopLeftoverServer(const kavix::Daemon& daemon, const std::string& serverPid) {
  FILE* in = fopen(serverPid.c_str(), "re");
  if (in == nullptr) return;
  int pid = 0;
  const bool read = fscanf(in, "%d", &pid) == 1;
  fclose(in);
  if (!read || pid <= 1) return;
  FILE* cmd = fopen(("/proc/" + std::to_string(pid) + "/cmdline").c_str(), "re");
  if (cmd == nullptr) return;
  std::string cmdline;
  for (int c; (c = fgetc(cmd)) != EOF;) cmdline += static_cast<char>(c);
  fclose(cmd);
  if (cmdline.find(serverPid) == std::string::npos) return;
  daemon.Log("stopping dhcpd pid %d left by an earlier instance", pid);
  kill(pid, SIGTERM);
  for (int i = 0; i < 50 && kill(pid, 0) == 0; ++i) {
    struct timespec pause = {0, 20 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
  kill(pid, SIGKILL);
}

}  // namespace

int main(int argc, char** argv) {
  kavix::Daemon daemon("kavix-dhcpd");
  const char* usage = "-s FD -cf CONF -lf LEASES -pf PIDFILE kavix<n>";
  long statusFd = -1;
  std::string conf, leases, pidFile, iface;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "-s" && hasValue) {
      if (!kavix::ParseNumber(argv[++i], 0, 65535, &statusFd)) daemon.Usage(usage);
    } else if (arg == "-cf" && hasValue) {
      conf = argv[++i];
    } else if (arg == "-lf" && hasValue) {
      leases = argv[++i];
    } else if (arg == "-pf" && hasValue) {
      pidFile = argv[++i];
    } else if (arg.rfind("kavix", 0) == 0 && iface.empty()) {
      iface = arg;
    } else {
      daemon.Usage(usage);
    }
  }
  if (statusFd < 0 || conf.empty() || leases.empty() || pidFile.empty() || iface.empty())
    daemon.Usage(usage);
  daemon.SetVnet(iface);

  daemon.Detach();
  if (!daemon.ClaimPidFile(pidFile)) daemon.FailStart();
  if (!ConfigAccepted(daemon, conf)) daemon.FailStart();
  const int created = open(leases.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (created < 0) {
    daemon.Log("cannot create the leases file %s: %s", leases.c_str(), strerror(errno));
    daemon.FailStart();
  }
  close(created);

  // The server writes its own PID file once it serves; the keeper's is PIDFILE.
  // A server left by a keeper that was killed goes first.
  const std::string serverPid = pidFile + ".server";
  StopLeftoverServer(daemon, serverPid);
  unlink(serverPid.c_str());
  daemon.BlockSignals();
  const pid_t server =
      Spawn({kServer, "-d", "-q", "-4", "-cf", conf, "-lf", leases, "-pf", serverPid, iface}, -1);
  if (server < 0) {
    daemon.Log("cannot start %s: %s", kServer, strerror(errno));
    daemon.FailStart();
  }
  struct stat st;
  for (int waited = 0; stat(serverPid.c_str(), &st) != 0; waited += 20) {
    if (waitpid(server, nullptr, WNOHANG) == server || waited >= kServerStartMs) {
      daemon.Log("dhcpd did not start on %s (its own lines above say why)", iface.c_str());
      kill(server, SIGKILL);
      waitpid(server, nullptr, 0);
      daemon.FailStart();
    }
    struct timespec pause = {0, 20 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
  daemon.Log("serving %s (dhcpd pid %d)", iface.c_str(), static_cast<int>(server));
  daemon.ReportUp(static_cast<int>(statusFd));

  const bool stopped = daemon.WaitForStop(server);
  if (stopped) {
    kill(server, SIGTERM);
    while (waitpid(server, nullptr, 0) < 0 && errno == EINTR) {
    }
    daemon.Log("dhcpd stopped");
  } else {
    daemon.Log("dhcpd ended on its own");
  }
  unlink(serverPid.c_str());
  daemon.ReleasePidFile();
  return stopped ? 0 : 1;
}
