#include "tests/support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "pelorus.h"

namespace plr::test {
namespace {

bool Fail(const char* what, const std::string& detail) {
  fprintf(stderr, "sandbox: %s %s: %s\n", what, detail.c_str(), strerror(errno));
  return false;
}

bool MountTmpfs(const char* target, const char* options = "mode=0755") {
  return mount("tmpfs", target, "tmpfs", MS_NOSUID, options) == 0 || Fail("tmpfs on", target);
}

bool MkdirP(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return !error || (errno = error.value(), Fail("mkdir", path));
}

// The checkout and build tree are bound back over a fresh /tmp when they live there.
bool CoverTmp() {
  std::vector<std::pair<int, std::string>> keep;
  for (const char* dir : {SourceDir(), BinaryDir()})
    if (strncmp(dir, "/tmp/", 5) == 0) keep.emplace_back(open(dir, O_PATH | O_CLOEXEC), dir);
  if (!MountTmpfs("/tmp", "mode=1777")) return false;
  for (auto& [fd, dir] : keep) {
    const std::string source = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || !MkdirP(dir) || mount(source.c_str(), dir.c_str(), nullptr, MS_BIND | MS_REC, 0))
      return Fail("bind back", dir);
    close(fd);
  }
  return true;
}

// /etc stays readable (dhcpd and the shell need it) but writes land in a
// tmpfs upper layer; /etc/tarsis then gets a tmpfs of its own.
bool CoverEtc() {
  if (!MkdirP("/run/plr-etc") || !MountTmpfs("/run/plr-etc")) return false;
  if (!MkdirP("/run/plr-etc/upper") || !MkdirP("/run/plr-etc/work")) return false;
  const char* options = "lowerdir=/etc,upperdir=/run/plr-etc/upper,workdir=/run/plr-etc/work";
  if (mount("overlay", "/etc", "overlay", 0, options) != 0) return Fail("overlay on", "/etc");
  return MkdirP("/etc/tarsis") && MountTmpfs("/etc/tarsis");
}

bool CoverDev() {
  const struct {
    const char* path;
    unsigned major, minor;
  } nodes[] = {{"/dev/null", 1, 3},      {"/dev/zero", 1, 5},    {"/dev/full", 1, 7},
               {"/dev/random", 1, 8},    {"/dev/urandom", 1, 9}, {"/dev/tty", 5, 0},
               {"/dev/net/tun", 10, 200}};
  if (!MountTmpfs("/dev") || !MkdirP("/dev/net") || !MkdirP("/dev/pts") || !MkdirP("/dev/shm"))
    return false;
  for (const auto& n : nodes)
    if (mknod(n.path, S_IFCHR | 0666, makedev(n.major, n.minor)) != 0) return Fail("mknod", n.path);
  const char* links[][2] = {{"/dev/fd", "/proc/self/fd"},
                            {"/dev/stdin", "/proc/self/fd/0"},
                            {"/dev/stdout", "/proc/self/fd/1"},
                            {"/dev/stderr", "/proc/self/fd/2"}};
  for (auto& link : links) symlink(link[1], link[0]);
  return MountTmpfs("/dev/shm", "mode=1777");
}

}  // namespace

bool EnterSandbox() {
  if (geteuid() != 0) {
    fprintf(stderr, "sandbox: the test suite must run as root (it needs private namespaces)\n");
    return false;
  }
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return Fail("unshare", "");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Fail("make private", "/");
  // /run first: /var/run points into it, and the /etc overlay keeps its upper layer there.
  return MountTmpfs("/run") && CoverEtc() && MountTmpfs("/var/log") && CoverTmp() && CoverDev() &&
         (Run("ip link set lo up") == 0 || Fail("bring up", "lo"));
}

void KillStragglers() {
  struct stat self, ns;
  std::error_code error;
  if (stat("/proc/self/ns/net", &self) != 0) return;
  for (const auto& e : std::filesystem::directory_iterator("/proc", error)) {
    const pid_t pid = atoi(e.path().filename().c_str());
    if (pid > 1 && pid != getpid() && stat((e.path() / "ns/net").c_str(), &ns) == 0 &&
        ns.st_ino == self.st_ino && ns.st_dev == self.st_dev)
      kill(pid, SIGKILL);
  }
}

void WriteFile(const std::string& path, const std::string& text, int mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size())) << path;
  close(fd);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool FileExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> FileLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void WriteProductConfig(const std::string& binDir) {
  WriteFile("/etc/tarsis/config",
            "bindir = \"" + (binDir.empty() ? FixtureBinDir() : binDir) + "\"\n");
}

void WriteDatabase(const std::string& records) {
  WriteFile(kDatabasePath, "VERSION=1,0\n" + records);
}

int Run(const std::string& command) {
  const int status = system(command.c_str());
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Capture(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

std::string LogText() {
  return FileExists(kLogPath) ? ReadFile(kLogPath) : "";
}

bool LogHas(const std::string& text) {
  return LogText().find(text) != std::string::npos;
}

size_t LogCount(const std::string& text) {
  const std::string log = LogText();
  size_t n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
  return n;
}

void LogWhileUnloaded() {
  ASSERT_EQ(plrContext.loadCount, 0u);
  FILE* stream = fopen(kLogPath, "ab+e");
  ASSERT_NE(stream, nullptr) << kLogPath << ": " << strerror(errno);
  if (plrContext.logStream != nullptr) fclose(plrContext.logStream);
  plrContext.logStream = stream;
  plrContext.currentLevel = PLR_LOG_MAX_LEVEL;
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0) return false;
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  std::getline(in, stat);
  size_t paren = stat.rfind(')');
  if (paren == std::string::npos || paren + 2 >= stat.size()) return false;
  return stat[paren + 2] != 'Z' && stat[paren + 2] != 'X';
}

void SleepMs(unsigned ms) {
  usleep(ms * 1000);
}

uint64_t NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::set<int> OpenFds() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  while (dirent* e = readdir(dir))
    if (e->d_name[0] != '.' && atoi(e->d_name) != dirfd(dir)) fds.insert(atoi(e->d_name));
  closedir(dir);
  return fds;
}

}  // namespace plr::test
