// Starting, stopping, watching and restarting the per-vnet service daemons.
//
// Start forks and execs the daemon with a fixed command line and waits for a
// two-byte status on a pipe whose write end the daemon inherits (its number
// is passed with -s). The daemon detaches: the forked process exits once the
// real daemon runs, and the real daemon writes its PID file in RUNDIR. Stop
// and status work only from that PID file; a PID file naming 0, 1 or a
// negative number is never acted on (see PLRExtractPidFromFile).
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>
#include <string>
#include <vector>

#include "base/fd-util.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "base/time-util.h"
#include "core/log.h"
#include "pelorus/bridge.h"
#include "pelorus/files.h"
#include "pelorus/netcfg.h"
#include "pelorus/services.h"
#include "pelorus/vnet.h"
#include "services/service-internal.h"
#include "vnet/bridge-util.h"

namespace plr {
namespace {

constexpr uint64_t kStopPollUs = 50000;
constexpr uint64_t kStopTimeoutUs = 3000000;
// How long a start waits for the forked process to exit (the daemon has
// detached) and then for the daemon's status.
constexpr unsigned kStartStepTimeoutMs = 10000;

// The daemon's command line: owned strings plus the NULL-terminated pointer
// array execv wants, built before the fork so the child allocates nothing.
struct CommandLine {
  std::vector<std::string> args;
  std::vector<char*> argv;

  void Add(std::string arg) { args.push_back(std::move(arg)); }
  // Points argv at the final strings; nothing may be added afterwards.
  void Seal() {
    argv.clear();
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
  }
  const char* path() const { return args.front().c_str(); }
};

// A path of the file-name table into a string; PLRGetFileName logs its own failure.
bool FileNameOf(uint32_t vnet, uint32_t type, std::string* out) {
  char buf[256];
  if (!PLRGetFileName(vnet, type, buf, sizeof buf)) return false;
  *out = buf;
  return true;
}

// Appends one "-i<name>" or "-e<name>" per host adapter the bridge daemon
// serves: for the default bridge vnet the adapters mapped elsewhere are
// excluded; any other vnet includes exactly the adapters bridged to it.
bool AddBridgeAdapters(const char* function, uint32_t vnet, CommandLine* cmd) {
  uint32_t defaultBridge = PLR_VNET_NONE;
  if (!PLRGetDefaultBridgeVnet(&defaultBridge)) {
    PLOG_AS(function, LOG_ERR, "Cannot obtain value of DefaultBridge");
    return false;
  }
  AdapterList list;
  uint32_t count = 0;
  const char* flag;
  if (vnet == defaultBridge) {
    if (!PLRNetCfgLookupHostAdaptersForVnet(nullptr, vnet, &count, list.out(), true)) {
      PLOG_AS(function, LOG_ERR, "Cannot obtain list of adapters excluded from vnet: %d",
              static_cast<int>(vnet));
      return false;
    }
    flag = "-e";
  } else {
    if (!PLRGetVnetBridge(vnet, &count, list.out())) {
      PLOG_AS(function, LOG_ERR, "Cannot obtain list of adapters bridged to vnet: %d",
              static_cast<int>(vnet));
      return false;
    }
    flag = "-i";
  }
  for (const PLR_HostAdapter* a = list.get(); a != nullptr; a = a->next)
    cmd->Add(StrPrintf("%s%s", flag, a->name));
  return true;
}

// Fills the service's fixed command line after the program path.
bool BuildArguments(const char* function, uint32_t vnet, uint32_t service, int statusFd,
                    const char* pidFile, CommandLine* cmd) {
  const std::string fd = StrPrintf("%d", statusFd);
  const std::string vnetName = VnetNameOf(vnet);
  switch (service) {
    case PLR_SERVICE_BRIDGE:
      for (const char* arg : {"-s", fd.c_str(), "-d", pidFile, "-n"}) cmd->Add(arg);
      cmd->Add(StrPrintf("%d", static_cast<int>(vnet)));
      return AddBridgeAdapters(function, vnet, cmd);
    case PLR_SERVICE_NETIFUP: {
      cmd->Add("-s");
      cmd->Add(fd);
      if (const char* mtu = PLRGetVnetCfg(vnet, "MTU")) {
        cmd->Add("-m");
        cmd->Add(mtu);
      }
      std::string device;
      if (!FileNameOf(vnet, PLR_FILE_KAVIX_DEVICE, &device)) return false;
      char adapter[16];
      if (!PLRGetVnetVirtAdapter(vnet, adapter, sizeof adapter)) {
        PLOG_AS(function, LOG_ERR, "Cannot obtain virtual adapter name");
        return false;
      }
      for (const char* arg : {"-d", pidFile, device.c_str(), static_cast<const char*>(adapter)})
        cmd->Add(arg);
      return true;
    }
    case PLR_SERVICE_DHCP: {
      std::string conf, leases;
      if (!FileNameOf(vnet, PLR_FILE_DHCP_CONF, &conf) ||
          !FileNameOf(vnet, PLR_FILE_DHCP_LEASES, &leases))
        return false;
      for (const char* arg : {"-s", fd.c_str(), "-cf", conf.c_str(), "-lf", leases.c_str(), "-pf",
                              pidFile, vnetName.c_str()})
        cmd->Add(arg);
      return true;
    }
    case PLR_SERVICE_NAT: {
      std::string mac, conf;
      if (!FileNameOf(vnet, PLR_FILE_NAT_MAC, &mac) || !FileNameOf(vnet, PLR_FILE_NAT_CONF, &conf))
        return false;
      for (const char* arg :
           {"-s", fd.c_str(), "-d", pidFile, "-m", mac.c_str(), "-c", conf.c_str()})
        cmd->Add(arg);
      return true;
    }
    default:
      PLOG_AS(function, LOG_ERR, "Invalid service name %d", static_cast<int>(service));
      return false;
  }
}

// Builds the whole command line of `service`; the PID file name is part of it.
bool BuildCommandLine(const char* function, uint32_t vnet, uint32_t service, const char* binDir,
                      int statusFd, CommandLine* cmd) {
  const char* program = DefaultProgramForService(service);
  if (program == nullptr) {
    PLOG_AS(function, LOG_ERR, "Invalid service name %d", static_cast<int>(service));
    return false;
  }
  char* pidFile = nullptr;
  if (!PLRGetPidFilename(vnet, service, &pidFile, nullptr)) return false;
  std::string pid(pidFile);
  free(pidFile);
  cmd->Add(StrPrintf("%s/%s", binDir, program));
  if (!BuildArguments(function, vnet, service, statusFd, pid.c_str(), cmd)) return false;
  cmd->Seal();
  return true;
}

// Runs in the forked child until exec: the daemon's stdout and stderr go to
// the library's log file, it inherits the status pipe's write end but not
// the log descriptor itself (the library opens everything else close-on-exec)
// and starts with no signal blocked. The child never returns.
[[noreturn]] void ExecDaemon(const char* function, const CommandLine& cmd, int readFd,
                             int writeFd) {
  int logFd = plrContext.logStream != nullptr ? fileno(plrContext.logStream) : -1;
  if (logFd > 2) {
    close(1);
    close(2);
    int err = dup2(logFd, 2);
    int out = dup2(logFd, 1);
    PLOG_AS(function, LOG_INFO, "Duping Fds status %d, %d", err, out);
    // The log descriptor itself must not reach the daemon; keeping it open
    // until the exec lets the child's own lines below still reach the log.
    fcntl(logFd, F_SETFD, fcntl(logFd, F_GETFD) | FD_CLOEXEC);
  } else {
    PLOG_AS(function, LOG_ERR, "Could not open log fd in child");
  }
  close(readFd);
  int flags = fcntl(writeFd, F_GETFD);
  if (flags >= 0) fcntl(writeFd, F_SETFD, flags & ~FD_CLOEXEC);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
  PLOG_AS(function, LOG_INFO, "Child process started");
  execv(cmd.path(), cmd.argv.data());
  PLOG_AS(function, LOG_ERR, "exec(): Error while starting daemon: %s, error: %s", cmd.path(),
          strerror(errno));
  // _exit: the caller's atexit handlers and stdio buffers belong to the parent.
  _exit(1);
}

// Reaps the forked process, which exits as soon as the daemon has detached;
// its exit status is only logged. One that has not exited within the bound
// is killed: false.
bool WaitForDetach(const char* function, pid_t pid, const char* program) {
  const uint64_t deadline = MonotonicNs() + uint64_t{kStartStepTimeoutMs} * 1000000u;
  pid_t reported;
  for (;;) {
    reported = waitpid(pid, nullptr, WNOHANG);
    if (reported != 0 && !(reported < 0 && errno == EINTR)) break;
    if (MonotonicNs() >= deadline) {
      PLOG_AS(function, LOG_ERR, "Daemon: %s did not detach within %u ms, killing pid: %d", program,
              kStartStepTimeoutMs, static_cast<int>(pid));
      kill(pid, SIGKILL);
      while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
      return false;
    }
    usleep(kStopPollUs / 5);
  }
  if (reported < 1)
    PLOG_AS(function, LOG_WRN, "waitpid() reported pid: %d, reported error: %s",
            static_cast<int>(reported), strerror(errno));
  else
    PLOG_AS(function, LOG_INFO, "waitpid() reported pid: %d, reported error: %s",
            static_cast<int>(reported), "none");
  return true;
}

// Reads the daemon's status: any byte means it started (the value is only
// logged); end of file means every copy of the write end closed unwritten.
// No status within the bound is a failure too, and sets *timedOut.
bool ReadDaemonStatus(const char* function, int readFd, const char* program, bool* timedOut) {
  struct pollfd ready = {readFd, POLLIN, 0};
  int polled;
  do {
    polled = poll(&ready, 1, static_cast<int>(kStartStepTimeoutMs));
  } while (polled < 0 && errno == EINTR);
  if (polled == 0) {
    PLOG_AS(function, LOG_ERR, "Daemon: %s did not report status within %u ms", program,
            kStartStepTimeoutMs);
    *timedOut = true;
    return false;
  }
  unsigned char bytes[2] = {0, 0};
  ssize_t n;
  do {
    n = sys::read(readFd, bytes, sizeof bytes);
  } while (n < 0 && errno == EINTR);
  if (n > 0) {
    uint16_t value;
    memcpy(&value, bytes, sizeof value);
    PLOG_AS(function, LOG_INFO, "Child process wrote status value: %u", value);
    return true;
  }
  if (n == 0) {
    PLOG_AS(function, LOG_WRN, "Daemon process did not report status, returning failure");
    return false;
  }
  PLOG_AS(function, LOG_ERR, "read() failed, error: %s", strerror(errno));
  return false;
}

// Microseconds of the monotonic clock.
uint64_t NowUs() {
  return MonotonicNs() / 1000;
}

// Waits, polling every 50 ms, for a process that was sent SIGTERM to go away;
// after 3 s it is sent SIGKILL and not waited for again.
void AwaitExitOrKill(const char* function, pid_t pid, const char* desc) {
  const uint64_t start = NowUs();
  for (;;) {
    usleep(kStopPollUs);
    if (kill(pid, 0) != 0 && errno == ESRCH) {
      PLOG_AS(function, LOG_INFO, "Successfully killed %s service daemon, pid: %ld", desc,
              static_cast<long>(pid));
      return;
    }
    if (NowUs() - start > kStopTimeoutUs) {
      PLOG_AS(function, LOG_INFO,
              "Timeout expired while waiting for %s service daemon, pid: %ld to quit", desc,
              static_cast<long>(pid));
      kill(pid, SIGKILL);
      return;
    }
  }
}

// Whether `pid` is the service's daemon: never the caller or PID 1, and only
// a process whose command line names `pidFile` as one of its arguments
// (every daemon is started with it). Any other process, or one that is gone,
// makes the PID file stale.
bool IsServiceDaemon(pid_t pid, const char* pidFile) {
  if (pid <= 1 || pid == getpid()) return false;
  char path[32];
  snprintf(path, sizeof path, "/proc/%d/cmdline", static_cast<int>(pid));
  UniqueFd fd(sys::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) return false;
  std::string cmdline;
  char buf[4096];
  for (ssize_t n; (n = sys::read(fd.get(), buf, sizeof buf)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    cmdline.append(buf, static_cast<size_t>(n));
  }
  for (size_t at = 0; at < cmdline.size();) {
    const size_t end = cmdline.find('\0', at);
    const size_t length = (end == std::string::npos ? cmdline.size() : end) - at;
    if (cmdline.compare(at, length, pidFile) == 0) return true;
    at += length + 1;
  }
  return false;
}

// Kills a daemon that was started but never reported: the process its PID
// file names, when it is that daemon.
void KillUnreportedDaemon(const char* function, uint32_t vnet, uint32_t service) {
  char* pidFile = nullptr;
  if (!PLRGetPidFilename(vnet, service, &pidFile, nullptr)) return;
  bool noFile = false;
  const pid_t pid = PLRExtractPidFromFile(pidFile, &noFile);
  if (IsServiceDaemon(pid, pidFile)) {
    PLOG_AS(function, LOG_ERR, "Killing daemon pid: %ld, it did not report status",
            static_cast<long>(pid));
    kill(pid, SIGKILL);
    sys::unlink(pidFile);
  }
  free(pidFile);
}

// Owns a malloc'ed PID file name.
struct PidFileName {
  char* path = nullptr;
  const char* desc = "";
  ~PidFileName() { free(path); }
};

}  // namespace
}  // namespace plr

extern "C" {

// Starts the service daemon of `vnet` and waits for its status. Does not look
// at an existing PID file: callers ask PLRServiceStatus first. TRUE once the
// daemon has written any status bytes.
bool PLRServiceStart(uint32_t vnet, uint32_t service) {
  plr::FunctionTrace trace(__func__);
  const char* binDir = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, "BINDIR", &binDir) || binDir == nullptr) {
    PLOG(LOG_INFO2, "Cannot find BINDIR value in Vnet Config");
    binDir = "/usr/bin";
  }

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    PLOG(LOG_ERR, "pipe(): error: %s", strerror(errno));
    return trace.Exit(false);
  }
  plr::UniqueFd readEnd(fds[0]);
  plr::UniqueFd writeEnd(fds[1]);

  plr::CommandLine cmd;
  try {
    if (!plr::BuildCommandLine(__func__, vnet, service, binDir, writeEnd.get(), &cmd))
      return trace.Exit(false);
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Memory allocation error");
    return trace.Exit(false);
  }

  PLOG(LOG_INFO, "Fork and exec command: %s", cmd.path());
  for (size_t i = 0; i < cmd.args.size(); ++i)
    PLOG(LOG_INFO, "Argument: %u, %s", static_cast<unsigned>(i), cmd.args[i].c_str());
  PLOG(LOG_INFO2, "Attempting to fork a child for the service daemon");

  pid_t pid = plr::sys::fork();
  if (pid < 0) {
    PLOG(LOG_ERR, "fork(): Error while forking child to start daemon: %s, error: %s", cmd.path(),
         strerror(errno));
    return trace.Exit(false);
  }
  if (pid == 0) plr::ExecDaemon(__func__, cmd, readEnd.get(), writeEnd.get());

  // Only the daemon may hold the write end now, so its exit ends the read.
  writeEnd.reset();
  PLOG(LOG_INFO,
       "Successfully forked off child process to start daemon: %s, pid: %d, waiting for child "
       "to complete",
       cmd.path(), static_cast<int>(pid));
  bool timedOut = false;
  if (!plr::WaitForDetach(__func__, pid, cmd.path())) return trace.Exit(false);
  const bool started = plr::ReadDaemonStatus(__func__, readEnd.get(), cmd.path(), &timedOut);
  if (timedOut) plr::KillUnreportedDaemon(__func__, vnet, service);
  return trace.Exit(started);
}

// Stops the daemon named by the service's PID file: SIGTERM, up to 3 s of
// waiting, then SIGKILL; removes the PID file. No PID file means already
// stopped (TRUE); a file without a usable PID is FALSE and is left alone.
bool PLRServiceStop(uint32_t vnet, uint32_t service) {
  plr::FunctionTrace trace(__func__);
  plr::PidFileName pidFile;
  if (!PLRGetPidFilename(vnet, service, &pidFile.path, &pidFile.desc)) return trace.Exit(false);

  bool noFile = false;
  pid_t pid = PLRExtractPidFromFile(pidFile.path, &noFile);
  if (pid < 1) {
    PLOG(LOG_WRN, "Could not extract PID of %s", pidFile.desc);
    return trace.Exit(noFile);
  }

  if (!plr::IsServiceDaemon(pid, pidFile.path)) {
    PLOG(LOG_INFO, "%s service daemon does not seem to be running, pid: %ld", pidFile.desc,
         static_cast<long>(pid));
  } else if (kill(pid, SIGTERM) == 0) {
    plr::AwaitExitOrKill(__func__, pid, pidFile.desc);
  } else if (errno == ESRCH) {
    PLOG(LOG_INFO, "%s service daemon does not seem to be running, pid: %ld", pidFile.desc,
         static_cast<long>(pid));
  } else {
    PLOG(LOG_ERR, "Sending term failed for %s service daemon, pid: %ld, error: %s", pidFile.desc,
         static_cast<long>(pid), strerror(errno));
    kill(pid, SIGKILL);
  }

  plr::sys::unlink(pidFile.path);
  return trace.Exit(true);
}

// Whether the process recorded in the service's PID file is its daemon. A stale PID
// file reads as stopped and stays in place until the next stop.
uint32_t PLRServiceStatus(uint32_t vnet, uint32_t service) {
  plr::FunctionTrace trace(__func__);
  plr::PidFileName pidFile;
  if (!PLRGetPidFilename(vnet, service, &pidFile.path, &pidFile.desc))
    return trace.Exit(PLR_SERVICE_STATUS_UNKNOWN);

  bool noFile = false;
  pid_t pid = PLRExtractPidFromFile(pidFile.path, &noFile);
  if (pid < 1) {
    PLOG(LOG_INFO, "Could not extract PID of %s", pidFile.desc);
    return trace.Exit(noFile ? PLR_SERVICE_STOPPED : PLR_SERVICE_STATUS_UNKNOWN);
  }
  const bool ours = plr::IsServiceDaemon(pid, pidFile.path);
  if (ours && kill(pid, 0) == 0) {
    PLOG(LOG_INFO2, "Successfully tracked %s daemon on vnet: %d, pid: %ld", pidFile.desc,
         static_cast<int>(vnet), static_cast<long>(pid));
    return trace.Exit(PLR_SERVICE_RUNNING);
  }
  if (!ours || errno == ESRCH) {
    PLOG(LOG_WRN, "pid: %ld for %s service daemon on vnet: %d is stale", static_cast<long>(pid),
         pidFile.desc, static_cast<int>(vnet));
    return trace.Exit(PLR_SERVICE_STOPPED);
  }
  PLOG(LOG_ERR, "kill(): failed for pid: %ld, error: %s", static_cast<long>(pid), strerror(errno));
  return trace.Exit(PLR_SERVICE_STATUS_UNKNOWN);
}

// Stops a running service and starts it again if the vnet still wants it;
// with startIfStopped a stopped service is started as well. Not wanting the
// service any more is not a failure: *restarted is then cleared.
bool PLRRestartService(uint32_t vnet, uint32_t service, bool* wasRunning, bool* restarted,
                       bool startIfStopped) {
  uint32_t option = PLRLookupConfigOptionForServiceID(service);
  if (option == 0) {
    PLOG(LOG_ERR, "Unknown service: %d", static_cast<int>(service));
    return false;
  }
  uint32_t status = PLRServiceStatus(vnet, service);
  if (status == PLR_SERVICE_STATUS_UNKNOWN) {
    PLOG(LOG_ERR, "Cannot determine status of service: %u on vnet: %d", service,
         static_cast<int>(vnet));
    return false;
  }
  bool running = status == PLR_SERVICE_RUNNING;
  if (running) {
    if (wasRunning != nullptr) *wasRunning = true;
    if (!PLRServiceStop(vnet, service)) {
      PLOG(LOG_ERR, "Failed to stop service: %u for vnet: %d", service, static_cast<int>(vnet));
      return false;
    }
  } else {
    PLOG(LOG_INFO2, "Service: %u is not running on vnet: %d", service, static_cast<int>(vnet));
    if (wasRunning != nullptr) *wasRunning = false;
  }

  if (running || startIfStopped) {
    if (PLRVnetIsOptionConfigured(vnet, option)) {
      if (!PLRServiceStart(vnet, service)) {
        PLOG(LOG_ERR, "Failed to start service: %u for vnet: %d", service, static_cast<int>(vnet));
        return false;
      }
      if (restarted != nullptr) *restarted = true;
    } else {
      PLOG(LOG_INFO2, "Service: %u could not be restarted since it is not configured for vnet: %d",
           service, static_cast<int>(vnet));
      if (restarted != nullptr) *restarted = false;
    }
  }
  return true;
}

}  // extern "C"
